# SPDX-License-Identifier: GPL-3.0-only
"""The owners of nodes and keys, the devices for which a key node's items are kept, and the bounds of an account."""
import os
import socket
import signal
import time

import xmppclient
from harness import ServerTest
from xmppclient import OWNER, PUBSUB, STANZAS


def reason(answer):
    return answer.findtext(".//%stext" % STANZAS)


class Machines(ServerTest):
    """Two devices of one account."""

    def activated(self, resource, node=None):
        device = self.device("owner", resource)
        self.succeed(self.activate(device, node=node))
        return device

    def test_a_key_nodes_items_are_kept_for_the_device_that_made_it_alone(self):
        first, second = self.device("owner", "a"), self.device("owner", "b")
        key = self.key_node(first)
        first.kill()
        self.post(key, "1")
        self.succeed(self.activate(second))
        self.assert_quiet(second)
        self.assertEqual(self.texts(self.activated("a"), 1), ["1"])

    def test_from_its_activation_on_they_are_kept_for_another_device_too(self):
        first, second = self.device("owner", "c"), self.device("owner", "d")
        key = self.key_node(first)
        self.post(key, "before")
        self.succeed(self.ext(second, "<activate-nodes><node id='%s'/></activate-nodes>" % self.node))
        first.kill()
        second.kill()
        self.post(key, "after")
        self.assertEqual(self.texts(self.activated("c"), 1), ["before"])
        self.assertEqual(self.texts(self.activated("d"), 1), ["after"])

    def test_asking_for_the_key_again_counts_as_making_the_node(self):
        key = self.key_node(self.client("owner", "e"))
        again = self.client("owner", "f")
        self.key_node(again)
        again.kill()
        self.post(key, "1")
        self.assertEqual(self.texts(self.activated("f"), 1), ["1"])

    def test_who_made_and_activated_a_node_survives_a_kill_right_after_the_answer(self):
        first, second, third = (self.device("owner", each) for each in ("g", "h", "i"))
        key = self.key_node(first)
        self.succeed(self.activate(second))
        self.instance.kill()
        self.instance.start()
        self.post(key, "1")
        for resource in ("g", "h"):
            self.assertEqual(self.texts(self.activated(resource), 1), ["1"])
        self.assert_quiet(self.activated("i"))

    def test_a_node_made_anew_is_its_makers_alone(self):
        first, second = self.device("owner", "j"), self.device("owner", "k")
        self.key_node(first)
        self.succeed(self.delete(first))
        key = self.key_node(second)
        self.post(key, "1")
        self.succeed(self.activate(first))
        self.assert_quiet(first)

    def test_another_accounts_device_that_subscribed_is_none_of_the_owners(self):
        owner, bob = self.device("owner", "l"), self.device("bob", "l")
        key = self.key_node(owner)
        self.succeed(self.subscribe(bob))
        self.succeed(self.activate(bob))
        unsubscribe = "<unsubscribe node='%s' jid='%s'/>" % (self.node, bob.jid)
        self.succeed(self.pubsub(bob, unsubscribe))
        self.post(key, "1")
        self.assert_quiet(bob)


