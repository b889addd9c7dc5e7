# SPDX-License-Identifier: GPL-3.0-only
"""Push messages for the applications of a session: from an HTTP request to a call of the application, over everything
that can end in between."""

import http.client
import json
import os
import ssl
import subprocess
import sys
import time
import unittest
import urllib.parse

from app import App
from session import DESKTOP, DISTRIBUTOR, HERE, Session
from stage import BIN, StageTest, wait_until

sys.path.insert(0, str(HERE.parent.parent / "tools"))
import webpush  # noqa: E402

NO_TEXT = bytes(range(256))  # no text at all


def post(stage, address, body):
    """Sends a message to an address over HTTPS, as any sender does."""
    url = urllib.parse.urlsplit(address)
    trusted = ssl.create_default_context(cafile=stage.env["CA_FILE"])
    connection = http.client.HTTPSConnection(url.hostname, url.port, timeout=20, context=trusted)
    connection.request("POST", url.path, body, {"TTL": "3600"})
    answer = connection.getresponse()
    text = answer.read()
    connection.close()
    if answer.status != 201:
        raise AssertionError(f"the message was refused with {answer.status}: {text}")


class UnifiedPush(StageTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        try:
            cls.session = Session(cls.stage)
            cls.session.start_bridge()
            cls.names = 0
        except BaseException:
            super().tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.session.close()
        super().tearDownClass()

    def setUp(self):
        type(self).names += 1
        self.name = f"org.example.app{self.names}"

    def tearDown(self):
        self.session.end_applications()
        wait_until(self.stage.connected, "the connection", 40)

    def post(self, address, body):
        post(self.stage, address, body)

    def waiting(self):
        """How many items wait for the endpoints of the user."""
        app = App(self.stage.env["ZELT_PUBLIC_BUS"], DESKTOP)
        try:
            endpoints = app.call("listEndpoints", {})["endpoints"]
        finally:
            app.close()
        return sum(endpoint.get("waiting", 1) for endpoint in endpoints)

    def wait_acknowledged(self):
        wait_until(lambda: self.waiting() == 0, "the server to keep nothing")

    def test_an_application_on_dbus_next_registers_and_gets_messages_of_any_bytes(self):
        app = self.session.connector(self.name)
        app.start("register2", "t1")
        self.assertEqual(app.wait("register t1")[2:], ["REGISTRATION_SUCCEEDED"])
        address = app.address("t1")
        for body in (b"text", NO_TEXT, b"\n <a> \xc3\xa9 "):
            self.post(address, body)
        app.wait("message t1 ", 3)
        self.assertEqual(app.messages(), [b"text", NO_TEXT, b"\n <a> \xc3\xa9 "])
        self.wait_acknowledged()

    def test_an_application_of_version_1_registers_gets_messages_and_leaves(self):
        app = self.session.connector(self.name)
        app.start("register1", "t1")
        self.assertEqual(app.wait("register t1")[2:], ["REGISTRATION_SUCCEEDED", ""])
        self.post(app.address("t1"), NO_TEXT)
        app.wait("message t1 ")
        self.assertEqual(app.messages(), [NO_TEXT])
        app.kill()
        app.start("unregister1", "t1")
        self.assertEqual(app.wait("Unregistered")[1], "-")

    def test_an_application_leaves_and_its_address_is_gone(self):
        app = self.session.connector(self.name)
        app.start("register2", "t1")
        address = app.address("t1")
        app.kill()
        app.start("unregister2", "t1")
        app.wait("Unregistered t1")
        def refused():
            try:
                self.post(address, b"late")
            except AssertionError as error:
                return "404" in str(error) or "410" in str(error)
            return False
        wait_until(refused, "the address to be gone")

    def test_an_application_on_sd_bus_of_each_version_is_started_by_a_message(self):
        for version in ("1", "2"):
            with self.subTest(version=version):
                app = self.session.connector(f"{self.name}.sd{version}", self.session.sd_bus_program())
                app.start(version, "t1")
                address = app.address("t1")
                app.kill()
                app.can_be_started()
                self.post(address, NO_TEXT)
                app.wait("message t1 ")
                self.assertEqual(app.messages(), [NO_TEXT])
        self.wait_acknowledged()

    def test_a_gapplication_that_has_its_object_late_is_started_by_a_message(self):
        app = self.session.connector(self.name, ["/usr/bin/python3", HERE / "connectorgi.py"])
        app.start("t1")
        address = app.address("t1")
        app.kill()
        app.can_be_started()
        self.post(address, NO_TEXT)
        app.wait("message t1 ")
        # Its address is announced to it too, before or after.
        words = [line.split(" ")[0] for line in app.lines() if not line.startswith("NewEndpoint")]
        self.assertEqual(words[-3:], ["started", "exported", "message"])
        self.assertEqual(app.messages(), [NO_TEXT])
        self.wait_acknowledged()

    def test_an_application_that_ends_with_each_message_gets_it_again(self):
        app = self.session.connector(self.name)
        app.start("register2", "t1")
        address = app.address("t1")
        app.kill()
        app.can_be_started("crash")
        self.post(address, b"one")
        self.post(address, b"two")
        app.wait("message t1 ", 2)
        app.can_be_started()
        wait_until(lambda: app.messages()[-1:] == [b"two"], "the next message")
        self.assertEqual(set(app.messages()[:-1]), {b"one"})
        self.wait_acknowledged()

    def test_an_application_that_does_not_answer_delays_no_other(self):
        silent, other = self.session.connector(self.name + ".silent"), self.session.connector(self.name + ".other")
        silent.start("register2", "t1", "silent")
        other.start("register2", "t2")
        self.post(silent.address("t1"), b"unheard")
        silent.wait("message t1 ")
        for index in range(20):
            self.post(other.address("t2"), b"%d" % index)
        other.wait("message t2 ", 20)
        self.assertEqual(other.messages(), [b"%d" % index for index in range(20)])
        silent.kill()
        silent.start("unregister2", "t1")
        silent.wait("Unregistered t1")

    def test_an_application_that_is_nowhere_gets_its_messages_when_it_comes(self):
        app = self.session.connector(self.name)
        app.start("register2", "t1")
        address = app.address("t1")
        app.kill()
        for index in range(3):
            self.post(address, b"%d" % index)
        app.start()
        app.wait("message t1 ", 3)
        self.assertEqual(app.messages(), [b"0", b"1", b"2"])

    def test_an_application_that_is_nowhere_is_started_once_it_can_be(self):
        app = self.session.connector(self.name)
        app.start("register2", "t1")
        address = app.address("t1")
        app.kill()
        self.post(address, b"one")
        wait_until(lambda: self.waiting() == 1, "the message to wait")
        app.can_be_started()
        app.wait("message t1 ")
        self.wait_acknowledged()

    def test_ten_encrypted_messages_survive_the_end_of_everything(self):
        sender, receiver = webpush.Sender(), webpush.Receiver()
        trusted = ssl.create_default_context(cafile=self.stage.env["CA_FILE"])
        app = self.session.connector(self.name)
        app.start("register2", "t1", sender.key)
        address = app.address("t1")
        app.kill()
        self.session.kill_bridge()
        texts = [b"%d " % index + NO_TEXT for index in range(10)]
        for text in texts:
            self.assertEqual(sender.push(address, receiver.subscription, text, ttl=3600, context=trusted).status, 201)
        self.assertEqual(webpush.Sender().push(address, receiver.subscription, b"forged", context=trusted).status, 403)
        self.stage.kill_server()
        self.stage.kill_service()
        self.stage.start_server()
        self.stage.start_service()
        app.can_be_started()
        self.session.start_bridge()
        app.wait("message t1 ", 10, 60)
        self.assertEqual([receiver.decrypt(body) for body in app.messages()], texts)
        self.wait_acknowledged()

    def test_a_bridge_that_is_killed_between_messages_loses_none(self):
        app = self.session.connector(self.name)
        app.start("register2", "t1")
        address = app.address("t1")
        bodies = [b"%d" % index for index in range(30)]
        for index, body in enumerate(bodies):
            self.post(address, body)
            if index % 10 == 5:
                self.session.kill_bridge()
                self.session.start_bridge()
        wait_until(lambda: app.messages()[-1:] == bodies[-1:], "the last message")
        got = app.messages()
        once = [body for index, body in enumerate(got) if body not in got[:index]]
        self.assertEqual(once, bodies)
        self.assertLess(len(got), len(bodies) + 4)  # again only what was under way when the bridge ended
        self.wait_acknowledged()

    def test_registering_without_a_connection_fails_before_applications_give_up_and_the_address_follows(self):
        with self.stage.server_held():
            self.stage.kill_service()
            self.stage.start_service()
            app = self.session.connector(self.name)
            begun = time.monotonic()
            app.start("register2", "t1")
            self.assertEqual(app.wait("register t1")[2:], ["REGISTRATION_FAILED", "NETWORK"])
            self.assertTrue(19 < time.monotonic() - begun < 25, time.monotonic() - begun)
        self.stage.ctl("call", "connectStatus", "{}")
        self.post(app.address("t1"), b"at last")
        app.wait("message t1 ")

    def test_a_known_token_succeeds_without_a_connection(self):
        app = self.session.connector(self.name)
        app.start("register2", "t1")
        app.address("t1")
        app.kill()
        with self.stage.server_held():
            self.stage.kill_service()
            self.stage.start_service()
            app.start("register2", "t1")
            self.assertEqual(app.wait("register t1", 2)[2:], ["REGISTRATION_SUCCEEDED"])
            self.assertEqual(app.address("t1", 2), app.address("t1"))
        self.stage.ctl("call", "connectStatus", "{}")

    def test_a_registration_survives_a_damaged_state_file(self):
        app = self.session.connector(self.name)
        app.start("register2", "t1")
        address = app.address("t1")
        self.session.kill_bridge()
        state = self.session.path("state", "zelt-unifiedpush", "registrations.json")
        self.assertEqual(state.stat().st_mode & 0o777, 0o600)
        self.assertEqual([entry["token"] for entry in json.loads(state.read_text(encoding="utf-8"))["registrations"]
                          if entry["service"] == self.name], ["t1"])
        state.write_bytes(os.urandom(200))
        self.post(address, b"meanwhile")
        self.session.start_bridge()
        app.kill()
        app.start("register2", "t1")
        self.assertEqual(app.address("t1", 2), address)
        app.wait("message t1 ")
        self.assertEqual(app.messages(), [b"meanwhile"])

    def ctl(self, *arguments):
        """Runs pubsubctl in the session; returns (exit status, output)."""
        done = subprocess.run([str(BIN / "pubsubctl"), *arguments], env=self.session.environment(),
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False, timeout=60)
        return done.returncode, done.stdout + done.stderr

    def test_the_command_line_lists_and_removes_a_registration_and_its_application_is_told(self):
        app = self.session.connector(self.name)
        app.start("register2", "t1")
        app.address("t1")
        status, output = self.ctl("push", "list")
        self.assertEqual(status, 0, output)
        endpoint = [line.split(" ")[0] for line in output.splitlines() if self.name + " " in line]
        self.assertEqual(len(endpoint), 1, output)
        self.assertNotIn("t1", output)
        self.assertEqual(self.ctl("push", "remove", endpoint[0]), (0, f"removed {endpoint[0]}\n"))
        app.wait("Unregistered t1")
        self.assertEqual(self.ctl("push", "remove", endpoint[0])[0], 3)
        self.assertNotIn(endpoint[0], self.ctl("push", "list")[1])

    def test_the_command_line_sends_a_message_the_whole_way(self):
        status, output = self.ctl("--json", "push", "test")
        self.assertEqual(status, 0, output)
        self.assertEqual(list(json.loads(output)["milliseconds"]),
                         ["registered", "accepted by the server", "arrived", "unregistered"])
        self.assertNotIn("com.zelt.pubsubctl", self.ctl("push", "list")[1])

    def test_the_command_line_says_that_the_bridge_is_not_there(self):
        self.session.kill_bridge()
        try:
            for verb in ("list", "test"):
                status, output = self.ctl("push", verb)
                self.assertNotEqual(status, 0)
                self.assertIn("start zelt-unifiedpush", output)
        finally:
            self.session.start_bridge()

    def test_the_object_describes_itself_as_soon_as_its_name_is_there(self):
        self.session.kill_bridge()
        self.session.launch_bridge()
        deadline = time.monotonic() + 20
        while not self.session.has_name(DISTRIBUTOR):  # without a pause in between, as applications that follow names
            self.assertLess(time.monotonic(), deadline)
        text = self.session.bus.call_blocking(DISTRIBUTOR, "/org/unifiedpush/Distributor",
                                              "org.freedesktop.DBus.Introspectable", "Introspect", "", (), timeout=2)
        for version in ("1", "2"):
            self.assertIn(f'<interface name="org.unifiedpush.Distributor{version}">', text)


if __name__ == "__main__":
    unittest.main()
