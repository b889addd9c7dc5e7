# SPDX-License-Identifier: GPL-3.0-only
"""The demo as a newcomer runs it: to its end, as an ordinary user, side by side, with a failing step, interrupted."""

import json
import os
import pathlib
import pwd
import shutil
import signal
import subprocess
import tempfile
import unittest
from unittest import mock

from stage import BIN, PRESET, ROOT, Stage, is_running, parse_assignments, wait_until

STORY = ("the handler printed: Hello from the server", "\na message has arrived: Lunch at ",
         "Done: every step worked")


def run_demo(*arguments, root=ROOT, before=(), **environment):
    """Runs the demo of a tree; returns (exit status, everything it printed)."""
    done = subprocess.run([*before, str(root / "demo"), *arguments], env=dict(os.environ, **environment),
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, timeout=240)
    return done.returncode, done.stdout


def processes_of(folder):
    """The processes that were told of the folder, in their arguments or their environment."""
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            told = path.joinpath("cmdline").read_bytes() + path.joinpath("environ").read_bytes()
        except OSError:
            continue  # it has ended, or is somebody else's
        if os.fsencode(folder) in told and is_running(path.name):
            found.append(told.replace(b"\0", b" ")[:200])
    return found


class Demo(unittest.TestCase):
    def assert_story(self, status, output):
        self.assertEqual(status, 0, output)
        for words in STORY:
            self.assertIn(words, output)

    def test_once_it_tells_the_whole_story_and_cleans_up(self):
        before = set(pathlib.Path(ROOT, "build").glob("demo-*"))
        self.assert_story(*run_demo("--once"))
        self.assertEqual(set(pathlib.Path(ROOT, "build").glob("demo-*")) - before, set())
        self.assertEqual(processes_of(ROOT / "build" / "demo-"), [])

    def test_an_ordinary_user_sees_the_same_story(self):
        if os.geteuid() != 0:
            return self.assert_story(*run_demo("--once"))  # whoever runs the tests is one
        user = pwd.getpwnam("nobody")
        with tempfile.TemporaryDirectory(prefix="demo-") as folder:
            tree = pathlib.Path(folder, "tree")
            for part in ("scripts", "ejabberd", "packaging", "tools"):
                shutil.copytree(ROOT / part, tree / part)
            shutil.copy2(ROOT / "demo", tree)
            binaries = tree / "build" / PRESET / "bin"
            binaries.mkdir(parents=True)
            for name in ("pubsubservice", "pubsubctl", "zelt-host", "zelt-unifiedpush"):
                shutil.copy2(BIN / name, binaries)
            os.chmod(folder, 0o755)
            for path in (tree, *tree.rglob("*")):
                os.chown(path, user.pw_uid, user.pw_gid)
            switch = ("setpriv", f"--reuid={user.pw_uid}", f"--regid={user.pw_gid}", "--clear-groups")
            self.assert_story(*run_demo("--once", root=tree, before=switch, HOME=folder))

    def test_a_step_that_fails_ends_it_with_a_reason(self):
        with tempfile.TemporaryDirectory() as folder:
            broken = pathlib.Path(folder, "erl")
            broken.write_text("#!/bin/sh\necho no virtual machine today >&2\nexit 1\n", encoding="utf-8")
            broken.chmod(0o755)
            status, output = run_demo("--once", PATH=f"{folder}:{os.environ['PATH']}")
        self.assertNotEqual(status, 0)
        self.assertIn("The XMPP server did not start", output)
        left = [path for path in pathlib.Path(ROOT, "build").glob("demo-*") if str(path) in output]
        for path in left:
            shutil.rmtree(path)

    def test_what_it_cannot_understand_is_a_misuse(self):
        for arguments in (("--twice",), ("--up",), ("--down", "/nonexistent")):
            with self.subTest(arguments):
                status, output = run_demo(*arguments)
                self.assertEqual(status, 2)
                self.assertIn("usage: ./demo", output)

    def test_two_sets_run_side_by_side_and_each_ends_alone(self):
        first, second = Stage(), Stage()
        try:
            first.up()
            second.up()
            self.assertNotEqual(first.env["XMPP_PORT"], second.env["XMPP_PORT"])
            pids = [int(first.env[name]) for name in ("SERVICE_PID", "SERVER_PID", "HOST_PID")]
            self.assertTrue(all(is_running(pid) for pid in pids))
            self.assertEqual(run_demo("--down", str(first.dir))[0], 0)
            wait_until(lambda: not any(is_running(pid) for pid in pids), "the first set to end")
            self.assertTrue(second.connected())
        finally:
            first.down()
            second.down()