class Bounds(ServerTest):
    options = ("max_devices=2", "max_nodes=4", "max_keys=2", "max_kept=5", "max_kept_node=5")

    def test_one_machines_traffic_does_not_push_out_what_waits_for_the_other(self):
        first, second = self.device("owner", "1"), self.device("owner", "2")
        waits, busy = (self.key_node(device, self.node + name) for device, name in ((first, "/1"), (second, "/2")))
        first.kill()
        self.post(waits, "waits")
        for each in range(10):
            self.post(busy, str(each))
        first = self.device("owner", "1")
        self.succeed(self.activate(first, node=self.node + "/1"))
        self.assertEqual(self.texts(first, 1, node=self.node + "/1"), ["waits"])
        self.ext(first, "<delete-nodes><node id='%s/1'/><node id='%s/2'/></delete-nodes>" % (self.node, self.node))

    def test_a_device_that_is_forgotten_leaves_its_nodes(self):
        first = self.device("carol", "1")
        key = self.key_node(first)
        first.kill()
        for resource in ("2", "3"):
            self.device("carol", resource).kill()
        self.wait_for(lambda: "Forgot the device carol@localhost/1; a new one took its place" in self.instance.log())
        self.assertEqual(self.post(key, "1")[0], 201)
        for resource in ("3", "2", "1"):
            device = self.device("carol", resource)
            self.succeed(self.activate(device))
            self.assert_quiet(device)
            device.kill()
            self.settle()

    def test_connected_devices_keep_their_places_and_one_too_many_is_told(self):
        bob = [self.device("bob", each) for each in ("1", "2")]
        third = self.client("bob", "3")
        third.send("<presence to='%s'/>" % self.server.pubsub)
        told = third.wait_presence(lambda each: each.get("type") == "error")
        self.assertEqual((xmppclient.condition(told), "max_devices" in reason(told)), ("resource-constraint", True))
        self.refused(self.ext(third, "<create-key-node node='%s'/>" % self.node), "resource-constraint")
        key = self.key_node(bob[0])
        self.refused(self.activate(third), "resource-constraint")
        self.refused(self.ext(third, "<activate-nodes><node id='%s'/></activate-nodes>" % self.node),
                     "resource-constraint")
        for each in bob:
            self.succeed(self.activate(each))
        self.post(key, "1")
        for each in bob:
            self.assertEqual(self.texts(each, 1), ["1"])
        bob[0].kill()
        self.wait_for(lambda: self.activate(third).get("type") == "result")

    def test_an_account_has_so_many_nodes_and_whom_it_gives_them_to_does_not_matter(self):
        self.instance.register("erin")
        self.instance.register("frank")
        erin, frank = self.client("erin"), self.client("frank")
        for each in range(4):
            self.succeed(self.create(erin, "%s/%d" % (self.node, each)))
            self.succeed(self.subscribe(frank, node="%s/%d" % (self.node, each)))
            affiliations = "<affiliations node='%s/%d'><affiliation jid='%s' affiliation='owner'/></affiliations>" % (
                self.node, each, frank.bare)
            self.succeed(self.pubsub(erin, affiliations, namespace=OWNER))
            self.succeed(self.pubsub(frank, affiliations.replace(frank.bare, erin.bare).replace("'owner'", "'none'"),
                                     namespace=OWNER))
        for turn in range(2):
            answer = self.refused(self.create(erin, self.node + "/more"), "resource-constraint")
            self.assertIn("max_nodes", reason(answer))
            self.succeed(self.create(frank, self.node + "/franks"))
            self.succeed(self.delete(frank, self.node + "/franks"))
            if turn == 0:
                self.instance.stop()
                self.instance.start()
                erin, frank = self.client("erin"), self.client("frank")
        self.succeed(self.delete(frank, self.node + "/0"))
        self.succeed(self.create(erin, self.node + "/more"))

    def test_an_account_has_so_many_key_nodes_and_one_that_is_deleted_makes_room(self):
        self.instance.register("dave")
        dave = self.client("dave")
        for name in ("/1", "/2"):
            self.key_node(dave, self.node + name)
        for turn in range(2):
            answer = self.refused(self.ext(dave, "<create-key-node node='%s/3'/>" % self.node), "resource-constraint")
            self.assertIn("max_keys", reason(answer))
            self.refused(self.ext(dave, "<key node='%s/3'/>" % self.node, "get"), "item-not-found")
            self.key_node(dave, self.node + "/1")
            if turn == 0:
                self.instance.stop()
                self.instance.start()
                dave = self.client("dave")
        self.succeed(self.delete(dave, self.node + "/1"))
        self.key_node(dave, self.node + "/3")


