# SPDX-License-Identifier: GPL-3.0-only
"""Messages of web push in a cluster of two members: what one is asked holds on the other."""
import threading

import xmppclient
from harness import PASSWORD, Instance
from pushtest import PushTest, webpush
from xmppclient import DEVICE


class PushCluster(PushTest):
    @classmethod
    def setUpClass(cls):
        cls.instance = Instance(["key_rate=100000", "key_burst=100000"], member="127.0.0.1", database=cls.database)
        cls.second = Instance((), member="127.0.0.2", join=cls.instance.folder)

    @classmethod
    def tearDownClass(cls):
        cls.second.remove()
        super().tearDownClass()

    def at(self, instance, resource):
        client = xmppclient.connect(instance.server, "owner", PASSWORD, resource)
        self.clients.append(client)
        return client

    def send(self, instance, key, body, **fields):
        answer = webpush.request("%s/%s" % (instance.server.env["HTTP_URL"], key), "POST", body.encode(), fields)
        self.assertEqual(answer.status, 201, answer.body)
        return answer.headers["Location"]

    def ask(self, instance, location, method="GET"):
        origin = "/".join(instance.server.env["HTTP_URL"].split("/")[:3])
        return webpush.request(origin + location, method)

    def nodes(self, count=6):
        """Names of nodes, of which each member writes for some, and their keys; the device is absent."""
        owner = self.at(self.instance, "push")
        found = {}
        for each in range(count):
            node = "%s/%d" % (self.node, each)
            found[node] = self.succeed(self.make(owner, "web-push='true'", node)).findtext("{%s}key" % DEVICE)
        self.announce(owner)
        owner.kill()
        self.settle()
        return found

    def taken(self, client, node):
        self.succeed(self.activate(client, node=node))
        found = self.next_item(client, node)
        self.ack(client, found.id, node)
        return found

    def test_topics_times_and_taking_back_hold_on_both_members(self):
        for node, key in self.nodes().items():
            first = self.send(self.instance, key, "old", Topic="a")
            back = self.send(self.second, key, "back")
            late = self.send(self.second, key, "late", TTL="1")
            last = self.send(self.second, key, "new", Topic="a", Urgency="high")
            self.assertEqual([self.ask(each, first).body["state"] for each in (self.instance, self.second)], ["taken"] * 2)
            self.assertEqual(self.ask(self.instance, back, "DELETE").status, 204)
            self.assertEqual(self.ask(self.second, back, "DELETE").status, 410)
            self.wait_for(lambda late=late: self.ask(self.instance, late).body["state"] == "taken")
            self.assertEqual([self.ask(each, last).body["state"] for each in (self.instance, self.second)], ["waiting"] * 2)
            owner = self.device_at(self.second)
            self.assertEqual(self.taken(owner, node).content, b"new")
            self.assert_quiet(owner, node)
            owner.kill()
            self.settle()

    def device_at(self, instance):
        client = self.at(instance, "push")
        self.announce(client)
        return client

    def test_a_bound_of_urgency_holds_wherever_the_node_is_written(self):
        for node, key in self.nodes(4).items():
            owner = self.at(self.second, "push")
            self.succeed(self.limit(owner, "normal", node=node))
            self.announce(owner)
            self.send(self.instance, key, "low", Urgency="low")
            self.send(self.second, key, "high", Urgency="high")
            found = self.next_item(owner, node)
            self.assertEqual(found.content, b"high")
            self.ack(owner, found.id, node)
            self.assert_quiet(owner, node)
            self.succeed(self.limit(owner, "low", node=node))
            self.assertEqual(self.next_item(owner, node).content, b"low")
            owner.kill()
            self.settle()

    def test_of_many_at_once_with_a_topic_one_stays(self):
        """They meet in batches, of which the later ones replace the others before these are there."""
        sizes = "[ets:info(T, size) || T <- [pubsub_device_trait, pubsub_device_topic, pubsub_device_expiry]]"
        before = self.instance.evaluate(sizes) if self.database == "mnesia" else None
        for node, key in self.nodes(2).items():
            def flood(instance, key=key):
                for each in range(20):
                    self.send(instance, key, "x%d" % each, Topic="a", TTL="600")

            threads = [threading.Thread(target=flood, args=(each,)) for each in (self.instance, self.second) * 4]
            for each in threads:
                each.start()
            for each in threads:
                each.join()
            last = self.send(self.instance, key, "last", Topic="a", TTL="600")
            owner = self.device_at(self.instance)
            self.assertEqual(self.taken(owner, node).content, b"last")
            self.assert_quiet(owner, node)
            self.wait_for(lambda: self.ask(self.second, last).body["state"] == "taken")
            owner.kill()
            self.settle()
        if self.database == "mnesia":
            self.wait_for(lambda: self.instance.evaluate(sizes) == before)
            self.assertEqual(self.second.evaluate(sizes), before)
