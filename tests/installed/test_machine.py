# SPDX-License-Identifier: GPL-3.0-only
"""The packages on a booted machine with the server in it: used, rebooted, broken, and looked after."""

import contextlib
import hashlib
import json
import re
import shutil
import subprocess
import sys
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

import machine
from machine import ROOT, Machine

DOMAIN = "push.example"
DEVICE, TOKEN = "device", "the-token-of-the-device"
USER, OTHER = "ada", "bob"
UNITS = ("zelt-private-bus", "zelt-host", "pubsubservice")
ACCOUNT = "/var/lib/zelt/host/account.json"
YML = "/etc/ejabberd/ejabberd.yml"
AUTHORITY = f"""
cd /root
curve="-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
openssl req -x509 $curve -keyout ca.key -out ca.crt -days 30 -subj "/CN=authority of the test" \
    -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign
openssl req -new $curve -keyout server.key -out server.csr -subj /CN={DOMAIN}
printf 'subjectAltName=DNS:{DOMAIN},DNS:pubsub.{DOMAIN}\\nextendedKeyUsage=serverAuth\\n' >server.ext
openssl x509 -req -in server.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 30 -extfile server.ext -out server.crt
cat server.crt server.key >server.pem
openssl req -x509 $curve -keyout other.key -out other.crt -days 30 -subj /CN={DOMAIN} -addext subjectAltName=DNS:{DOMAIN}
cat other.crt other.key >other.pem
cp ca.crt /usr/local/share/ca-certificates/test.crt
update-ca-certificates
cat server.pem >/etc/ejabberd/ejabberd.pem
"""


def new_machine():
    """A booted machine without the packages, and the folder that has them."""
    folder = machine.packages()
    built = Machine(machine.base(folder))
    try:
        (built.root / "var/log/journal").mkdir(parents=True, exist_ok=True)  # the log outlives a reboot
        with open(built.root / "etc/hosts", "a", encoding="ascii") as hosts:
            hosts.write(f"127.0.0.1 localhost machine {DOMAIN} pubsub.{DOMAIN}\n")
        return built.boot(), folder
    except BaseException:
        built.stop()
        raise