class Contract(unittest.TestCase):
    """--up and --down, as scripts use them."""

    def setUp(self):
        self.top = tempfile.mkdtemp(prefix="demo-")
        self.addCleanup(shutil.rmtree, self.top)

    def up(self, folder):
        self.addCleanup(run_demo, "--down", str(folder))
        return run_demo("--up", str(folder))

    def test_a_folder_may_be_deep_and_have_any_name_and_its_host_daemon_comes_back(self):
        folder = pathlib.Path(self.top, "deep " * 20, "it's \"quoted\" & 100% $HOME")
        status, output = self.up(folder)
        self.assertEqual(status, 0, output)
        script = 'set -a; . "$1/env"; kill -KILL "$HOST_PID"; pubsubctl --json status'
        done = subprocess.run(["sh", "-ec", script, "sh", str(folder)], capture_output=True, text=True, check=False,
                              env=dict(os.environ, PATH=f"{BIN}:{os.environ['PATH']}"))
        self.assertIn('"connected": true', done.stdout.replace('":true', '": true'), done.stderr)
        env = parse_assignments(folder.joinpath("env").read_text(encoding="utf-8"))
        self.assertEqual(env["STATE_DIR"], str(folder / "state"))
        wait_until(lambda: not is_running(env["HOST_PID"]), "the host daemon to end")
        subprocess.run(["dbus-send", "--bus=" + env["ZELT_PRIVATE_BUS"], "--print-reply", "--dest=com.zelt.power", "/",
                        "org.freedesktop.DBus.Peer.Ping"], check=True, capture_output=True)
        self.assertEqual(run_demo("--down", str(folder)), (0, ""))
        self.assertEqual(processes_of(self.top), [])

    def test_a_session_is_told_in_the_environment_and_ends_with_the_rest(self):
        self.assertEqual(self.up(self.top)[0], 0)
        session = ["/usr/bin/python3", str(ROOT / "scripts/device.py"), "session", self.top]
        for _ in range(2):  # the second one finds it there
            subprocess.run(session, check=True, stdin=subprocess.DEVNULL, capture_output=True)
        env = parse_assignments(pathlib.Path(self.top, "env").read_text(encoding="utf-8"))
        listed = subprocess.run([str(BIN / "pubsubctl"), "--json", "push", "list"], env=dict(os.environ, **env),
                                capture_output=True, text=True, check=True, stdin=subprocess.DEVNULL)
        self.assertEqual(json.loads(listed.stdout)["registrations"], [])
        self.assertTrue(env["XDG_STATE_HOME"].startswith(self.top + "/"))
        self.assertTrue(is_running(env["BRIDGE_PID"]))
        self.assertEqual(run_demo("--down", self.top), (0, ""))
        self.assertEqual(processes_of(self.top), [])

    def test_a_folder_in_use_is_refused_and_goes_on(self):
        self.assertEqual(self.up(self.top)[0], 0)
        pid = parse_assignments(pathlib.Path(self.top, "env").read_text(encoding="utf-8"))["SERVICE_PID"]
        words = f"The processes of {self.top} are running already; stop them with: ./demo --down {self.top}\n"
        self.assertEqual(run_demo("--up", self.top), (1, words))
        self.assertTrue(is_running(pid))
        os.kill(int(pid), signal.SIGKILL)
        wait_until(lambda: not is_running(pid), "the service to end")
        self.assertEqual(run_demo("--up", self.top), (1, words))
        self.assertEqual(run_demo("--down", self.top), (0, ""))
        self.assertEqual(processes_of(self.top), [])

    def test_what_does_not_connect_says_so_and_leaves_nothing_running(self):
        with mock.patch.dict(os.environ, STAGE_DEADLINE="0"):
            status, output = self.up(self.top)
        self.assertEqual(status, 1)
        self.assertIn(f"Timed out: pubsubservice to connect (logs: {self.top}/log)", output)
        self.assertIn(f"==> {self.top}/log/host.log <==", output)
        self.assertEqual(processes_of(self.top), [])


class Interrupted(unittest.TestCase):
    """Wherever it is, Ctrl-C and SIGTERM stop everything that was started."""

    def interrupt(self, at, how, *arguments):
        """Runs the demo until it prints a text; returns its exit status after the signal, and the folder."""
        process = subprocess.Popen(
            [str(ROOT / "demo"), *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, start_new_session=True,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.default_int_handler))  # a shell may have it ignored
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        while at not in process.stdout.readline():
            self.assertIsNone(process.poll())
        if how == signal.SIGINT:
            os.killpg(process.pid, how)  # as a terminal sends it
        else:
            process.send_signal(how)
        output = process.communicate(timeout=60)[0]
        return process.returncode, output

    def assert_cleaned_up(self, at, how, status, *arguments):
        before = set(pathlib.Path(ROOT, "build").glob("demo-*"))
        ended, output = self.interrupt(at, how, *arguments)
        self.assertEqual(ended, status, output)
        for folder in set(pathlib.Path(ROOT, "build").glob("demo-*")) - before:
            self.assertEqual(processes_of(folder), [])
            shutil.rmtree(folder)

    def test_while_the_server_starts(self):
        self.assert_cleaned_up("Starting the XMPP server", signal.SIGINT, 130, "--once")
        self.assert_cleaned_up("Starting the XMPP server", signal.SIGTERM, 143, "--once")

    def test_while_the_service_starts(self):
        self.assert_cleaned_up("Starting pubsubservice", signal.SIGINT, 130, "--once")

    def test_during_the_story_and_after_it(self):
        self.assert_cleaned_up("creates a node", signal.SIGTERM, 143, "--once")
        self.assert_cleaned_up("Press Ctrl-C", signal.SIGINT, 130)

    def test_while_it_starts_for_a_script(self):
        for how, status in ((signal.SIGINT, -signal.SIGINT), (signal.SIGTERM, 143)):
            with self.subTest(how), tempfile.TemporaryDirectory(prefix="demo-") as folder:
                self.assertEqual(self.interrupt("Starting the XMPP server", how, "--up", folder)[0], status)
                self.assertEqual(processes_of(folder), [])


if __name__ == "__main__":
    unittest.main()
