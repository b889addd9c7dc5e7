# SPDX-License-Identifier: GPL-3.0-only
"""Whose an endpoint is, and which names and texts it may have, over real buses, a real server and HTTP."""

import base64
import json
import unittest

from bus import BusClient
from endpoints import MAIL, NEWS, EndpointsTest, offline_map, preferences

PUBLIC_METHODS = ("createEndpoint", "deleteEndpoint", "getPublishKey", "subscribe", "unsubscribe",
                  "subscribeOnClose", "unsubscribeOnClose")

# Text that XML 1.0 or a bus cannot carry, as it stands between the quotes of a JSON string.
UNCARRIED = ("\\u0001", "a\\u000bb", "\\u001f", "\\ufffe", "\\uffff")
BREAKS = ("line\\nbreak", "tab\\t", "\\r")  # which an attribute would not bring back
HALVES = ("\\ud800", "\\udc00")  # of characters; they are read as the replacement character
# Text that it can carry when it is escaped well.
CARRIED = ("<item/>", "]]>", "&amp;", "'", "\\ud83d\\ude00", "\\u00a0\\u2028", "</stream:stream>", "a  b ")


class Endpoints(EndpointsTest):
    """No test here may cost the stream that everybody shares."""

    def setUp(self):
        super().setUp()
        self.losses = self.stage.log("service").count("Disconnected from xmpp server")

    def tearDown(self):
        self.assertTrue(self.stage.connected())
        self.assertEqual(self.stage.log("service").count("Disconnected from xmpp server"), self.losses,
                         "the stream was lost")

    def test_one_name_of_two_applications_is_two_nodes(self):
        mail, news = self.app(MAIL), self.app(NEWS)
        keys = [self.create(app, self.endpoint) for app in (mail, news)]
        self.assertNotEqual(*keys)
        stored = preferences(self.stage)
        for app_id in (MAIL, NEWS):
            self.assertIn(self.node(app_id, self.endpoint), stored["delete" + app_id]["nodes"])
        calls = [self.subscribe(app, self.endpoint) for app in (mail, news)]
        self.publisher.publish(keys[0], "for the mail")
        self.publisher.publish(keys[1], "for the news")
        self.expect_item(calls[0], self.endpoint, "for the mail", 2)
        self.expect_item(calls[1], self.endpoint, "for the news", 2)

    def test_nobody_reaches_the_endpoint_of_another_by_any_public_method(self):
        owner, stranger = self.app(MAIL), self.app("com.example.stranger")
        key = self.create(owner, self.endpoint)
        waiting = self.subscribe(owner, self.endpoint)
        node = self.node(MAIL, self.endpoint)
        owner.call("subscribeOnClose", {"endpoint": self.endpoint})
        for name in (self.endpoint, node, node[1:], f"../{MAIL}/{self.endpoint}", f"/../{MAIL}/{self.endpoint}",
                     f"{MAIL}/{self.endpoint}"):
            for method in PUBLIC_METHODS:
                answer = stranger.call(method, {"endpoint": name, "node": node, "appId": MAIL, "appid": MAIL})
                self.assertNotEqual(answer.get("publishKey"), key, (method, name))
                if method == "deleteEndpoint":
                    self.assertIn(answer.get("status"), (None, "notfound"))
        taken = [stranger.start("subscribe", {"endpoint": name, "appId": MAIL})
                 for name in (self.endpoint, f"/../{MAIL}/{self.endpoint}")]
        for call in taken:
            call.wait(2)  # the second is a refusal: the stranger's own node of that name is gone by now
        self.assertEqual([call.answers[1]["errorText"] for call in taken], ["item-not-found"] * 2)
        self.assertEqual(offline_map(self.stage)[node], MAIL)
        self.assertEqual(owner.call("getPublishKey", {"endpoint": self.endpoint}),
                         {"returnValue": True, "endpoint": self.endpoint, "publishKey": key})
        self.publisher.publish(key, "for the owner alone")
        self.expect_item(waiting, self.endpoint, "for the owner alone", 2)
        stranger.settle()
        self.assertEqual([len(call.texts) for call in taken], [2, 2])

    def test_nobody_ends_the_subscription_of_another(self):
        owner = self.app()
        key = self.create(owner, self.endpoint)
        waiting = self.subscribe(owner, self.endpoint)
        stranger = BusClient(self.stage.env["ZELT_PUBLIC_BUS"])
        self.addCleanup(stranger.close)
        for serial in range(1, 60):
            self.assertFalse(stranger.call_raw("com.zelt.pubsubservice", "/", "com.zelt.Subscription1", "Cancel",
                                               (serial,)))
        self.publisher.publish(key, "still there")
        self.expect_item(waiting, self.endpoint, "still there", 2)

    def test_a_client_without_an_application_id_owns_nothing(self):
        nameless = BusClient(self.stage.env["ZELT_PUBLIC_BUS"])
        self.addCleanup(nameless.close)
        for method in PUBLIC_METHODS:
            with self.subTest(method):
                self.assertEqual(nameless.call(method, {"endpoint": "inbox"}),
                                 {"endpoint": "inbox", "returnValue": False, "errorCode": "libErr",
                                  "errorText": "Error getting appid of calling app"})

    def test_a_description_has_at_most_49_bytes(self):
        app = self.app()
        for number, text in enumerate(("d" * 49, "\u00e9" * 24 + "d")):
            self.create(app, f"{self.endpoint}-{number}", description=text)
        for text in ("d" * 50, "\u00e9" * 25):
            answer = app.call("createEndpoint", {"endpoint": self.endpoint, "description": text})
            self.assertEqual(answer, {"endpoint": self.endpoint, "returnValue": False, "errorCode": "parameterErr",
                                      "errorText": "description too long"})
        self.assertEqual(app.call("getPublishKey", {"endpoint": self.endpoint})["errorText"], "item-not-found")

    def test_a_full_name_of_99_bytes_is_taken_and_one_of_100_is_refused_by_every_method(self):
        app = self.app()
        room = 99 - len(self.node(MAIL, ""))
        for text in ("n" * room, "\u00e9" * (room // 2) + "n" * (room % 2)):
            key = self.create(app, text)
            call = self.subscribe(app, text)
            self.publisher.publish(key, "long name")
            self.expect_item(call, text, "long name", 2)
            for method in PUBLIC_METHODS:
                self.assertEqual(app.call(method, {"endpoint": text + "n"}),
                                 {"endpoint": text + "n", "returnValue": False, "errorCode": "libErr",
                                  "errorText": "endpoint too long"})

    def test_a_key_repeats_for_its_owner_and_dies_with_the_node(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        answer = {"returnValue": True, "endpoint": self.endpoint, "publishKey": key}
        self.assertEqual(app.call("createEndpoint", {"endpoint": self.endpoint}), dict(answer, status="exists"))
        self.assertEqual(self.app().call("getPublishKey", {"endpoint": self.endpoint}), answer)
        self.publisher.publish(key, "alive")
        self.assertEqual(app.call("deleteEndpoint", {"endpoint": self.endpoint}),
                         {"returnValue": True, "endpoint": self.endpoint})
        self.assertEqual(self.publisher.request(key, b"dead")[0], 404)
        self.assertNotIn(self.node(MAIL, self.endpoint), json.dumps(preferences(self.stage)))
        self.assertEqual(app.call("deleteEndpoint", {"endpoint": self.endpoint}),
                         {"returnValue": True, "node": self.node(MAIL, self.endpoint), "status": "notfound"})
        self.assertEqual(app.call("getPublishKey", {"endpoint": self.endpoint}),
                         {"returnValue": False, "endpoint": self.endpoint, "errorCode": "xmppErr",
                          "errorText": "item-not-found"})
        self.assertNotEqual(self.create(app, self.endpoint), key)
        self.assertEqual(self.publisher.request(key, b"dead")[0], 404)

    def test_names_that_xml_cannot_carry_are_refused_by_every_public_method(self):
        app = self.app()
        for name in UNCARRIED + BREAKS:
            for method in PUBLIC_METHODS:
                with self.subTest(method=method, name=name):
                    answer = app.call(method, f'{{"endpoint": "{name}"}}')
                    if method in ("createEndpoint", "deleteEndpoint", "getPublishKey", "subscribe"):
                        self.assertEqual((answer["returnValue"], answer["errorCode"]), (False, "libErr"), answer)

    def test_descriptions_that_xml_cannot_carry_are_refused(self):
        app = self.app()
        for text in UNCARRIED:
            with self.subTest(text):
                answer = app.call("createEndpoint", f'{{"endpoint": "{self.endpoint}", "description": "{text}"}}')
                self.assertEqual(answer, {"endpoint": self.endpoint, "returnValue": False, "errorCode": "libErr",
                                          "errorText": "pubsubservice library is not initialized"})

    def test_names_with_on_close_wishes_stay_out_of_the_bulk_activation(self):
        app = self.app()
        good = self.create(app, self.endpoint)
        names = UNCARRIED + BREAKS + HALVES + ("plain",)
        for name in names:
            app.call("subscribeOnClose", f'{{"endpoint": "{name}"}}')
        call = self.subscribe(app, self.endpoint)
        self.disconnect()
        self.losses += 1
        self.connect()
        self.publisher.publish(good, "after the bulk activation")
        self.expect_item(call, self.endpoint, "after the bulk activation", 2)
        for name in names:
            app.call("unsubscribeOnClose", f'{{"endpoint": "{name}"}}')

    def test_names_that_xml_can_carry_travel_unchanged(self):
        app = self.app()
        for name in CARRIED:
            with self.subTest(name):
                text = json.loads(f'"{name}"')
                key = self.create(app, text)
                call = self.subscribe(app, text)
                self.publisher.publish(key, text)
                self.expect_item(call, text.rpartition("/")[2], text, 2, text)
                self.assertEqual(app.call("deleteEndpoint", {"endpoint": text}),
                                 {"returnValue": True, "endpoint": text})

    def test_half_a_character_is_read_as_the_replacement_character(self):
        app, read = self.app(), "\ufffd"
        for half in HALVES:
            with self.subTest(half):
                answer = app.call("createEndpoint", f'{{"endpoint": "{half}", "description": "{half}"}}')
                self.assertEqual(answer, {"returnValue": True, "endpoint": read, "publishKey": answer["publishKey"]})
                call = self.subscribe(app, read)
                self.publisher.publish(answer["publishKey"], "whole")
                self.expect_item(call, read, "whole", 2)
                self.assertEqual(app.call("deleteEndpoint", f'{{"endpoint": "{half}"}}'),
                                 {"returnValue": True, "endpoint": read})

    def test_private_methods_refuse_them_too(self):
        members = {"item": "x", "title": "x", "endpoint": "zelt://com.zelt.e2e/x", "app": False, "jid": "a@b",
                   "subid": "1", "subscriber_jid": "a@b", "id": "1", "accessType": 2, "approve": True}
        for method in ("createNode", "deleteNode", "publishItem", "subscribeToNode", "unsubscribeFromNode",
                       "setNodeConfig", "getNodeConfig", "approvePending", "activateNode"):
            for name in UNCARRIED:
                with self.subTest(method=method, name=name):
                    payload = json.dumps(dict(members, node="NAME")).replace("NAME", "/x" + name)
                    self.assertFalse(self.private.call(method, payload)["returnValue"])

    def test_http_takes_any_bytes_and_what_is_no_text_comes_in_base64(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        self.assertEqual(self.publisher.request(key, b"")[0], 400)
        self.assertEqual(self.publisher.request(key, b"x" * 65537)[0], 413)
        for strange in ("no-such-key", "%00", "%ff", "%3Ckey%3E", "a/b", "x" * 5000):
            with self.subTest(strange):
                self.assertIn(self.publisher.request(strange, b"x")[0], (400, 404))
        for body in (b"\x00", b"\x01", b"a\x0bb", b"\x1f", b"\xff", b"\xc3", b"\xc0\x80", b"\xed\xa0\x80",
                     "\ufffe".encode(), "\uffff".encode(), b"fine\xfenot"):
            with self.subTest(body):
                call = self.subscribe(app, self.endpoint)
                self.assertEqual(self.publisher.request(key, body)[0], 201)
                self.expect_item(call, self.endpoint, base64.b64encode(body).decode(), 2)
        for text in ("<item/>", "]]>", "&amp;&#1;", "\u00a0\u2028\ufdd0\U0001fffe", "\U0001f600", " \t\n spaces \n",
                     "</stream:stream>", "{\"json\": \"\\u0001\"}", "x" * 60000):
            with self.subTest(text[:20]):
                call = self.subscribe(app, self.endpoint)
                self.publisher.publish(key, text)
                self.expect_item(call, self.endpoint, text, 2)


if __name__ == "__main__":
    unittest.main()