class Installed(unittest.TestCase):
    """Each test leaves the machine as it found it: connected, and with nothing to find for the doctor."""

    @classmethod
    def setUpClass(cls):
        cls.machine, cls.folder = new_machine()
        cls.addClassCleanup(cls.machine.stop)
        for user in (USER, OTHER):
            cls.machine.run("useradd", "-m", user)
        cls.machine.install(cls.folder)
        cls.configure()
        for tool in ("desktop-app", "send-push", "webpush.py"):
            cls.machine.path("opt/tools").mkdir(mode=0o755, exist_ok=True)
            shutil.copy(ROOT / "tools" / tool, cls.machine.path("opt/tools"))
        cls.machine.shell("chmod -R a+rX /opt/tools")

    @classmethod
    def configure(cls):
        """What an administrator does by the page on operations."""
        cls.machine.shell(AUTHORITY)
        cls.machine.run("pubsub-device-setup", DOMAIN)
        cls.machine.run("systemctl", "restart", "ejabberd")  # its certificate is another
        cls.machine.run("ejabberdctl", "register", DEVICE, DOMAIN, TOKEN)
        cls.host_setting("loopback-is-internet", "true")
        cls.set_account()
        for user in (USER, OTHER):
            cls.machine.run("loginctl", "enable-linger", user)
        cls.wait_healthy()

    @classmethod
    def host_setting(cls, key, value):
        path = cls.machine.path("etc/zelt/host.conf")
        path.write_text(re.sub(rf"^#?{key}=.*$", f"{key}={value}", path.read_text(encoding="utf-8"), flags=re.MULTILINE),
                        encoding="utf-8")
        cls.machine.run("systemctl", "restart", "zelt-host")

    @classmethod
    def set_account(cls, token=TOKEN, **options):
        words = [word for name, value in options.items() for word in ("--" + name, value)]
        cls.machine.run("zelt-host", "account", "set", "--user", DEVICE, "--service", DOMAIN, *words, stdin=token + "\n")

    @classmethod
    def findings(cls):
        """What the doctor says: check -> state, and its whole text under None."""
        text = cls.machine.output("pubsubctl", "--json", "doctor", check=False)
        found = {None: text}
        for line in text.splitlines():
            with contextlib.suppress(ValueError):
                finding = json.loads(line)
                found[finding["check"]] = finding["state"]
        return found

    @classmethod
    def wait_healthy(cls):
        """A login is asked for, so that no delay of the host has to pass."""
        last = {}

        def healthy():
            last.update(cls.findings())
            states = {state for check, state in last.items() if check}
            if states == {"ok"}:
                return True
            cls.machine.run("pubsubctl", "--timeout", "5", "session", "login", check=False)
            return False
        try:
            cls.machine.wait(healthy, "the doctor to find nothing", 60)
        except machine.Failed as error:
            raise machine.Failed(f"{error}\n{last.get(None)}\n{cls.journal()[-6000:]}") from error

    @classmethod
    def journal(cls):
        return cls.machine.output("journalctl", "--no-pager", "-o", "cat", check=False)

    def as_user(self, *command, user=USER, check=True, stdin=""):
        """A process of the user's own manager, as the applications of a session are."""
        return self.machine.run("systemd-run", "--user", "--quiet", "--pipe", "--wait", "--collect",
                                "--working-directory=/tmp", *command, user=user, check=check, stdin=stdin)

    def endpoint(self, name, user=USER):
        """The key of a new endpoint of the user."""
        key = self.as_user("pubsubctl", "endpoint", "create", name, user=user)[1].strip().splitlines()[-1]
        self.addCleanup(self.as_user, "pubsubctl", "endpoint", "delete", name, user=user)
        return key

    def curl(self, key, text):
        """The status of a publication."""
        return self.machine.output("curl", "-sS", "-o", "/dev/null", "-w", "%{http_code}", "-d", text,
                                   f"https://{DOMAIN}:5281/push/{key}")

    def receive(self, name, user=USER):
        return self.as_user("pubsubctl", "subscribe", name, "-C", "1", "-W", "30", user=user)[1]

    def pids(self):
        return {unit: self.machine.main_pid(unit) for unit in UNITS}

    def active(self):
        return all(self.machine.output("systemctl", "is-active", unit, check=False).strip() == "active" for unit in UNITS)

    # --- used

    def test_an_item_of_curl_reaches_the_application_of_a_login_user(self):
        key = self.endpoint("inbox")
        self.assertEqual(self.curl(key, "by curl"), "201")
        self.assertIn("by curl", self.receive("inbox"))

    def test_a_web_push_starts_a_desktop_application(self):
        app = ("python3", "/opt/tools/desktop-app")
        self.machine.run(*app, "install", user=USER)
        self.machine.wait(lambda: self.machine.run("busctl", "--user", "status",
                                                   "org.unifiedpush.Distributor.pubsubservice", user=USER,
                                                   check=False)[0] == 0, "the bridge of the session")
        subscription = self.as_user(*app, "register")[1]
        self.addCleanup(self.as_user, *app, "unregister")
        self.machine.run("python3", "/opt/tools/send-push", "-", "by web push", stdin=subscription)
        self.machine.wait(lambda: "by web push" in self.as_user(*app, "messages")[1], "the message")

    def test_after_a_reboot_all_is_back(self):
        key = self.endpoint("over-the-reboot")
        self.machine.reboot()
        self.wait_healthy()
        self.assertTrue(self.active())
        self.assertEqual(self.curl(key, "after the reboot"), "201")
        self.assertIn("after the reboot", self.receive("over-the-reboot"))

    def test_what_arrives_while_the_device_is_off_is_not_lost(self):
        key = self.endpoint("while-off")
        self.machine.run("systemctl", "stop", "pubsubservice")
        self.addCleanup(self.wait_healthy)
        self.addCleanup(self.machine.run, "systemctl", "start", "pubsubservice")
        self.assertEqual(self.curl(key, "meanwhile"), "201")
        self.machine.run("systemctl", "start", "pubsubservice")
        self.wait_healthy()
        self.assertIn("meanwhile", self.receive("while-off"))

    # --- units

    def test_each_unit_that_is_killed_is_back(self):
        for unit in UNITS:
            with self.subTest(unit):
                before = self.pids()
                self.machine.run("systemctl", "kill", "-s", "KILL", "--kill-whom=main", unit)
                self.machine.wait(lambda unit=unit, before=before: self.pids()[unit] not in (0, before[unit]),
                                  f"{unit} to be started again")
                self.wait_healthy()
                self.assertTrue(self.active())

    def test_a_service_whose_loop_is_stuck_is_ended_and_started_again(self):
        self.machine.write("/etc/systemd/system/pubsubservice.service.d/test.conf", "[Service]\nWatchdogSec=2s\nTimeoutAbortSec=1s\n")
        self.addCleanup(self.wait_healthy)
        self.addCleanup(self.machine.shell, "rm -r /etc/systemd/system/pubsubservice.service.d; systemctl daemon-reload; "
                        "systemctl kill -s KILL pubsubservice; systemctl restart pubsubservice")
        self.machine.run("systemctl", "daemon-reload")
        self.machine.run("systemctl", "restart", "pubsubservice")
        self.wait_healthy()
        before = self.pids()["pubsubservice"]
        self.assertEqual(self.machine.output("systemctl", "show", "-P", "NRestarts", "pubsubservice").strip(), "0")
        self.machine.run("kill", "-STOP", before)
        self.machine.wait(lambda: self.pids()["pubsubservice"] not in (0, before), "the service to be started again")
        self.assertIn("Watchdog timeout", self.machine.output("journalctl", "--no-pager", "-u", "pubsubservice"))

    def test_the_units_are_closed(self):
        for unit in UNITS:
            with self.subTest(unit):
                text = self.machine.output("systemd-analyze", "security", "--no-pager", unit, check=False)
                exposure = float(re.search(r"Overall exposure level for \S+: ([\d.]+)", text)[1])
                self.assertLess(exposure, 2.0, text)
                page = (ROOT / "docs/security.md").read_text(encoding="utf-8")
                self.assertIn(f"{exposure}", page.split("\n## The processes and the machine\n")[1].split("\n## ")[0])

    def test_each_process_has_a_user_of_its_own_and_no_further_rights(self):
        users, rights = {}, {}
        for unit, pid in self.pids().items():
            status = dict(line.split(":\t", 1) for line in self.machine.output("cat", f"/proc/{pid}/status").splitlines()
                          if ":\t" in line)
            users[unit], rights[unit] = status["Uid"].split()[0], int(status["CapEff"], 16)
            self.assertEqual(status["NoNewPrivs"], "1")
        self.assertEqual(users, {unit: self.machine.user_id(user) for unit, user in zip(
            UNITS, ("zelt-bus", "zelt-host", "pubsub"))})
        self.assertEqual(rights, {"zelt-private-bus": 0, "zelt-host": 1 << 35, "pubsubservice": 0})

    def test_at_rest_no_process_wakes(self):
        def switches():
            return [self.machine.output("sh", "-c", f"grep -h ^voluntary /proc/{pid}/task/*/status")
                    for pid in self.pids().values()]

        def rests():
            before = switches()
            time.sleep(10)  # the length of the measurement
            return before == switches()
        self.machine.wait(rests, "ten seconds in which no process was woken", 60)

    # --- refusals

    def test_a_user_who_may_not_is_refused(self):
        refused = (
            ("pubsubctl", "call", "getJabberId", "{}"),
            ("pubsubctl", "session", "disconnect"),
            ("busctl", "--address=unix:path=/run/zelt/private_bus", "list"),
            ("zelt-host", "account", "set", "--user", "x", "--service", "y"),
            ("zelt-host", "account", "show"),
            ("cat", ACCOUNT),
            ("ls", "/var/pubsub"),
            ("ls", "/var/lib/zelt/prefs"),
            ("cat", YML),
            ("systemctl", "stop", "pubsubservice"),
            ("busctl", "--system", "call", "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
             "ReleaseName", "s", "com.zelt.pubsubservice.x y"),
        )
        for command in refused:
            with self.subTest(command):
                self.assertNotEqual(self.machine.run(*command, user=USER, check=False, stdin="token\n")[0], 0)
        self.wait_healthy()
        # And so it is with the processes among themselves.
        for user, file in (("pubsub", ACCOUNT), ("zelt-bus", ACCOUNT), ("zelt-bus", "/var/pubsub"),
                           ("zelt-host", "/var/lib/zelt/prefs/.")):
            with self.subTest(user=user, file=file):
                self.assertNotEqual(self.machine.run("runuser", "-u", user, "--", "test", "-r", file, check=False)[0], 0)

    def test_one_users_endpoints_are_not_anothers(self):
        key = self.endpoint("mine")
        self.assertNotIn("mine", self.as_user("pubsubctl", "endpoint", "list", user=OTHER)[1])
        self.assertNotEqual(self.as_user("pubsubctl", "endpoint", "key", "mine", user=OTHER, check=False)[0], 0)
        self.assertEqual(self.curl(key, "for one"), "201")
        self.assertNotEqual(self.as_user("pubsubctl", "subscribe", "mine", "-C", "1", "-W", "2", user=OTHER,
                                         check=False)[0], 0)
        self.assertIn("for one", self.receive("mine"))

    # --- broken, and named by the doctor

    def expect_finding(self, check, within=30):
        last = {}

        def named():
            last.update(self.findings())
            return last.get(check) == "bad"
        try:
            self.machine.wait(named, f"the doctor to name: {check}", within)
        except machine.Failed as error:
            raise machine.Failed(f"{error}\n{last.get(None)}") from error

    def broken(self, check, break_it, mend):
        """What is broken first is the first that the doctor names."""
        with self.subTest(check):
            try:
                break_it()
                self.expect_finding(check)
                states = [(name, state) for name, state in self.findings().items() if name]
                self.assertEqual(next(name for name, state in states if state == "bad"), check)
            finally:
                mend()
                self.wait_healthy()

    def sh(self, text):
        return lambda: self.machine.shell(text)

    def test_what_is_broken_on_the_device_is_named_by_the_doctor(self):
        self.broken("private bus", self.sh("systemctl stop zelt-private-bus.socket zelt-private-bus.service"),
                    self.sh("systemctl start zelt-private-bus.socket zelt-host pubsubservice"))
        self.broken("public bus", self.sh("systemctl stop dbus.socket dbus.service"),
                    self.sh("systemctl start dbus.socket dbus.service; systemctl restart systemd-logind"))
        self.broken("push service", self.sh("systemctl stop pubsubservice"), self.sh("systemctl start pubsubservice"))
        self.broken("power service", self.sh("systemctl stop zelt-host"), self.sh("systemctl start zelt-host"))
        self.broken("network", lambda: self.host_setting("loopback-is-internet", "false"),
                    lambda: self.host_setting("loopback-is-internet", "true"))
        self.broken("state folder", self.sh("mv /var/pubsub /var/pubsub.away"), self.sh("mv /var/pubsub.away /var/pubsub"))
        self.broken("state folder", self.sh("chown root /var/pubsub"), self.sh("chown pubsub /var/pubsub"))
        self.broken("store", self.sh("mv /var/lib/zelt/prefs /var/lib/zelt/away"),
                    self.sh("mv /var/lib/zelt/away /var/lib/zelt/prefs"))

    def test_what_is_wrong_with_the_account_is_named_by_the_doctor(self):
        login = self.sh("pubsubctl --timeout 5 session login || true")

        def with_account(**account):
            def change():
                self.set_account(**account)
                login()
            return change
        self.broken("account", self.sh("zelt-host account clear"), self.set_account)
        self.broken("name resolution", with_account(url="nowhere.invalid"), self.set_account)
        self.broken("login", with_account(token="another"), self.set_account)

    def test_what_is_wrong_at_the_server_is_named_by_the_doctor(self):
        self.broken("connection", self.sh("systemctl stop ejabberd"), self.sh("systemctl start ejabberd"))
        self.broken("certificate", self.sh("cat /root/other.pem >/etc/ejabberd/ejabberd.pem; systemctl restart ejabberd"),
                    self.sh("cat /root/server.pem >/etc/ejabberd/ejabberd.pem; systemctl restart ejabberd"))
        self.broken("server extension", self.sh(
            f"cp -p {YML} /root/yml; sed -i '/mod_pubsub_device:/,/push_url/d; /module: pubsub_device_listener/s/:.*/: "
            f"ejabberd_http/; s/nodetree: device/nodetree: tree/' {YML}; systemctl restart ejabberd"),
            self.sh(f"cp -p /root/yml {YML}; systemctl restart ejabberd"))

    # --- the server's configuration

    def test_the_server_refuses_a_configuration_and_keeps_its_own(self):
        before = self.machine.path(YML).read_bytes()
        status, said = self.machine.run("pubsub-device-setup", DOMAIN, "--port", "5222", "--push-url", "no url",
                                        check=False)
        self.assertEqual(status, 1, said)
        self.assertIn("the server refused the configuration, and has its former one again", said)
        self.assertEqual(self.machine.path(YML).read_bytes(), before)
        self.wait_healthy()

    def test_the_extension_is_taken_out_again_and_the_file_is_what_it_was(self):
        original = self.machine.path(YML + ".dpkg-dist") if self.machine.path(YML + ".dpkg-dist").exists() else None
        with_it = self.machine.path(YML).read_bytes()
        self.addCleanup(self.wait_healthy)
        self.addCleanup(self.machine.run, "systemctl", "restart", "ejabberd")
        self.assertEqual(self.machine.output("pubsub-device-setup", "--show"), DOMAIN + "\n")
        self.assertEqual(self.machine.run("pubsub-device-setup", "other.example", "--remove", check=False)[0], 1)
        self.assertEqual(self.machine.path(YML).read_bytes(), with_it)
        self.machine.run("pubsub-device-setup", DOMAIN, "--remove")
        without = self.machine.path(YML).read_bytes()
        self.assertNotIn(b"pubsub-device", without)
        self.assertIsNone(original)
        self.assertEqual(self.machine.run("pubsub-device-setup", DOMAIN, "--remove", check=False)[0], 1)
        self.machine.run("pubsub-device-setup", DOMAIN)
        self.assertEqual(self.machine.path(YML).read_bytes(), with_it)

    # --- logs

    def test_no_log_has_a_token_a_password_a_key_or_the_text_of_an_item(self):
        key = self.endpoint("unseen")
        self.assertEqual(self.curl(key, "unseen-text-by-curl"), "201")
        self.assertIn("unseen-text-by-curl", self.receive("unseen"))
        self.assertEqual(self.curl(key, '{"unseen-member":"unseen-value"}'), "201")
        self.assertIn("unseen-value", self.receive("unseen"))
        self.assertEqual(self.curl(key[:-1] + ("a" if key[-1] != "a" else "b"), "unseen-text"), "404")
        self.machine.run("ejabberdctl", "register", "further", DOMAIN, "unseen-password")
        self.set_account(token="unseen-wrong-token")
        self.machine.run("pubsubctl", "--timeout", "5", "session", "login", check=False)
        self.set_account()
        self.wait_healthy()
        # The journal has the command line of whoever logs, and ejabberdctl takes passwords there.
        journal = [line for line in self.machine.output("journalctl", "--no-pager", "-o", "export").splitlines()
                   if not line.startswith("_CMDLINE=su ")]
        logs = "\n".join(journal) + self.machine.output("sh", "-c", "cat /var/log/ejabberd/*.log")
        self.assertIn("We formed a connection with the xmpp server", logs)
        for secret in (TOKEN, key, "unseen-text", "unseen-member", "unseen-value", "unseen-password",
                       "unseen-wrong-token"):
            with self.subTest(secret):
                lines = [line for line in logs.splitlines() if secret in line]
                self.assertEqual(lines[:3], [])


