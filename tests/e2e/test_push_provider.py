# SPDX-License-Identifier: GPL-3.0-only
"""Web push on a server without the device extension: Debian's Prosody with its push provider."""

import base64
import http.client
import json
import sys
import threading
import unittest
import urllib.parse

from app import App
from prosody import PushStage
from session import HERE, Session
from stage import StageTest, wait_until

sys.path.insert(0, str(HERE.parent.parent / "tools"))
import webpush  # noqa: E402

NO_TEXT = bytes(range(256))
TAKEN, REFUSED = 201, 500  # what Debian's module makes of a result, and of any error


class Posting:
    """A message on its way: its sender has an answer once the device has answered."""

    def __init__(self, url, body):
        self.status = None
        self._thread = threading.Thread(target=self._post, args=(urllib.parse.urlsplit(url), body), daemon=True)
        self._thread.start()

    def _post(self, url, body):
        connection = http.client.HTTPConnection(url.hostname, url.port, timeout=150)
        try:
            connection.request("POST", url.path, body, {"TTL": "3600"})
            self.status = connection.getresponse().status
        except OSError as error:
            self.status = str(error)
        finally:
            connection.close()

    def wait(self):
        return wait_until(lambda: self.status, "an answer to the sender")


class PushTest(StageTest):
    OPTIONS = {}

    @classmethod
    def setUpClass(cls):
        cls.stage = PushStage(**cls.OPTIONS)
        try:
            cls.stage.up()
        except BaseException:
            cls.stage.down()
            raise
        cls.names = 0

    def setUp(self):
        PushTest.names = getattr(PushTest, "names", 0) + 1
        self.endpoint = f"inbox{PushTest.names}"

    def tearDown(self):
        wait_until(self.stage.connected, "the connection", 40)

    def app(self, app_id="com.example.mail"):
        app = App(self.stage.env["ZELT_PUBLIC_BUS"], app_id)
        self.addCleanup(app.close)
        return app

    def make(self, app):
        answer = app.call("createEndpoint", {"endpoint": self.endpoint, "webPush": True})
        self.assertEqual(list(answer), ["returnValue", "endpoint", "url"], answer)
        return answer["url"]

    def receive(self, app):
        call = app.start("receive", {"subscribe": True, "endpoints": [self.endpoint]})
        self.assertEqual(call.wait(1), {"returnValue": True, "endpoints": [self.endpoint]})
        return call

    def acknowledge(self, app, item, **members):
        answer = app.call("acknowledge", dict(members, endpoint=self.endpoint, receipt=item["receipt"]))
        self.assertEqual(answer, {"returnValue": True, "endpoint": self.endpoint})

    def renew(self):
        """As the alarm does."""
        self.stage.ctl("call", "--no-reply", "pushRenewalTimer", "{}")


class PushProvider(PushTest):
    def assert_next_arrives(self, app, url):
        receiver = self.receive(app)
        posting = Posting(url, b"next")
        item = receiver.wait(2)
        self.assertEqual(item["item"], "next")
        self.acknowledge(app, item)
        self.assertEqual(posting.wait(), TAKEN)

    def test_a_message_of_any_bytes_reaches_the_application_and_its_sender_is_told(self):
        app = self.app()
        url = self.make(app)
        receiver = self.receive(app)
        for number, (body, text, encoding) in enumerate((
                (b"text", "text", None), (NO_TEXT, base64.b64encode(NO_TEXT).decode(), "base64"),
                (b"x" * 4096, "x" * 4096, None)), 2):
            posting = Posting(url, body)
            item = receiver.wait(number)
            self.assertEqual((item["item"], item.get("encoding")), (text, encoding))
            self.assertIsNone(posting.status, "nobody has taken it")
            self.acknowledge(app, item)
            self.assertEqual(posting.wait(), TAKEN)

    def test_messages_come_one_at_a_time_in_their_order(self):
        app = self.app()
        url = self.make(app)
        receiver = self.receive(app)
        postings = []
        for number in range(5):
            postings.append(Posting(url, b"%d" % number))
            wait_until(lambda: self.stage.log("server").count("relaying to device") >= 1, "the provider")
            if number == 0:
                receiver.wait(2)
        taken = []
        for number in range(5):
            item = receiver.wait(number + 2)
            taken.append(item["item"])
            self.acknowledge(app, item)
        self.assertEqual(sorted(taken), ["0", "1", "2", "3", "4"])
        self.assertEqual(taken[0], "0")
        self.assertEqual([posting.wait() for posting in postings], [TAKEN] * 5)

    def test_without_a_receiver_or_given_back_or_deleted_a_message_is_refused(self):
        app = self.app()
        url = self.make(app)
        self.assertEqual(Posting(url, b"to nobody").wait(), REFUSED)
        receiver = self.receive(app)
        posting = Posting(url, b"back")
        item = receiver.wait(2)
        self.assertEqual(item["item"], "back")
        self.acknowledge(app, item, retry=3600)
        self.assertEqual(posting.wait(), REFUSED)
        posting = Posting(url, b"left")
        receiver.wait(3)
        receiver.cancel()
        self.assertEqual(posting.wait(), REFUSED)
        listed = app.call("listEndpoints", {})["endpoints"]
        self.assertEqual([each["waiting"] for each in listed if each["endpoint"] == self.endpoint], [0])
        self.assertEqual(app.call("deleteEndpoint", {"endpoint": self.endpoint}),
                         {"returnValue": True, "endpoint": self.endpoint})
        self.assertEqual(Posting(url, b"deleted").wait(), REFUSED)

    def test_the_provider_answers_201_for_an_absent_device_and_the_message_is_lost(self):
        app = self.app()
        url = self.make(app)
        self.stage.kill_service()
        self.assertEqual(Posting(url, b"lost").wait(), TAKEN)
        self.stage.start_service()
        self.stage.wait_connected()
        app = self.app()
        self.assertEqual(self.make(app), url)
        self.assert_next_arrives(app, url)

    def test_a_service_that_is_killed_with_an_open_message_goes_on_with_its_addresses(self):
        app = self.app()
        url = self.make(app)
        receiver = self.receive(app)
        Posting(url, b"open")
        receiver.wait(2)
        self.stage.kill_service()
        self.stage.start_service()
        self.stage.wait_connected()
        app = self.app()
        self.assert_next_arrives(app, url)

    def test_an_application_cannot_use_the_endpoint_of_another(self):
        url = self.make(self.app())
        other = self.app("com.example.other")
        answer = other.call("receive", {"subscribe": True, "endpoints": [self.endpoint]})
        self.assertEqual(answer["errorText"], f"No endpoint {self.endpoint}. Call createEndpoint first")
        self.assertNotEqual(self.make(other), url)

    def test_what_is_no_web_push_is_refused_as_on_every_server(self):
        answer = self.app().call("createEndpoint", {"endpoint": self.endpoint})
        self.assertEqual((answer["errorCode"], answer["errorText"]), ("xmppErr", "not-allowed"))

    def test_who_gives_the_addresses_is_told_by_the_doctor_too(self):
        _, text = self.stage.ctl("call", "getPushBackend", "{}")
        self.assertEqual(json.loads(text), {"returnValue": True, "backend": "provider", "provider": "localhost"})
        _, report = self.stage.ctl("doctor", check=False)
        self.assertIn("ok      server extension: none, but localhost gives endpoints of web push their addresses",
                      report)
        self.assertIn("what is pushed while the device is away is lost", report)


