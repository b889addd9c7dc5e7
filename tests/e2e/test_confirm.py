# SPDX-License-Identifier: GPL-3.0-only
"""Handlers that confirm: an item of a node stays with the server until its handler has said that it has it."""

import json
import unittest

from bus import BusClient
from stage import StageTest

ACCEPTED, REFUSED = {"returnValue": True}, {"returnValue": False}


class Handler:
    """A service on the private bus with one handler, which answers as `reply` says; a list of replies is used up."""

    def __init__(self, stage, name, reply=ACCEPTED):
        self.client = BusClient(stage.env["ZELT_PRIVATE_BUS"])
        self.reply = reply
        self.items = self.client.serve(name, "item", self._answer)

    def _answer(self, _payload):
        return self.reply.pop(0) if isinstance(self.reply, list) else self.reply

    def texts(self):
        return [item["item"] for item in self.items]

    def wait(self, count, seconds=20):
        self.client.pump(lambda: len(self.items) >= count, f"{count} items", seconds)
        return self.texts()

    def close(self):
        self.client.close()


class Confirm(StageTest):
    number = 0

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.private = BusClient(cls.stage.env["ZELT_PRIVATE_BUS"])

    @classmethod
    def tearDownClass(cls):
        cls.private.close()
        super().tearDownClass()

    def setUp(self):
        Confirm.number += 1
        self.node = f"/e2e/confirm/{self.number}"
        self.name = f"com.zelt.e2e.confirm{self.number}"
        self.make(self.node)

    def make(self, node):
        self.assertTrue(self.private.call("createNode", {"node": node})["returnValue"])
        self.assertTrue(self.private.call("subscribeToNode", {"node": node})["returnValue"])

    def register(self, node=None, name=None):
        answer = self.private.call("registerItemCallback", {
            "node": node or self.node, "endpoint": f"zelt://{name or self.name}/item", "confirm": True})
        self.assertEqual(answer, {"returnValue": True})

    def handler(self, reply=ACCEPTED, name=None):
        handler = Handler(self.stage, name or self.name, reply)
        self.addCleanup(handler.close)
        return handler

    def publish(self, texts, node=None):
        for text in texts:
            answer = self.private.call("publishItem", {"node": node or self.node, "item": text})
            self.assertEqual(answer, {"returnValue": True})

    def test_a_handler_that_is_down_gets_all_items_when_it_comes(self):
        self.register()
        texts = [f"item {number}" for number in range(30)]
        self.publish(texts)
        handler = self.handler()
        self.assertEqual(handler.wait(len(texts)), texts)
        self.publish(["last"])
        self.assertEqual(handler.wait(len(texts) + 1)[-1], "last")

    def test_an_item_that_is_refused_comes_again_before_the_next(self):
        handler = self.handler([REFUSED, ACCEPTED, ACCEPTED])
        self.register()
        self.publish(["one", "two"])
        self.assertEqual(handler.wait(3), ["one", "one", "two"])

    def test_a_slow_handler_delays_no_other_node(self):
        slow, fast = self.handler(reply=None), self.handler(name=self.name + "fast")
        self.register()
        self.make(self.node + "/fast")
        self.register(self.node + "/fast", self.name + "fast")
        self.publish(["slow"])
        slow.wait(1)
        texts = [f"fast {number}" for number in range(10)]
        self.publish(texts, self.node + "/fast")
        self.assertEqual(fast.wait(len(texts)), texts)
        self.assertEqual(len(slow.items), 1)

    def test_what_was_not_confirmed_comes_again_after_a_kill_of_the_service(self):
        handler = self.handler([ACCEPTED, None, ACCEPTED, ACCEPTED])
        self.register()
        self.publish(["one", "two", "three"])
        self.assertEqual(handler.wait(2), ["one", "two"])
        self.stage.kill_service()
        self.stage.start_service()
        self.stage.wait_connected()
        self.assertEqual(handler.wait(4), ["one", "two", "two", "three"])
        records = self.stage.path("state", "pubsubhandlers.conf").read_text(encoding="utf-8").split("\0\n")
        self.assertIn(True, [json.loads(record).get("confirm") for record in records if self.node in record])

    def test_after_a_disconnect_nothing_is_lost_and_nothing_repeated_that_was_confirmed(self):
        handler = self.handler([ACCEPTED, None, ACCEPTED, ACCEPTED])
        self.register()
        self.publish(["one", "two"])
        self.assertEqual(handler.wait(2), ["one", "two"])
        self.private.call("disconnect", {})
        self.stage.ctl("call", "connectStatus", "{}")
        self.stage.wait_connected()
        self.publish(["three"])
        self.assertEqual(handler.wait(2), ["one", "two"], "it still has the second")
        self.assertEqual(self.private.call("unRegisterItemCallback", {
            "node": self.node, "endpoint": f"zelt://{self.name}/item", "app": False}), {"returnValue": True})
        self.register()
        self.assertEqual(handler.wait(4), ["one", "two", "two", "three"])

    def test_a_handler_beside_it_is_called_once(self):
        confirming, plain = self.handler([REFUSED, ACCEPTED]), self.handler(name=self.name + "plain")
        self.private.call("registerItemCallback", {"node": self.node, "endpoint": f"zelt://{self.name}plain/item"})
        self.register()
        self.publish(["one"])
        self.assertEqual(confirming.wait(2), ["one", "one"])
        self.assertEqual(plain.wait(1), ["one"])


if __name__ == "__main__":
    unittest.main()