class Engine(ServerTest):
    """The items that the engine keeps, and its listener."""

    def items(self, client, node=None):
        answer = self.succeed(self.pubsub(client, "<items node='%s'/>" % (node or self.node), "get"))
        return [each.findtext("{*}payload") for each in answer.iter("{%s}item" % PUBSUB)]

    def test_of_a_node_no_more_than_the_last_item_is_stored_however_many_publish_at_once(self):
        owner = self.client("owner")
        self.succeed(self.create(owner, persist_items="1", max_items="10", publish_model="open"))
        clients = [self.client(user) for user in ("owner", "owner", "bob", "carol")]
        requests = [(client, client.send_iq("set", self.publish_stanza(str(each))))
                    for each in range(50) for client in clients]
        for client, request in requests:
            self.succeed(client.wait_iq(request))
        self.assertLessEqual(len(self.items(owner)), 1)
        self.publish(owner, "last")
        self.assertEqual(self.items(owner), ["last"])

    def test_the_last_item_survives_a_stop_and_can_be_taken_back(self):
        owner = self.client("owner")
        self.succeed(self.create(owner, persist_items="1"))
        for each in range(3):
            self.publish(owner, str(each), "id%d" % each)
        self.instance.stop()
        self.instance.start()
        owner = self.client("owner")
        self.assertEqual(self.items(owner), ["2"])
        self.succeed(self.pubsub(owner, "<retract node='%s'><item id='id2'/></retract>" % self.node))
        self.assertEqual(self.items(owner), [])

    def test_two_hundred_connections_at_once_do_not_wait_for_the_server_to_take_them(self):
        host, port = self.server.env["HTTP_URL"].split("/")[2].split(":")
        pid, links = int(self.server.env["SERVER_PID"]), []
        os.kill(pid, signal.SIGSTOP)
        try:
            end = time.monotonic() + 10
            for _ in range(200):
                links.append(socket.create_connection((host, int(port)), max(0.1, end - time.monotonic())))
        finally:
            os.kill(pid, signal.SIGCONT)
            for each in links:
                each.close()


class Before(ServerTest):
    """The data of the previous version: nodes without recorded devices, and all items of a node in one file."""

    named = ("/owner/dev1/com.example.app/inbox", "W0UtooA1zpB1TzsTSxQyNq5-Y9KG5wcG")
    plain = ("/inbox", "OEYNTewbCnlFqf_ON0e1RGTFVhRYL5ju")
    spool = "spool-1"

    def kept(self, resource, node):
        """The copies of the key node kept for the owner's device."""
        device, texts = self.device("owner", resource), []
        self.succeed(self.activate(device, node=node))
        while True:
            self.settle(device, node=node)
            found = [xmppclient.item(each) for each in device.messages()]
            if not found:
                device.kill()
                return texts
            texts += [each.text for each in found]
            for each in found:
                self.ack(device, each.id, node)

    def test_it_opens_and_its_nodes_go_to_the_device_of_their_name_or_to_all(self):
        for node, key in (self.named, self.plain):
            self.assertEqual(self.post(key, "after")[0], 201)
        self.assertEqual(self.kept("dev1", self.named[0]), ["before", "after"])
        self.assertEqual(self.kept("dev2", self.named[0]), ["before"])
        self.assertEqual(self.post(self.named[1], "both")[0], 201)
        for resource in ("dev1", "dev2"):
            self.assertEqual(self.kept(resource, self.named[0]), ["both"])
        self.assertEqual(self.kept("dev2", self.plain[0]), ["before", "after"])
        self.assertEqual(self.post(self.plain[1], "activated")[0], 201)
        self.assertEqual(self.kept("dev1", self.plain[0]), ["before", "after"])
        self.assertEqual(self.kept("dev2", self.plain[0]), ["activated"])
        bob = self.device("bob", "phone")
        self.assertEqual(self.texts(bob, 5, node="/news"), [str(each) for each in range(5)])
        owner = self.client("owner")
        self.publish(owner, "5", "id5", node="/news")
        answer = self.succeed(self.pubsub(owner, "<items node='/news'/>", "get"))
        self.assertEqual([each.get("id") for each in answer.iter("{%s}item" % PUBSUB)], ["id5"])
        for name in ("/inbox", "/owner/dev1/com.example.app/inbox"):
            self.succeed(self.delete(owner, name))


class Memory(ServerTest):
    member = "127.0.0.1"

    def memory(self, device):
        user, rest = device.jid.split("@")
        server, resource = rest.split("/")
        return int(self.instance.evaluate(
            "element(2, process_info(ejabberd_sm:get_session_pid(<<\"%s\">>, <<\"%s\">>, <<\"%s\">>), memory))"
            % (user, server, resource)))

    def test_a_device_without_anything_to_do_keeps_no_garbage(self):
        device = self.device("bob", "idle")
        self.wait_for(lambda: self.memory(device) < 40000)
        owner = self.client("owner")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(device))
        for _ in range(50):
            self.publish(owner, "x" * 20000)
        self.wait_for(lambda: len(device.messages()) == 50)
        self.wait_for(lambda: self.memory(device) < 60000)
