# SPDX-License-Identifier: GPL-3.0-only
"""Completion of pubsubctl in the shells themselves: what is typed, and what a tab makes of it."""

import json
import os
import pathlib
import pty
import select
import subprocess
import tempfile
import time
import unittest

from stage import BIN, ROOT, StageTest

SCRIPTS = ROOT / "packaging/completions"
APP = "com.example.completion"
DONE = "is-there"
ODD = "/odd/a b:c$(touch done)'d"  # a name that a shell would obey


class Terminal:
    """An interactive shell on a terminal of its own."""

    def __init__(self, command, environment):
        self._descriptor, end = pty.openpty()
        self._process = subprocess.Popen(command, env=environment, stdin=end, stdout=end, stderr=end,
                                         start_new_session=True)
        os.close(end)
        self.seen = ""

    def send(self, text):
        os.write(self._descriptor, text.encode())

    def wait(self, words, seconds=30):
        """Waits for words on the screen, and returns what was there since the last ones."""
        deadline = time.monotonic() + seconds
        while words not in self.seen:
            if not select.select([self._descriptor], [], [], max(0, deadline - time.monotonic()))[0]:
                raise AssertionError(f"not within {seconds} s: {words!r} in {self.seen!r}")
            self.seen += os.read(self._descriptor, 65536).decode(errors="replace")
        before, _, self.seen = self.seen.partition(words)
        return before

    def close(self):
        self._process.kill()
        self._process.wait()
        os.close(self._descriptor)


