# SPDX-License-Identifier: GPL-3.0-only
"""Two users of one device, each with a session and a bridge of its own, whose ids are those of their users: neither
sees what is the other's, although all names are the same. Acting as other users needs root; without it nothing is
tested here, and nothing counted.
"""

import contextlib
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

from app import App
from session import DISTRIBUTOR, HERE
from stage import BIN, ROOT, StageTest, processes, wait_until
from test_receive import Receiver
from test_unifiedpush import post

USERS = (4001, 4002)
NAME, TOKEN = "org.example.mail", "t1"  # the same for both
POLICY = '<policy context="mandatory"><allow user="*"/></policy>'


def load_tests(loader, _tests, _pattern):
    if os.geteuid() != 0:
        print("skipped: acting as two users needs root", flush=True)
        return unittest.TestSuite()
    return loader.loadTestsFromTestCase(Users)


class User:
    """A login user: its processes, and their logs. All files of it are its own."""

    def __init__(self, machine, uid):
        self.machine, self.uid = machine, uid
        self.folder = machine.top / str(uid)
        self.folder.mkdir(mode=0o700)
        os.chown(self.folder, uid, uid)
        self.prefix = ["setpriv", f"--reuid={uid}", f"--regid={uid}", "--clear-groups"]
        self.records = []
        self.start("session-bus", machine.bus_command(self.folder, "session"),
                   machine.passwd_environment())
        self.address = f"unix:path={self.folder}/session_bus"
        wait_until((self.folder / "session_bus").is_socket, "the session bus to listen")

    def start(self, name, command, environment):
        name = f"{name}-{self.uid}"
        self.machine.stage.device.start(name, [*self.prefix, *command], environment)
        self.records.append(self.machine.stage.device.record(name))

    def environment(self, **extra):
        return dict(os.environ, ZELT_PUBLIC_BUS=self.machine.address, DBUS_SESSION_BUS_ADDRESS=self.address,
                    XDG_STATE_HOME=str(self.folder), PYTHONDONTWRITEBYTECODE="1", **extra)

    def start_bridge(self):
        self.start("unifiedpush", [self.machine.top / "zelt-unifiedpush"], self.environment())
        wait_until(self.has_bridge, "the bridge on the session bus")

    def has_bridge(self):
        done = subprocess.run(
            [*self.prefix, "dbus-send", "--bus=" + self.address, "--print-reply=literal",
             "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner",
             "string:" + DISTRIBUTOR], capture_output=True, text=True, check=False)
        return "true" in done.stdout

    def kill_bridge(self):
        processes.stop(self.machine.stage.device.record(f"unifiedpush-{self.uid}"))

    def start_connector(self):
        """The application of the session, which registers, and waits for messages until the end."""
        self.start("connector", ["/usr/bin/python3", self.machine.top / "connectornext.py", NAME, self.folder / "log",
                                 "register2", TOKEN], self.environment())

    def lines(self, start):
        log = self.folder / "log"
        lines = log.read_text(encoding="utf-8").splitlines() if log.exists() else []
        return [line.split(" ") for line in lines if line.startswith(start)]

    def wait(self, start, count=1):
        return wait_until(lambda: len(self.lines(start)) >= count and self.lines(start)[count - 1],
                          f"{start!r} of user {self.uid}", 40)

    def messages(self):
        return [bytes.fromhex(words[2]) for words in self.lines("message ")]

    def app(self, **extra):
        """A process of the user that is no application of the session."""
        return self.machine.app(self.prefix, self.environment(**extra))

    def close(self):
        for record in reversed(self.records):
            processes.stop(record)