class Versions(unittest.TestCase):
    """One release after the other on one machine, and nothing in the end."""

    def setUp(self):
        self.machine, self.folder = new_machine()
        self.addCleanup(self.machine.stop)
        self.earlier = machine.earlier(self.folder, "0.1.9", self.machine.dir / "earlier")
        self.names = [machine.field(package, "Package") for package in machine.product_of(self.folder)]

    def files(self):
        """Every file that belongs to no package, without what the tools of the machine write."""
        listing = self.machine.output(
            "sh", "-c", "find / -xdev \\( -path /proc -o -path /sys -o -path /run -o -path /tmp -o -path /debs -o -path "
            "/var/cache -o -path /var/log -o -path /var/lib/apt -o -path /var/lib/dpkg -o -path /var/lib/ejabberd -o "
            "-path /var/tmp -o -path /root \\) -prune -o -print | sort >/tmp/all; "
            "cat /var/lib/dpkg/info/*.list | sort -u >/tmp/owned; comm -23 /tmp/all /tmp/owned")
        return set(listing.splitlines())

    def users(self):
        """User and shell of each account."""
        return set(self.machine.output("sh", "-c", "cut -d : -f 1,7 /etc/passwd").splitlines())

    def versions(self):
        return set(self.machine.output("dpkg-query", "-W", "-f", "${db:Status-Abbrev} ${Version}\\n",
                                       *self.names).splitlines())

    def expect_running(self, other_than=()):
        pids = {}

        def running():
            pids.update({unit: self.machine.main_pid(unit) for unit in UNITS})
            return all(pids.values()) and not set(pids.values()) & set(other_than) and \
                self.machine.run("pubsubctl", "status", check=False)[0] in (0, 4)
        self.machine.wait(running, f"the units to run, and others than {other_than}")
        return set(pids.values())

    def test_upgrade_downgrade_removal_and_purge(self):
        before, users = self.files(), self.users()
        yml = self.machine.path(YML).read_bytes()
        version = machine.field(machine.product_of(self.folder)[0], "Version")
        self.machine.install(self.earlier)
        self.assertEqual(self.versions(), {"ii  0.1.9"})
        running = self.expect_running()

        # What an administrator changes, and what the service keeps.
        conf = self.machine.path("etc/zelt/host.conf")
        conf.write_text(conf.read_text(encoding="utf-8") + "# mine\n", encoding="utf-8")
        self.machine.run("zelt-host", "account", "set", "--user", "u", "--service", "nowhere.invalid", stdin="t\n")
        self.machine.write("/var/pubsub/mine", "kept")
        self.machine.run("pubsub-device-setup", DOMAIN)

        def expect_kept():
            self.assertIn("# mine", conf.read_text(encoding="utf-8"))
            self.assertIn("nowhere.invalid", self.machine.path(ACCOUNT).read_text(encoding="utf-8"))
            self.assertTrue(self.machine.path("var/pubsub/mine").exists())

        for folder, expected in ((self.folder, version), (self.earlier, "0.1.9"), (self.folder, version)):
            self.machine.install(folder, "--allow-downgrades")
            self.assertEqual(self.versions(), {f"ii  {expected}"})
            running = self.expect_running(other_than=running)
            expect_kept()
            self.assertEqual(self.machine.run("ejabberdctl", "pubsub_device_top", check=False)[0], 0)

        self.machine.run("apt-get", "remove", "-q", "-y", *self.names)
        self.assertEqual(self.machine.path(YML).read_bytes(), yml)
        expect_kept()
        left = self.machine.output("ps", "-e", "-o", "user=,args=").splitlines()
        self.assertEqual([line for line in left if "zelt" in line or "pubsub" in line], [])
        self.assertEqual(self.machine.run("ejabberdctl", "status")[0], 0)
        self.machine.install(self.folder)
        self.expect_running()
        expect_kept()

        self.machine.run("apt-get", "purge", "-q", "-y", *self.names)
        self.assertEqual(sorted(self.files() - before), [])
        # Only users without a shell are left: a file of theirs elsewhere must not become somebody else's.
        self.assertEqual(self.users() - users, {f"{user}:/usr/sbin/nologin" for user in ("pubsub", "zelt-bus", "zelt-host")})
        self.assertEqual(self.machine.path(YML).read_bytes(), yml)
        self.assertEqual(self.machine.run("systemctl", "list-units", "--failed", "-q", "--no-legend")[1], "")


