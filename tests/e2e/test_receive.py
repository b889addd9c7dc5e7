# SPDX-License-Identifier: GPL-3.0-only
"""receive and acknowledge: the server keeps an endpoint's items until their receiver has taken them."""

import json
import unittest

from endpoints import EndpointsTest
from stage import wait_until

MANY = 1000


class Receiver:
    """A receive of an application, and the items that came for it."""

    def __init__(self, app, **members):
        self.app = app
        self.call = app.start("receive", dict(members, subscribe=True))
        self.first = self.call.wait(1)
        self.seen = 1

    def next(self, seconds=20):
        """Waits for the next item and returns it."""
        self.app.wait(lambda: len(self.call.texts) > self.seen or self.call.error, f"item {self.seen}", seconds)
        if self.call.error:
            raise AssertionError(self.call.error)
        self.seen += 1
        return json.loads(self.call.texts[self.seen - 1])

    def start_acknowledge(self, item, **members):
        return self.app.start("acknowledge", dict(members, endpoint=item["endpoint"], receipt=item["receipt"]))

    def acknowledge(self, item, **members):
        return self.start_acknowledge(item, **members).wait(1)

    def take(self):
        """Waits for the next item and acknowledges it; returns its text."""
        item = self.next()
        answer = self.acknowledge(item)
        if answer != {"returnValue": True, "endpoint": item["endpoint"]}:
            raise AssertionError(answer)
        return item["item"]


