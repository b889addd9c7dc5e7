# SPDX-License-Identifier: GPL-3.0-only
"""The demo as a newcomer runs it: to its end, as an ordinary user, side by side, and with a step that fails."""

import os
import pathlib
import pwd
import shutil
import subprocess
import tempfile
import unittest

from stage import BIN, PRESET, ROOT, Stage, is_running, wait_until

STORY = ("the handler printed: Hello from the server", "Done: every step worked")


def run_demo(*arguments, root=ROOT, before=(), **environment):
    """Runs the demo of a tree; returns (exit status, everything it printed)."""
    done = subprocess.run([*before, str(root / "demo"), *arguments], env=dict(os.environ, **environment),
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, timeout=240)
    return done.returncode, done.stdout


class Demo(unittest.TestCase):
    def assert_story(self, status, output):
        self.assertEqual(status, 0, output)
        for words in STORY:
            self.assertIn(words, output)

    def test_once_it_tells_the_whole_story_and_cleans_up(self):
        before = set(pathlib.Path(ROOT, "build").glob("demo-*"))
        self.assert_story(*run_demo("--once"))
        self.assertEqual(set(pathlib.Path(ROOT, "build").glob("demo-*")) - before, set())

    def test_an_ordinary_user_sees_the_same_story(self):
        if os.geteuid() != 0:
            return self.assert_story(*run_demo("--once"))  # whoever runs the tests is one
        user = pwd.getpwnam("nobody")
        with tempfile.TemporaryDirectory(prefix="demo-") as folder:
            tree = pathlib.Path(folder, "tree")
            for part in ("scripts", "ejabberd", "packaging"):
                shutil.copytree(ROOT / part, tree / part)
            shutil.copy2(ROOT / "demo", tree)
            binaries = tree / "build" / PRESET / "bin"
            binaries.mkdir(parents=True)
            for name in ("pubsubservice", "pubsubctl", "zelt-host"):
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


if __name__ == "__main__":
    unittest.main()
