# SPDX-License-Identifier: GPL-3.0-only
"""Endpoints for web push on the device: their address, what a sender says of a message, and what becomes of it."""

import base64
import pathlib
import ssl
import sys
import unittest

from endpoints import EndpointsTest
from stage import wait_until
from test_receive import Receiver

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent.parent / "tools"))
import webpush  # noqa: E402


class WebPush(EndpointsTest):
    def setUp(self):
        super().setUp()
        self.context = ssl.create_default_context(cafile=self.stage.env["CA_FILE"])
        self.sender, self.application = webpush.Sender(), webpush.Receiver()

    def endpoint_url(self, app, **members):
        answer = app.call("createEndpoint", dict(members, endpoint=self.endpoint, webPush=True))
        self.assertEqual(list(answer), ["returnValue", "endpoint", "publishKey", "url"], answer)
        self.assertTrue(answer["url"].startswith("https://localhost:"), answer)
        self.assertTrue(answer["url"].endswith("/push/" + answer["publishKey"]), answer)
        return answer["url"]

    def push(self, url, content, **how):
        answer = self.sender.push(url, self.application.subscription, content, context=self.context, **how)
        self.assertEqual(answer.status, 201, answer.body)

    def receive(self, app, **members):
        receiver = Receiver(app, endpoints=[self.endpoint], **members)
        self.assertTrue(receiver.first["returnValue"], receiver.first)
        return receiver

    def content(self, item):
        return self.application.decrypt(base64.b64decode(item["item"], validate=True))

    def expect_nothing_left(self, app):
        def waiting():
            listed = {each["endpoint"]: each for each in app.call("listEndpoints", {})["endpoints"]}
            return listed[self.endpoint]["waiting"]
        wait_until(lambda: waiting() == 0, "the server to have dropped every message")

    def test_an_encrypted_message_reaches_the_application_byte_for_byte(self):
        app = self.app()
        url = self.endpoint_url(app, vapid=self.sender.key)
        key = app.call("getPublishKey", {"endpoint": self.endpoint, "webPush": True})
        self.assertEqual(key["url"], url)
        self.assertNotIn("url", app.call("getPublishKey", {"endpoint": self.endpoint}))
        receiver = self.receive(app)
        content = bytes(range(256)) * 4
        self.push(url, content, ttl=600, urgency="high")
        item = receiver.next()
        self.assertEqual(list(item), ["returnValue", "endpoint", "item", "itemid", "receipt", "encoding", "expires",
                                      "published", "urgency"])
        self.assertEqual((item["encoding"], item["urgency"]), ("base64", "high"))
        self.assertEqual(item["expires"], item["published"] + 600)
        self.assertEqual(self.content(item), content)
        self.assertTrue(receiver.acknowledge(item)["returnValue"])
        self.expect_nothing_left(app)

    def test_an_endpoint_that_was_made_in_another_way_is_refused_with_what_to_do(self):
        app = self.app()
        self.endpoint_url(app)
        plain = app.call("createEndpoint", {"endpoint": self.endpoint})
        self.assertEqual((plain["errorCode"], plain["errorText"]), ("xmppErr", "conflict"))
        other = app.call("createEndpoint", {"endpoint": self.endpoint, "webPush": True, "vapid": self.sender.key})
        self.assertEqual(other["errorCode"], "xmppErr")
        self.assertRegex(other["errorText"], "^conflict: .*delete it first")

    def test_a_message_below_the_urgency_waits_also_after_a_later_one_was_taken(self):
        app = self.app()
        url = self.endpoint_url(app)
        receiver = self.receive(app, urgency="high")
        for content, urgency in ((b"can wait", "low"), (b"so so", None), (b"now", "high")):
            self.push(url, content, urgency=urgency)
        item = receiver.next()
        self.assertEqual(self.content(item), b"now")
        self.assertTrue(receiver.acknowledge(item)["returnValue"])
        app.settle()
        self.assertEqual(len(receiver.call.texts), 2)
        self.stage.kill_service()
        self.stage.start_service()
        self.stage.wait_connected()
        app = self.app()
        receiver = self.receive(app)
        for expected in (b"can wait", b"so so"):
            item = receiver.next()
            self.assertEqual(self.content(item), expected)
            self.assertTrue(receiver.acknowledge(item)["returnValue"])
        self.expect_nothing_left(app)
        self.assertEqual(len(receiver.call.texts), 3)

    def test_a_message_whose_time_is_over_when_it_is_due_again_is_not_handed_out(self):
        app = self.app()
        url = self.endpoint_url(app)
        receiver = self.receive(app)
        self.push(url, b"short", ttl=1)
        item = receiver.next()
        self.push(url, b"long")
        self.assertTrue(receiver.acknowledge(item, retry=3)["returnValue"])
        item = receiver.next()
        self.assertEqual(self.content(item), b"long")
        self.assertTrue(receiver.acknowledge(item)["returnValue"])
        self.expect_nothing_left(app)


if __name__ == "__main__":
    unittest.main()
