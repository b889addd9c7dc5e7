# SPDX-License-Identifier: GPL-3.0-only
"""The two roads over real buses and a real server: a request and its answer, an item and its handler."""

import json
import os
import sqlite3
import unittest

from bus import BusClient, BusError
from peer import Peer
from stage import StageTest, wait_until

PUBSUB = "{http://jabber.org/protocol/pubsub}"
EVENT = "{http://jabber.org/protocol/pubsub#event}"


def stored_number(stage, node):
    """The sequence number that the preferences hold for a node, or None."""
    folder = stage.env["ZELT_PREFS_DIR"]
    for name in os.listdir(folder):
        if name.startswith("com.zelt.pubsubservice") and not name.endswith(("-wal", "-shm")):
            with sqlite3.connect(os.path.join(folder, name)) as database:
                row = database.execute("SELECT value FROM prefs WHERE key = ?", (node,)).fetchone()
            if row:
                return int(json.loads(row[0])["seqNo"])
    return None


def forget_number(stage, node):
    """Removes it from the preferences of a service that does not run."""
    with sqlite3.connect(os.path.join(stage.env["ZELT_PREFS_DIR"], "com.zelt.pubsubservice.db")) as database:
        gone = database.execute("DELETE FROM prefs WHERE key = ?", (node,)).rowcount
    assert gone == 1, f"{gone} numbers of {node} were stored"