class Users(StageTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.users = []
        # Where all users may look, wherever the tree is.
        cls.top = pathlib.Path(tempfile.mkdtemp(prefix="users-"))
        try:
            cls.top.chmod(0o755)
            for file in (BIN / "zelt-unifiedpush", HERE / "app.py", HERE / "bus.py", HERE / "connectornext.py"):
                shutil.copy2(file, cls.top)
            cls.share_public_bus()
            cls.users = [User(cls, uid) for uid in USERS]
            for user in cls.users:
                user.start_bridge()
                user.start_connector()
        except BaseException:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        for user in cls.users:
            user.close()
        record = cls.top / "bus.pid"  # the stage takes its folder with it
        with contextlib.suppress(FileNotFoundError):
            shutil.copy(cls.stage.dir / "run" / "users-bus.pid", record)
        super().tearDownClass()
        processes.stop(record)
        shutil.rmtree(cls.top)

    @classmethod
    def bus_command(cls, folder, name):
        template = (ROOT / "packaging" / "dbus" / "zelt-dev.conf.in").read_text(encoding="utf-8")
        configuration = cls.top / f"{folder.name}-{name}.conf"
        configuration.write_text(template.replace("@DIR@", str(folder)).replace("@BUS@", name)
                                 .replace("@EXTRA@", POLICY), encoding="utf-8")
        return ["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nopidfile", "--nosyslog"]

    @classmethod
    def passwd_environment(cls):
        """The bus takes only connections of users that the machine knows: for it, the machine knows them."""
        passwd, group = cls.top / "passwd", cls.top / "group"
        entries = [("root", 0), *((f"user{uid}", uid) for uid in USERS)]
        passwd.write_text("".join(f"{name}:x:{uid}:{uid}::/:/bin/false\n" for name, uid in entries), encoding="ascii")
        group.write_text("".join(f"{name}:x:{uid}:\n" for name, uid in entries), encoding="ascii")
        return dict(os.environ, LD_PRELOAD="libnss_wrapper.so", NSS_WRAPPER_PASSWD=str(passwd),
                    NSS_WRAPPER_GROUP=str(group))

    @classmethod
    def share_public_bus(cls):
        """The service moves to a public bus for all users, as that of a device is, and tells them by their users."""
        cls.address = f"unix:path={cls.top}/public_bus"
        cls.stage.kill_service()
        cls.stage.device.start("users-bus", cls.bus_command(cls.top, "public"), cls.passwd_environment())
        wait_until((cls.top / "public_bus").is_socket, "the public bus to listen")
        cls.stage.start_service(ZELT_PUBLIC_BUS=cls.address, ZELT_APP_ID_OF_USERS="1", ZELT_APP_ID_FROM_ENVIRONMENT="")
        cls.stage.wait_connected()

    @classmethod
    def app(cls, prefix, environment):
        return App(cls.address, "", [*prefix, "/usr/bin/python3", str(cls.top / "app.py")], environment)

    def of(self, user, **extra):
        app = user.app(**extra)
        self.addCleanup(app.close)
        return app

    def endpoints(self, user):
        return [each["endpoint"] for each in self.of(user).call("listEndpoints", {})["endpoints"]]

    def test_the_same_registration_of_two_users_is_two_endpoints(self):
        addresses = [user.wait(f"NewEndpoint {TOKEN} ")[2] for user in self.users]
        self.assertNotEqual(*addresses)
        names = [self.endpoints(user) for user in self.users]
        self.assertEqual(len(names[0]), 1)
        self.assertEqual(*names)  # the name is the same; nothing else is
        keys = [self.of(user).call("getPublishKey", {"endpoint": names[0][0]})["publishKey"] for user in self.users]
        self.assertEqual([address.endswith("/" + key) for address, key in zip(addresses, keys)], [True, True])
        for number, address in enumerate(addresses):
            post(self.stage, address, b"for %d" % number)
        for number, user in enumerate(self.users):
            wait_until(lambda user=user: user.messages(), "the message")
            self.assertEqual(user.messages()[-1], b"for %d" % number)
            self.assertEqual([body for body in user.messages() if body.startswith(b"for %d" % (1 - number))], [])

    def test_what_waits_for_one_user_is_not_the_others_to_receive(self):
        one, other = self.users
        addresses = [user.wait(f"NewEndpoint {TOKEN} ")[2] for user in self.users]
        (name,) = self.endpoints(one)
        for user in self.users:
            user.kill_bridge()
        try:
            post(self.stage, addresses[0], b"secret")
            wait_until(lambda: self.waiting(one, name) == 1, "the message to wait")
            self.assertEqual(self.waiting(other, name), 0)
            post(self.stage, addresses[1], b"own")
            thief = Receiver(self.of(other), endpoint=name)
            item = thief.next()
            self.assertEqual(item["item"], "own")
            thief.acknowledge(item)
            self.assertEqual(thief.app.call("acknowledge", {"endpoint": name, "receipt": item["receipt"]})
                             ["returnValue"], False)
            post(self.stage, addresses[1], b"own again")  # what came before it would have come first
            self.assertEqual(thief.take(), "own again")
            self.assertEqual(self.waiting(one, name), 1)
        finally:
            for user in self.users:
                user.start_bridge()
        wait_until(lambda: b"secret" in one.messages(), "the message", 40)
        self.assertNotIn(b"secret", other.messages())

    def waiting(self, user, name):
        endpoints = self.of(user).call("listEndpoints", {})["endpoints"]
        return [each.get("waiting") for each in endpoints if each["endpoint"] == name][0]

    def test_nobody_takes_the_id_of_another_user(self):
        one, other = self.users
        one.wait(f"NewEndpoint {TOKEN} ")
        (name,) = self.endpoints(one)
        key = self.of(one).call("getPublishKey", {"endpoint": name})["publishKey"]
        pretender = self.of(other, ZELT_APP_ID=f"@{one.uid}")
        self.assertNotEqual(pretender.call("getPublishKey", {"endpoint": name})["publishKey"], key)
        root = self.app([], dict(os.environ, ZELT_APP_ID=f"@{one.uid}"))
        self.addCleanup(root.close)
        self.assertEqual(root.call("getPublishKey", {"endpoint": name})["returnValue"], False)
        self.addCleanup(pretender.call, "deleteEndpoint", {"endpoint": "own"})
        own = pretender.call("createEndpoint", {"endpoint": "own"})
        self.assertEqual(self.of(one).call("getPublishKey", {"endpoint": "own"})["returnValue"], False)
        self.of(one).call("deleteEndpoint", {"endpoint": "own"})
        self.assertEqual(pretender.call("getPublishKey", {"endpoint": "own"})["publishKey"], own["publishKey"])


if __name__ == "__main__":
    unittest.main()
