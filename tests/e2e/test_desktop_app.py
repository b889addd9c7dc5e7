# SPDX-License-Identifier: GPL-3.0-only
"""The desktop application and the sender of tools/, in the session that the demo starts."""

import json
import ssl
import subprocess
import sys
import unittest

import dbus
import dbus.bus

from stage import ROOT, StageTest, parse_assignments, wait_until

TOOLS = ROOT / "tools"
sys.path.insert(0, str(TOOLS))
import webpush  # noqa: E402

NAME = "org.example.Inbox"


class DesktopApp(StageTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        try:
            cls.stage.device.start_session()
            cls.env = parse_assignments(cls.stage.path("env").read_text(encoding="utf-8"))
            cls.bus = dbus.bus.BusConnection(cls.env["DBUS_SESSION_BUS_ADDRESS"])
        except BaseException:
            super().tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.bus.close()
        super().tearDownClass()

    def setUp(self):
        self.assertEqual(self.app("install")[0], 0)
        self.context = ssl.create_default_context(cafile=self.env["CA_FILE"])

    def tool(self, name, *arguments, text=None, **extra):
        """Runs a program of tools/; returns (exit status, what it printed, what it complained of)."""
        environment = {**self.stage.process_environment(), **self.env, "PYTHONDONTWRITEBYTECODE": "1", **extra}
        done = subprocess.run([str(TOOLS / name), *arguments], env=environment, input=text or "", capture_output=True,
                              text=True, check=False, timeout=60)
        return done.returncode, done.stdout, done.stderr

    def app(self, *arguments, **extra):
        return self.tool("desktop-app", *arguments, **extra)

    def register(self):
        status, printed, complaint = self.app("register")
        self.assertEqual((status, complaint), (0, ""))
        return printed

    def send(self, subscription, text):
        return self.tool("send-push", "--cacert", self.env["CA_FILE"], "-", text, text=subscription)

    def messages(self):
        return self.app("messages")[1].splitlines()

    def wait_ended(self):
        wait_until(lambda: not self.bus.name_has_owner(NAME), "the application to end")

    def test_it_registers_and_is_started_for_each_message(self):
        subscription = self.register()
        for text in ("one", "\u00fc and more"):
            self.wait_ended()
            status, printed, _ = self.send(subscription, text)
            self.assertEqual((status, printed), (0, "accepted with 201; the server keeps it for 3600 seconds at most\n"))
            wait_until(lambda text=text: self.messages()[-1:] == [text], "the message")
        self.assertEqual(self.register(), subscription)  # once more, it has the same address and the same keys

    def test_what_is_not_encrypted_for_it_is_left_out(self):
        subscription = self.register()
        url = json.loads(subscription)["endpoint"]
        known = self.messages()
        self.assertEqual(webpush.request(url, "POST", b"forged", {"TTL": "60"}, self.context).status, 201)
        other = webpush.Receiver().subscription
        self.assertEqual(webpush.Sender().push(url, other, b"for another", context=self.context).status, 201)
        self.assertEqual(self.send(subscription, "good")[0], 0)
        wait_until(lambda: len(self.messages()) > len(known), "the good message")
        self.assertEqual(self.messages(), [*known, "good"])
        self.assertIn("a message is left out: too short for a message", self.stage.log("session-bus"))
        self.assertIn("a message is left out: not encrypted for this application", self.stage.log("session-bus"))

    def test_a_message_that_comes_again_is_kept_once(self):
        keys = json.loads(self.register())["keys"]
        body = webpush.encrypt(b"again", webpush.Subscription(keys["p256dh"], keys["auth"]))
        values = {"token": "inbox", "message": dbus.ByteArray(body), "id": "id-of-this-test"}
        self.wait_ended()
        for _ in range(2):
            answer = self.bus.call_blocking(NAME, "/org/unifiedpush/Connector", "org.unifiedpush.Connector2", "Message",
                                            "a{sv}", (values,))
            self.assertEqual(answer, {"id": "id-of-this-test"})
        self.assertEqual(self.messages().count("again"), 1)

    def test_without_its_registration_its_address_is_gone(self):
        subscription = self.register()
        self.assertEqual(self.app("unregister"), (0, "", ""))
        status, printed, complaint = self.send(subscription, "late")
        self.assertEqual((status, printed), (1, ""))
        self.assertRegex(complaint, "send-push: refused with 4(04|10)")
        self.assertNotEqual(json.loads(self.register())["keys"], json.loads(subscription)["keys"])

    def test_it_says_what_is_missing(self):
        status, _, complaint = self.app("register", DBUS_SESSION_BUS_ADDRESS=self.env["ZELT_PUBLIC_BUS"])
        self.assertEqual(status, 1)
        self.assertIn("no distributor of push messages in this session; start zelt-unifiedpush", complaint)
        status, _, complaint = self.app("register", DBUS_SESSION_BUS_ADDRESS="unix:path=/nonexistent")
        self.assertEqual(status, 1)
        self.assertIn("the session bus cannot be reached", complaint)

    def test_what_it_cannot_understand_is_a_misuse(self):
        for arguments in ((), ("registre",), ("messages", "all")):
            with self.subTest(arguments):
                status, _, complaint = self.app(*arguments)
                self.assertEqual(status, 2)
                self.assertIn("desktop-app register", complaint)
        for tool in ("desktop-app", "send-push"):
            self.assertEqual(self.tool(tool, "--help")[0], 0)


if __name__ == "__main__":
    unittest.main()