class RoadsTest(StageTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.private = BusClient(cls.stage.env["ZELT_PRIVATE_BUS"])
        cls.public = BusClient(cls.stage.env["ZELT_PUBLIC_BUS"])
        cls.stage.account("writer", "secret")
        cls.writer = Peer(cls.stage, "writer", "secret")

    @classmethod
    def tearDownClass(cls):
        cls.writer.close()
        super().tearDownClass()

    def create(self, node, **members):
        self.assertEqual(self.private.call("createNode", dict(members, node=node)),
                         {"returnValue": True, "node": node})


class Requests(RoadsTest):
    def test_a_node_is_created_once_and_deleted_once(self):
        self.create("/e2e/once")
        again = self.private.call("createNode", {"node": "/e2e/once"})
        self.assertEqual(again, {"returnValue": False, "node": "/e2e/once", "errorCode": "cancel",
                                 "errorText": "conflict"})
        self.assertEqual(self.private.call("deleteNode", {"node": "/e2e/once"}),
                         {"returnValue": True, "node": "/e2e/once"})
        gone = self.private.call("deleteNode", {"node": "/e2e/once"})
        self.assertEqual((gone["returnValue"], gone["errorText"]), (False, "item-not-found"))

    def test_a_collection_takes_leaves(self):
        self.create("/e2e/shelf", nodeType=2)
        self.create("/e2e/shelf/book", parent="/e2e/shelf", title="A book")
        missing = self.private.call("createNode", {"node": "/e2e/stray", "parent": "/e2e/no-such"})
        self.assertEqual((missing["returnValue"], missing["errorText"]), (False, "item-not-found"))

    def test_publishing_answers_with_the_result_alone(self):
        self.create("/e2e/publish")
        self.assertEqual(self.private.call("publishItem", {"node": "/e2e/publish", "item": "x"}),
                         {"returnValue": True})
        missing = self.private.call("publishItem", {"node": "/e2e/nowhere", "item": "x"})
        self.assertEqual((missing["returnValue"], missing["errorText"]), (False, "item-not-found"))

    def test_a_subscription_reports_its_id_and_can_be_ended_with_it(self):
        self.create("/e2e/sub")
        answer = self.private.call("subscribeToNode", {"node": "/e2e/sub"})
        self.assertEqual(answer["returnValue"], True)
        self.assertTrue(answer["subid"])
        jid = f"{self.stage.env['DEVICE_USER']}@{self.stage.env['XMPP_DOMAIN']}"
        for candidate in (jid, f"{jid}/{self.stage.env['DEVICE_RESOURCE']}"):
            ended = self.private.call("unsubscribeFromNode",
                                      {"node": "/e2e/sub", "jid": candidate, "subid": answer["subid"]})
            if ended["returnValue"]:
                return
        self.fail(f"the subscription could not be ended: {ended}")

    def test_an_authorise_node_makes_a_stranger_wait(self):
        self.create("/e2e/authorise", accessType=2)
        answer = self.writer.subscribe("/e2e/authorise")
        self.assertEqual(answer.find(f".//{PUBSUB}subscription").get("subscription"), "pending")

    def test_many_requests_in_flight_are_each_answered(self):
        calls = [self.private.start("createNode", {"node": f"/e2e/many/{number}"}) for number in range(200)]
        for number, call in enumerate(calls):
            self.assertEqual(call.wait(), {"returnValue": True, "node": f"/e2e/many/{number}"})

    def test_who_the_session_is(self):
        self.assertEqual(self.private.call("getJabberId", {}),
                         {"returnValue": True, "username": self.stage.env["DEVICE_USER"]})
        self.assertEqual(self.private.call("getResource", {}),
                         {"returnValue": True, "resource": self.stage.env["DEVICE_RESOURCE"]})

    def test_private_methods_do_not_exist_on_the_public_bus(self):
        with self.assertRaises(BusError) as caught:
            self.public.call("createNode", {"node": "/e2e/public"})
        self.assertEqual(caught.exception.name, "org.freedesktop.DBus.Error.UnknownMethod")

    def test_methods_in_neither_table_are_unknown(self):
        for method in ("createSession", "getSubscriptions", "getAffliations", "getPublishedItems"):
            with self.subTest(method), self.assertRaises(BusError) as caught:
                self.private.call(method, {})
            self.assertEqual(caught.exception.name, "org.freedesktop.DBus.Error.UnknownMethod")

    def test_status_on_both_buses(self):
        self.assertEqual(self.public.call("connectStatus", {}), {"returnValue": True, "connected": True})
        self.assertEqual(self.private.call("subscribeConnStatus", {}),
                         {"returnValue": True, "connected": True, "session": True, "network": True})


class Items(RoadsTest):
    number = 0

    def handled_node(self, node):
        """A node of ours with a subscription and a registered handler; returns the list of received items."""
        self.create(node)
        self.assertTrue(self.private.call("subscribeToNode", {"node": node})["returnValue"])
        Items.number += 1
        name = f"com.zelt.e2e.handler{Items.number}"
        received = self.private.serve(name, f"item{Items.number}")
        registered = self.private.call("registerItemCallback",
                                       {"node": node, "endpoint": f"zelt://{name}/item{Items.number}"})
        self.assertEqual(registered, {"returnValue": True})
        return received

    def wait_items(self, received, count):
        self.private.pump(lambda: len(received) >= count, f"{count} items")

    def test_an_item_reaches_the_handler_is_remembered_and_acknowledged(self):
        received = self.handled_node("/e2e/item")
        self.private.call("publishItem", {"node": "/e2e/item", "item": "Hello <&> \"world\"\nünïcödé 🚀"})
        self.wait_items(received, 1)
        item = received[0]
        self.assertEqual(list(item), ["item", "itemid", "node", "returnValue"])
        self.assertEqual(item["item"], "Hello <&> \"world\"\nünïcödé 🚀")
        self.assertEqual((item["node"], item["returnValue"]), ("/e2e/item", True))
        number = wait_until(lambda: stored_number(self.stage, "/e2e/item"), "the number to be stored")
        # Were it not acknowledged, the server would send it to the next session before the second one, and without
        # its number nothing here would find it stale.
        self.private.call("disconnect", {})
        self.stage.kill_service()
        forget_number(self.stage, "/e2e/item")
        self.stage.start_service()
        self.stage.wait_connected()
        self.private.call("publishItem", {"node": "/e2e/item", "item": "second"})
        self.wait_items(received, 2)
        self.assertEqual([entry["item"] for entry in received[1:]], ["second"])
        self.assertGreater(wait_until(
            lambda: (stored_number(self.stage, "/e2e/item") or 0) > number, "a higher number"), 0)

    def test_an_item_whose_id_has_tabs_and_line_breaks_is_acknowledged(self):
        created = self.writer.iq("set", "<pubsub xmlns='http://jabber.org/protocol/pubsub'>"
                                        "<create node='/e2e-writer/breaks'/></pubsub>")
        self.assertNotIsInstance(created, tuple)
        self.assertTrue(self.private.call("subscribeToNode", {"node": "/e2e-writer/breaks"})["returnValue"])
        received = self.private.serve("com.zelt.e2e.breaks", "item")
        self.private.call("registerItemCallback",
                          {"node": "/e2e-writer/breaks", "endpoint": "zelt://com.zelt.e2e.breaks/item"})
        publish = ("<iq type='set' id='%s' to='" + self.stage.env["PUBSUB_JID"] + "'>"
                   "<pubsub xmlns='http://jabber.org/protocol/pubsub'><publish node='/e2e-writer/breaks'>"
                   "<item id='%s'><payload>%s</payload></item></publish></pubsub></iq>")
        self.writer.raw(publish % ("b1", "a&#9;b&#10;c&#13;d", "first"))
        self.wait_items(received, 1)
        self.assertEqual(received[0]["itemid"], "a\tb\nc\rd")
        wait_until(lambda: stored_number(self.stage, "/e2e-writer/breaks"), "the number to be stored")
        # As above: were it not acknowledged, it would come again.
        self.private.call("disconnect", {})
        self.stage.kill_service()
        forget_number(self.stage, "/e2e-writer/breaks")
        self.stage.start_service()
        self.stage.wait_connected()
        self.writer.raw(publish % ("b2", "plain", "second"))
        self.wait_items(received, 2)
        self.assertEqual([entry["item"] for entry in received[1:]], ["second"])

    def test_an_item_of_another_account_arrives_in_order(self):
        received = self.handled_node("/e2e/order")
        self.private.call("publishItem", {"node": "/e2e/order", "item": "0"})
        configured = self.writer.subscribe("/e2e/order")
        self.assertNotIsInstance(configured, tuple)
        for number in range(1, 50):
            self.private.start("publishItem", {"node": "/e2e/order", "item": str(number)})
        self.wait_items(received, 50)
        self.assertEqual([item["item"] for item in received], [str(number) for number in range(50)])
        other = self.writer.wait_message(
            lambda message: any(items.get("node") == "/e2e/order" for items in message.iter(EVENT + "items")))
        self.assertGreater(int(other.find(f".//{EVENT}item").get("seqNo")), 0)

    def test_an_xml_item_carries_objects(self):
        received = self.handled_node("/e2e/xml")
        answer = self.private.call("publishItem", {"node": "/e2e/xml", "xml": True,
                                                   "item": {"payload": {"#": "hi", "@": {"lang": "en"}, "count": 5}}})
        self.assertEqual(answer, {"returnValue": True})
        self.wait_items(received, 1)
        self.assertEqual(received[0]["item"], '"hi"')

    def test_an_xml_item_of_two_payloads_is_refused_by_the_server(self):
        self.create("/e2e/two")
        answer = self.private.call("publishItem", {"node": "/e2e/two", "xml": True,
                                                   "item": {"payload": {"#": "hi"}, "count": 5}})
        self.assertEqual(answer, {"returnValue": False, "errorCode": "modify",
                                  "errorText": "bad-request invalid-payload"})

    def test_items_published_while_the_service_is_dead_arrive_after_its_restart(self):
        received = self.handled_node("/e2e/dead")
        self.private.call("publishItem", {"node": "/e2e/dead", "item": "before"})
        self.wait_items(received, 1)
        wait_until(lambda: stored_number(self.stage, "/e2e/dead"), "the number to be stored")
        # A stranger must not publish; once the owner lets everybody, the writer does while the service is dead.
        self.assertEqual(self.writer.publish("/e2e/dead", "too early"), ("error", "forbidden"))
        self.assertEqual(self.private.call("setNodeConfig", {
            "node": "/e2e/dead", "options": {"pubsub#publish_model": "open"}}),
            {"returnValue": True, "node": "/e2e/dead"})
        self.stage.kill_service()
        for number in range(5):
            self.assertNotIsInstance(self.writer.publish("/e2e/dead", f"while dead {number}"), tuple)
        self.stage.start_service()
        self.wait_items(received, 6)
        self.assertEqual([item["item"] for item in received], ["before"] + [f"while dead {n}" for n in range(5)])
        self.stage.wait_connected()

    def test_nobody_listening_leaves_the_newest_item_in_the_cache(self):
        self.create("/e2e/cache")
        self.private.call("subscribeToNode", {"node": "/e2e/cache"})
        for text in ("first", "second"):
            self.private.call("publishItem", {"node": "/e2e/cache", "item": text})
        path = os.path.join(self.stage.env["STATE_DIR"], "cache", "cache")
        wait_until(lambda: os.path.exists(path) and "second" in open(path, encoding="utf-8").read(),
                   "the second item in the cache")
        with open(path, encoding="utf-8") as cached:
            self.assertEqual(cached.read(), '{ "item": "second", "endpoint": "cache", "returnValue": true }')

    def test_a_leafs_item_reaches_the_subscriber_of_its_collection(self):
        self.create("/e2e/coll", nodeType=2)
        self.create("/e2e/coll/leaf", parent="/e2e/coll")
        name, received = "com.zelt.e2e.collection", None
        received = self.private.serve(name, "leaf")
        for node in ("/e2e/coll", "/e2e/coll/leaf"):
            self.private.call("registerItemCallback", {"node": node, "endpoint": f"zelt://{name}/leaf"})
        self.assertTrue(self.private.call("subscribeToNode", {"node": "/e2e/coll"})["returnValue"])
        self.private.call("publishItem", {"node": "/e2e/coll/leaf", "item": "through the collection"})
        self.wait_items(received, 1)
        self.assertEqual(received[0]["item"], "through the collection")

    def test_a_handler_that_was_unregistered_gets_nothing_more(self):
        received = self.handled_node("/e2e/unregister")
        endpoint = f"zelt://com.zelt.e2e.handler{Items.number}/item{Items.number}"
        answer = self.private.call("unRegisterItemCallback",
                                   {"node": "/e2e/unregister", "endpoint": endpoint, "app": False})
        self.assertEqual(answer, {"returnValue": True})
        self.private.call("publishItem", {"node": "/e2e/unregister", "item": "x"})
        path = os.path.join(self.stage.env["STATE_DIR"], "cache", "unregister")
        wait_until(lambda: os.path.exists(path), "the item in the cache")
        self.assertEqual(received, [])


if __name__ == "__main__":
    unittest.main()