class Receive(EndpointsTest):
    def tearDown(self):
        wait_until(self.stage.connected, "the connection")

    def receive(self, app, *endpoints):
        receiver = Receiver(app, endpoints=list(endpoints or (self.endpoint,)))
        self.assertEqual(receiver.first, {"returnValue": True, "endpoints": list(endpoints or (self.endpoint,))})
        return receiver

    def publish(self, key, texts):
        for text in texts:
            self.publisher.publish(key, text)

    def waiting(self, app, endpoint=None):
        listed = {each["endpoint"]: each for each in app.call("listEndpoints", {})["endpoints"]}
        return listed[endpoint or self.endpoint]

    def expect_nothing_left(self, app, endpoint=None):
        wait_until(lambda: self.waiting(app, endpoint)["waiting"] == 0, "the server to have dropped every item")

    def test_a_thousand_items_that_wait_come_in_order_once_each(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        texts = [f"item {number}" for number in range(MANY)]
        self.publish(key, texts)
        self.assertEqual(self.waiting(app), {"endpoint": self.endpoint, "receiver": False, "subscriber": False,
                                             "waiting": MANY, "cached": False})
        receiver = self.receive(app)
        self.assertTrue(self.waiting(app)["receiver"])
        self.assertEqual([receiver.take() for _ in texts], texts)
        self.expect_nothing_left(app)
        app.settle()
        self.assertEqual(len(receiver.call.texts), MANY + 1)

    def test_a_thousand_endpoints_of_one_application_through_one_receive(self):
        app_id = "com.example.many"
        app = self.app(app_id)
        names = [f"e{number}" for number in range(MANY)]
        keys = {}
        for start in range(0, MANY, 50):
            calls = [(name, app.start("createEndpoint", {"endpoint": name})) for name in names[start:start + 50]]
            keys.update({name: call.wait(1, 60)["publishKey"] for name, call in calls})
        self.publish_all(keys, "first")
        receiver = Receiver(app)
        self.assertEqual(sorted(receiver.first["endpoints"]), sorted(names))
        for text in ("first", "second"):
            items = [receiver.next(60) for _ in names]
            self.assertEqual(sorted(item["endpoint"] for item in items), sorted(names))
            self.assertEqual({item["item"] for item in items}, {text})
            if text == "first":
                self.publish_all(keys, "second")
            for start in range(0, MANY, 100):
                for call in [receiver.start_acknowledge(item) for item in items[start:start + 100]]:
                    self.assertTrue(call.wait(1)["returnValue"])
        listed = app.call("listEndpoints", {})["endpoints"]
        self.assertEqual(len(listed), MANY)
        wait_until(lambda: {each["waiting"] for each in app.call("listEndpoints", {})["endpoints"]} == {0},
                   "the server to have dropped every item")

    def publish_all(self, keys, text):
        for key in keys.values():
            self.publisher.publish(key, text)

    def test_a_slow_endpoint_delays_no_other(self):
        app = self.app()
        fast = self.endpoint + "-fast"
        slow_key, fast_key = self.create(app, self.endpoint), self.create(app, fast)
        receiver = self.receive(app, self.endpoint, fast)
        self.publish(slow_key, ["slow 1", "slow 2"])
        slow = receiver.next()
        texts = [f"fast {number}" for number in range(20)]
        self.publish(fast_key, texts)
        self.assertEqual([receiver.take() for _ in texts], texts)
        self.assertTrue(receiver.acknowledge(slow)["returnValue"])
        self.assertEqual(receiver.take(), "slow 2")

    def test_a_receiver_that_is_killed_leaves_its_item_to_the_next(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        self.publish(key, ["one", "two", "three"])
        receiver = self.receive(app)
        self.assertEqual(receiver.take(), "one")
        open_item = receiver.next()
        self.kill(app)
        app = self.app()
        receiver = self.receive(app)
        again = receiver.next()
        self.assertEqual((again["item"], again["itemid"]), ("two", open_item["itemid"]))
        self.assertNotEqual(again["receipt"], open_item["receipt"])
        self.assertEqual(receiver.acknowledge(dict(again, receipt=open_item["receipt"]))["errorCode"], "appErr")
        self.assertTrue(receiver.acknowledge(again)["returnValue"])
        self.assertEqual(receiver.take(), "three")
        self.expect_nothing_left(app)

    def test_a_receiver_that_cancels_leaves_its_items_to_a_subscriber(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        receiver = self.receive(app)
        self.publish(key, ["one"])
        self.assertEqual(receiver.next()["item"], "one")
        receiver.call.cancel()
        receiver.call.wait_ended()
        call = self.subscribe(app, self.endpoint)
        self.expect_item(call, self.endpoint, "one", 2)
        self.expect_nothing_left(app)

    def test_a_subscriber_that_waits_gets_nothing_before_the_receiver_has_gone(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        call = self.subscribe(app, self.endpoint)
        receiver = self.receive(app)
        self.publish(key, ["one", "two"])
        self.assertEqual(receiver.take(), "one")
        self.assertEqual(receiver.next()["item"], "two")
        self.assertEqual(len(call.texts), 2)
        receiver.call.cancel()
        self.expect_item(call, self.endpoint, "two", 2)

    def test_an_item_that_is_open_over_a_disconnect_is_acknowledged_under_its_receipt(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        receiver = self.receive(app)
        self.publish(key, ["one", "two"])
        item = receiver.next()
        self.disconnect()
        self.connect()
        self.assertTrue(receiver.acknowledge(item)["returnValue"])
        self.assertEqual(receiver.take(), "two")
        self.expect_nothing_left(app)
        self.assertEqual(len(receiver.call.texts), 3)

    def test_what_is_acknowledged_without_a_connection_does_not_come_again(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        receiver = self.receive(app)
        self.publish(key, ["one", "two"])
        item = receiver.next()
        self.disconnect()
        self.assertTrue(receiver.acknowledge(item)["returnValue"])
        self.connect()
        self.assertEqual(receiver.take(), "two")
        self.expect_nothing_left(app)
        self.assertEqual(len(receiver.call.texts), 3)

    def test_a_service_that_is_killed_repeats_what_was_not_acknowledged(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        receiver = self.receive(app)
        self.publish(key, ["one", "two", "three"])
        self.assertEqual(receiver.take(), "one")
        self.assertEqual(receiver.next()["item"], "two")
        self.stage.kill_service()
        self.stage.start_service()
        self.stage.wait_connected()
        app = self.app()
        receiver = self.receive(app)
        self.assertEqual([receiver.take(), receiver.take()], ["two", "three"])
        self.expect_nothing_left(app)

    def test_an_item_that_is_given_back_comes_again(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        receiver = self.receive(app)
        self.publish(key, ["one", "two"])
        item = receiver.next()
        self.assertTrue(receiver.acknowledge(item, retry=1)["returnValue"])
        self.assertEqual([receiver.take(), receiver.take()], ["one", "two"])

    def test_a_second_receiver_is_told_who_receives(self):
        app, other = self.app(), self.app()
        self.create(app, self.endpoint)
        self.receive(app)
        answer = Receiver(other, endpoints=[self.endpoint]).first
        self.assertEqual((answer["returnValue"], answer["errorCode"]), (False, "appErr"))
        self.assertRegex(answer["errorText"], rf"^Endpoint {self.endpoint} is received by :[0-9.]+\. End ")
        stranger = Receiver(self.app("com.example.stranger"), endpoints=[self.endpoint]).first
        self.assertEqual(stranger, {"returnValue": False, "errorCode": "appErr",
                                    "errorText": f"No endpoint {self.endpoint}. Call createEndpoint first"})

    def test_an_endpoint_that_is_created_while_receiving_is_received(self):
        app_id = "com.example.later"
        app = self.app(app_id)
        receiver = Receiver(app)
        self.assertEqual(receiver.first, {"returnValue": True, "endpoints": []})
        key = self.create(app, "inbox")
        self.publish(key, ["one", "two"])
        self.assertEqual([receiver.take(), receiver.take()], ["one", "two"])
        self.assertEqual(app.call("deleteEndpoint", {"endpoint": "inbox"}), {"returnValue": True, "endpoint": "inbox"})
        key = self.create(app, "inbox")
        self.publish(key, ["three"])
        self.assertEqual(receiver.take(), "three")


if __name__ == "__main__":
    unittest.main()