class Completion(StageTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.folder = tempfile.TemporaryDirectory()
        cls.environment = dict(cls.stage.process_environment(), PATH=f"{BIN}:{os.environ['PATH']}", TERM="dumb",
                               HOME=cls.folder.name, PS1="", ZDOTDIR=cls.folder.name)
        pathlib.Path(cls.folder.name, ".zshrc").write_text(
            f"fpath=({SCRIPTS} $fpath)\nunsetopt zle_bracketed_paste prompt_sp 2>/dev/null\nPROMPT='> '\n"
            "autoload -Uz compinit && compinit -u -D\n", encoding="utf-8")
        try:
            cls.stage.wait_connected()
            for node in ("/completed/news", ODD):
                cls.stage.ctl("call", "registerItemCallback",
                              json.dumps({"node": node, "endpoint": "zelt://com.zelt.nobody/item"}))
            cls.stage.ctl("--app", APP, "endpoint", "create", "inbox-of-mine")
        except BaseException:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()
        super().tearDownClass()

    def run_shell(self, *command, **extra):
        done = subprocess.run(command, env=dict(self.environment, **extra), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, check=False, timeout=60)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout.splitlines()

    # ---- each shell: the candidates for a command line

    def bash(self, *words, **extra):
        script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
                  '_pubsubctl pubsubctl "${!#}" ""; printf "%s\\n" "${COMPREPLY[@]}"')
        return [line for line in self.run_shell("bash", "--norc", "-c", script, "bash",
                                                str(SCRIPTS / "pubsubctl.bash"), "pubsubctl", *words, **extra) if line]

    def fish(self, *words, **extra):
        script = f"source {SCRIPTS / 'pubsubctl.fish'}; complete -C \"pubsubctl {' '.join(words)}\""
        return [line.split("\t")[0] for line in self.run_shell("fish", "--no-config", "-c", script, **extra)]

    def bash_terminal(self):
        terminal = Terminal(["bash", "--norc", "--noprofile", "-i"], self.environment)
        self.addCleanup(terminal.close)
        terminal.send(f"source {SCRIPTS / 'pubsubctl.bash'}; echo read''y\n")
        terminal.wait("ready")
        return terminal

    def zsh_terminal(self, **extra):
        terminal = Terminal(["zsh", "-i"], dict(self.environment, **extra))
        self.addCleanup(terminal.close)
        terminal.wait("> ")
        return terminal

    def zsh(self, typed, completed):
        """A tab makes one of the other."""
        terminal = self.zsh_terminal()
        terminal.send(typed + "\t")
        terminal.wait(completed)

    @staticmethod
    def assert_takes_odd_name(terminal, typed):
        """A tab completes what is typed to one word, which the shell takes as the name and nothing else."""
        terminal.send(f"pubsubctl handler {typed}\t")
        terminal.wait(r"\'d")
        terminal.send("\x01printf 'took<%s>\\n' \n")  # before the whole line
        terminal.wait(f"took<{ODD}>")

    def test_bash_completes_verbs_options_and_names(self):
        self.assertEqual(self.bash("nod"), ["node"])
        self.assertEqual(self.bash("node", "c"), ["create", "config"])
        self.assertEqual(self.bash("status", "--fo"), ["--follow"])
        self.assertEqual(self.bash("handler", "/comp"), ["/completed/news"])
        self.assertEqual(self.bash("--app", APP, "endpoint", "key", ""), ["inbox-of-mine"])

    def test_bash_completes_files_and_commands(self):
        pathlib.Path(self.folder.name, DONE).touch()
        self.assertEqual(self.bash("node", "publish", "/n", "--file", f"{self.folder.name}/is-"),
                         [f"{self.folder.name}/{DONE}"])
        self.assertIn("pubsubctl", self.bash("subscribe", "box", "--", "pubsubc"))

    def test_bash_completes_a_line_that_is_typed(self):
        terminal = self.bash_terminal()
        terminal.send("pubsubctl handler /comp\t")
        terminal.wait("pubsubctl handler /completed/news ")

    def test_bash_quotes_names(self):
        for typed in ("/odd", "/odd/a\\ b", "/odd/a\\ b:", "/odd/a\\ b:c"):
            with self.subTest(typed):
                self.assert_takes_odd_name(self.bash_terminal(), typed)

    def test_bash_completes_nothing_within_quotes(self):
        self.assertEqual(self.bash("handler", '"/comp'), [])

    def test_zsh_quotes_names(self):
        for typed in ("/odd", "/odd/a\\ b", "/odd/a\\ b:c"):
            with self.subTest(typed):
                self.assert_takes_odd_name(self.zsh_terminal(), typed)

    def test_fish_completes_names_that_need_quotes(self):
        for typed in ("/odd", "/odd/a\\\\ b", "/odd/a\\\\ b:c"):
            self.assertEqual(self.fish("handler", typed), [ODD])

    def test_fish_completes_verbs_options_and_names(self):
        self.assertEqual(self.fish("nod"), ["node"])
        self.assertCountEqual(self.fish("node", "c"), ["create", "config"])
        self.assertEqual(self.fish("status", "--fo"), ["--follow"])
        self.assertEqual(self.fish("handler", "/comp"), ["/completed/news"])
        self.assertEqual(self.fish("--app", APP, "endpoint", "key", ""), ["inbox-of-mine"])

    def test_zsh_completes_a_line_that_is_typed(self):
        self.zsh("pubsubctl docto", "doctor ")
        self.zsh("pubsubctl handler /comp", "/completed/news ")
        self.zsh(f"pubsubctl --app {APP} endpoint key inb", "inbox-of-mine ")
        self.zsh("pubsubctl status --fo", "--follow ")

    def test_without_a_service_nothing_is_printed(self):
        nowhere = {name: "unix:path=/nonexistent" for name in
                   ("ZELT_PRIVATE_BUS", "ZELT_PUBLIC_BUS", "DBUS_SESSION_BUS_ADDRESS")}
        for words in (("handler", ""), ("endpoint", "key", ""), ("push", "remove", "")):
            self.assertEqual(self.bash(*words, **nowhere), [])
        self.assertEqual(self.fish("handler", "/", **nowhere), [])
        terminal = self.zsh_terminal(**nowhere)
        terminal.send("pubsubctl handler /comp\t\x15echo nothing else\n")
        self.assertNotIn("cannot", terminal.wait("nothing else\r\n"))


if __name__ == "__main__":
    unittest.main()
