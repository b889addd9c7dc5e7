# SPDX-License-Identifier: GPL-3.0-only
"""`pubsubctl setup` against the real server: what it tries, what it stores, and the item that it shows."""

import os
import pty
import signal
import subprocess
import termios
import time
import unittest

from stage import BIN, StageTest, wait_until
from test_pubsubctl import MAIL, environment

NEW, TOKEN = "newcomer", "the token of the newcomer"


class Setup(StageTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.stage.account(NEW, TOKEN)

    def setUp(self):
        self.account = self.stage.path("host", "account.json")
        self.before = self.account.read_text(encoding="utf-8")
        self.addCleanup(self.restore)

    def restore(self):
        if self.account.read_text(encoding="utf-8") != self.before:
            self.account.write_text(self.before, encoding="utf-8")
            self.stage.ctl("session", "login")

    def words(self, *more, app=(), **changed):
        env = self.stage.env
        options = dict({"service": env["XMPP_DOMAIN"], "url": env["XMPP_HOST"], "port": env["XMPP_PORT"],
                        "user": NEW}, **changed)
        given = [word for name, value in options.items() if value for word in ("--" + name, value)]
        return [str(BIN / "pubsubctl"), *app, "setup", *given, *more]

    def setup(self, *more, token=TOKEN, environ=None, **changed):
        """(exit code, standard output, standard error)"""
        done = subprocess.run(self.words(*more, **changed), env=dict(environment(self.stage), **(environ or {})),
                              input=token + "\n", capture_output=True, text=True, check=False, timeout=120)
        self.assertNotIn(TOKEN, done.stdout + done.stderr)
        return done.returncode, done.stdout, done.stderr

    def refused(self, expected, words, **given):
        """Ends with this code and these words, and nothing is stored or disturbed."""
        since = self.stage.ctl("--json", "status")[1]
        code, printed, said = self.setup(**given)
        self.assertEqual(code, expected, printed + said)
        self.assertIn(words, said)
        self.assertEqual(self.account.read_text(encoding="utf-8"), self.before)
        self.assertEqual(self.stage.ctl("--json", "status")[1].split('"heard"')[0], since.split('"heard"')[0])
        return printed

    def assert_set_up(self, code, printed, said):
        self.assertEqual(code, 0, printed + said)
        self.assertIn(f'"{NEW}"', self.account.read_text(encoding="utf-8"))
        self.assertIn(NEW, self.stage.ctl("session", "jid")[1])
        self.assertIn("ok      server extension", printed)
        self.assertIn("server  acknowledged", printed)

    def test_an_application_gets_an_endpoint_and_receives_an_item(self):
        code, printed, said = self.setup("--endpoint", "news", app=MAIL)
        self.assert_set_up(code, printed, said)
        self.assertIn("received: a test of pubsubctl trace", printed)
        key = self.stage.ctl(*MAIL, "endpoint", "key", "news")[1].strip()
        self.assertIn(key, printed.splitlines())

    def test_without_an_application_id_a_node_shows_the_way_and_is_removed(self):
        code, printed, said = self.setup()
        self.assert_set_up(code, printed, said)
        self.assertIn("No endpoint was created", said)
        node = f"/{NEW}/{self.stage.env['DEVICE_RESOURCE']}/setup"
        self.assertIn("Publishing an item to " + node, said)
        self.assertEqual(self.stage.ctl("node", "publish", node, "x", check=False)[0], 3)

    @unittest.skipUnless(os.getuid() == 0, "only root becomes another user")
    def test_for_the_user_who_typed_sudo_it_is_not_root_that_asks_for_the_endpoint(self):
        code, printed, said = self.setup(environ={"SUDO_UID": "1"})
        self.assert_set_up(code, printed, said)
        self.assertIn("(ZELT_PUBLIC_BUS) failed: Permission denied", said)  # the test's folder is root's
        self.assertIn("No endpoint was created", said)

    def test_a_wrong_token_is_refused_and_nothing_is_stored(self):
        printed = self.refused(3, "the user name or the token is wrong", token="another")
        self.assertIn("ok      certificate", printed)

    def test_a_port_on_which_nobody_answers(self):
        printed = self.refused(4, "nothing was stored", port="1")
        self.assertIn("bad     connection", printed)

    def test_a_domain_that_the_certificate_does_not_have(self):
        printed = self.refused(4, "nothing was stored", service="other.example.org")
        self.assertIn("bad     certificate", printed)

    def test_what_is_missing_is_named_where_nobody_can_be_asked(self):
        self.refused(2, "--user is needed", user=None)
        self.refused(2, "--service is needed", service=None)
        self.refused(2, "the token is the first line of standard input", token="")

    def test_an_account_that_cannot_be_stored(self):
        host = self.stage.path("host")
        nowhere = {"ZELT_HOST_STATE_DIR": str(host / "account.json" / "below")}
        self.refused(3, "the account could not be stored; run this as root", environ=nowhere)

    def on_a_terminal(self, answers):
        """Runs it without options; answers each question, and returns (exit status, what the terminal showed)."""
        pid, terminal = pty.fork()
        if pid == 0:
            os.execve(str(BIN / "pubsubctl"), ["pubsubctl", "--app", "com.example.mail", "setup"],
                      environment(self.stage))
        self.addCleanup(os.close, terminal)
        shown = b""

        def read_until(words):
            nonlocal shown
            while words not in shown.decode(errors="replace"):
                shown += os.read(terminal, 4096)

        for question, answer in answers:
            read_until(question)
            if "Token" in question:
                wait_until(lambda: not termios.tcgetattr(terminal)[3] & termios.ECHO, "the echo to be off")
            if answer is None:
                os.kill(pid, signal.SIGINT)
                wait_until(lambda: termios.tcgetattr(terminal)[3] & termios.ECHO, "the echo to be on again")
                break
            os.write(terminal, answer.encode() + b"\n")
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            try:
                block = os.read(terminal, 4096)
            except OSError:
                break
            if not block:
                break
            shown += block
        return os.waitpid(pid, 0)[1], shown.decode(errors="replace")

    def questions(self, token):
        env = self.stage.env
        return [("Domain of the account: ", env["XMPP_DOMAIN"]), ("User name, the part before the @: ", NEW),
                (f"Host of the server [{env['XMPP_DOMAIN']}]: ", env["XMPP_HOST"]),
                ("Port [5222]: ", env["XMPP_PORT"]), ("Token (password): ", token)]

    def test_a_person_is_asked_and_the_token_is_not_shown(self):
        status, shown = self.on_a_terminal(self.questions(TOKEN))
        self.assertEqual(os.waitstatus_to_exitcode(status), 0, shown)
        self.assertNotIn(TOKEN, shown)
        self.assertIn("received: a test of pubsubctl trace", shown)

    def test_an_interrupt_leaves_the_terminal_as_it_was(self):
        status, _shown = self.on_a_terminal(self.questions(None))
        self.assertEqual(os.waitstatus_to_exitcode(status), -signal.SIGINT)
        self.assertEqual(self.account.read_text(encoding="utf-8"), self.before)


if __name__ == "__main__":
    unittest.main()