class Renewal(PushTest):
    """Registrations for a few seconds; Debian's Prosody gives another address each time."""

    OPTIONS = {"ttl": 6}

    def test_a_renewed_address_is_told_to_the_receiver_and_works(self):
        app = self.app()
        url = self.make(app)
        receiver = self.receive(app)
        def told():
            self.renew()
            app.drain()
            return len(receiver.texts) >= 2
        wait_until(told, "another address")
        renewed = receiver.answers[1]
        self.assertEqual(list(renewed), ["returnValue", "endpoint", "url"])
        self.assertNotEqual(renewed["url"], url)
        posting = Posting(renewed["url"], b"new")
        app.wait(lambda: any("receipt" in each for each in receiver.answers), "the message")
        item = [each for each in receiver.answers if "receipt" in each][0]
        self.acknowledge(app, item)
        self.assertEqual(posting.wait(), TAKEN)

    def test_an_address_that_changed_while_nobody_received_is_told_to_the_next_receiver(self):
        app = self.app()
        url = self.make(app)
        def registrations():
            return self.stage.log("server").count("New push registration successful")
        wait_until(registrations, "the first address in the log")
        before = registrations()
        def renewed():
            self.renew()
            return registrations() > before
        wait_until(renewed, "another address")
        self.stage.kill_service()
        self.stage.start_service()
        self.stage.wait_connected()
        app = self.app()
        receiver = self.receive(app)
        self.assertNotEqual(receiver.wait(2)["url"], url)

    def test_an_encrypted_push_reaches_a_desktop_application_which_learns_of_its_new_address(self):
        session = Session(self.stage)
        self.addCleanup(session.close)
        session.start_bridge()
        keys, sender = webpush.Receiver(), webpush.Sender()
        app = session.connector("org.example.reader")
        app.start("register2", "t1", sender.key)
        self.assertEqual(app.wait("register t1")[2:], ["REGISTRATION_SUCCEEDED"])
        url = app.address("t1")
        answer = sender.push(url, keys.subscription, NO_TEXT)
        self.assertEqual(answer.status, TAKEN)
        self.assertEqual([keys.decrypt(each) for each in app.messages()], [NO_TEXT])
        def told():
            self.renew()
            return sum(line.startswith("NewEndpoint t1") for line in app.lines()) >= 2
        wait_until(told, "another address")
        renewed = app.address("t1", 2)
        self.assertNotEqual(renewed, url)
        self.stage.kill_service()
        self.stage.start_service()
        self.stage.wait_connected()
        # The bridge is there again when a message is taken; until then the provider refuses it or loses it.
        def taken():
            addresses = [line.split(" ")[2] for line in app.lines() if line.startswith("NewEndpoint t1")]
            sender.push(addresses[-1], keys.subscription, b"after a restart")
            return len(app.messages()) >= 2
        wait_until(taken, "a message after the restart", 40)
        self.assertEqual(keys.decrypt(app.messages()[1]), b"after a restart")


class Providers(PushTest):
    """Where a provider may be."""

    OPTIONS = {"provider": "push.localhost"}

    def test_a_provider_is_found_beside_the_domain_and_its_end_is_told(self):
        app = self.app()
        url = self.make(app)
        receiver = self.receive(app)
        posting = Posting(url, b"hello")
        item = receiver.wait(2)
        self.acknowledge(app, item)
        self.assertEqual(posting.wait(), TAKEN)
        self.stage.prosody.stop()
        self.stage.prosody.provider = None
        self.stage.prosody.start()
        self.stage.wait_connected()
        answer = app.call("createEndpoint", {"endpoint": self.endpoint + "b", "webPush": True})
        self.assertEqual(answer["errorCode"], "xmppErr")
        self.assertIn("neither the device extension nor a push provider", answer["errorText"])


if __name__ == "__main__":
    unittest.main()