class Packages(unittest.TestCase):
    def test_the_packages_built_again_elsewhere_are_the_same(self):
        first, again = ({path.name: hashlib.sha256(path.read_bytes()).hexdigest() for path in folder.glob("*.deb")}
                        for folder in (machine.packages(), machine.packages_again()))
        self.assertEqual(len([name for name in first if "-dbgsym_" not in name]), 6)
        self.assertEqual(again, first)

    def test_lintian_finds_nothing(self):
        folder = machine.packages()
        text = machine.run(["lintian", "--allow-root", "--fail-on", "error,warning", "--profile", "debian",
                            *sorted(folder.glob("*.deb"))], "lintian")
        self.assertEqual(text, "")


def run_tests(names):
    """Runs the tests that are named in this process."""
    suite = unittest.defaultTestLoader.loadTestsFromNames(names, sys.modules[__name__])
    result = unittest.TextTestRunner(stream=sys.stdout, verbosity=2).run(suite)
    failed = len(result.failures) + len(result.errors)
    return max(result.testsRun - failed, 0), failed


def run_part(names):
    """The same in another process; its lines are printed as they come."""
    counts = None
    with subprocess.Popen([sys.executable, __file__, *names], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace") as process:
        for line in process.stdout:
            last = re.fullmatch(r"(\d+) passed, (\d+) failed\n", line)
            if last:
                counts = tuple(map(int, last.groups()))
            else:
                print(line, end="", flush=True)
    return counts or (0, 1)


def main(names):
    """Runs all tests, one machine beside the other, or those that are named."""
    reason = machine.why_not()
    if not reason and not names:
        machine.packages_again()
        reason = machine.why_not_booted(machine.packages())
    if reason:
        print(f"skipped: {reason}")
        return 0
    if names:
        passed, failed = run_tests(names)
    else:
        with ThreadPoolExecutor() as pool:
            counts = list(pool.map(run_part, (["Installed"], ["Versions", "Packages"])))
        passed, failed = map(sum, zip(*counts))
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
