# SPDX-License-Identifier: GPL-3.0-only
"""Two members on one machine: numbers stay in order, and confirmed publications survive the end of a member."""
import threading

import xmppclient
from harness import PASSWORD, Instance, ServerTest


class Cluster(ServerTest):
    nodes = 12

    def setUp(self):
        super().setUp()
        self.first = Instance(["key_rate=100000", "key_burst=100000"], member="127.0.0.1", database=self.database)
        self.addCleanup(self.first.remove)
        self.second = Instance((), member="127.0.0.2", join=self.first.folder)
        self.addCleanup(self.second.remove)
        self.instance = self.first

    @classmethod
    def setUpClass(cls):
        """Each test has its own members, since it ends some of them."""

    @classmethod
    def tearDownClass(cls):
        """The class holds nothing."""

    def at(self, instance, user, resource=None):
        client = xmppclient.connect(instance.server, user, PASSWORD, resource)
        self.clients.append(client)
        return client

    def names(self):
        """Enough nodes that each member writes for some of them."""
        return ["%s/%d" % (self.node, each) for each in range(self.nodes)]

    def subscribed(self, *devices):
        owner = self.at(self.first, "owner")
        for device in devices:
            self.announce(device)
        for name in self.names():
            self.succeed(self.create(owner, name, publish_model="open"))
            for device in devices:
                self.succeed(self.subscribe(device, node=name))
        return owner

    def publish_from(self, instance, label, count, told):
        """Publishes to all nodes in turn, some ahead; adds confirmed items to `told` until the connection ends."""
        try:
            client = self.at(instance, "owner")
            waiting = []
            for number in range(count):
                for name in self.names():
                    text = "%s %d" % (label, number)
                    waiting.append((client.send_iq("set", self.publish_stanza(text, node=name)), name, text))
                    if len(waiting) > 20:
                        self.answered(client, waiting, told)
            while waiting:
                self.answered(client, waiting, told)
        except (xmppclient.Closed, OSError):
            pass  # its member was killed

    def answered(self, client, waiting, told):
        number, name, text = waiting[0]
        if client.wait_iq(number, 60).get("type") == "result":
            told.append((name, text))
        waiting.pop(0)

    def check(self, device, told):
        """The device has every confirmed item, and the numbers of each node ascend, except for repetitions."""
        missing = set(told)
        last = {}

        def has_all():
            for message in device.messages():
                found = xmppclient.item(message)
                if found.seq_no > last.get(found.node, 0):
                    last[found.node] = found.seq_no
                    missing.discard((found.node, found.text))
                self.ack(device, found.id, found.node)
            return not missing

        self.wait_for(has_all)

    def run_threads(self, *jobs):
        threads = [threading.Thread(target=job, args=args) for job, *args in jobs]
        for thread in threads:
            thread.start()
        return threads

    def test_numbers_rise_for_devices_and_publishers_of_both_members(self):
        here, there = self.at(self.first, "bob", "here"), self.at(self.second, "bob", "there")
        self.subscribed(here, there)
        told = []
        for thread in self.run_threads((self.publish_from, self.first, "a", 20, told),
                                       (self.publish_from, self.second, "b", 20, told)):
            thread.join(120)
        count = 2 * 20 * self.nodes
        self.assertEqual(len(told), count)
        for device in (here, there):
            numbers = {}
            for _ in range(count):
                found = xmppclient.item(device.wait_message())
                numbers.setdefault(found.node, []).append(found.seq_no)
            for name in self.names():
                self.assertEqual(numbers[name], sorted(set(numbers[name])))

    def test_what_publishers_were_told_survives_the_kill_of_a_member(self):
        device = self.at(self.first, "bob", "stays")
        self.subscribed(device)
        told = []
        threads = self.run_threads((self.publish_from, self.first, "a", 40, told),
                                   (self.publish_from, self.second, "b", 200, told))
        self.wait_for(lambda: len(told) > 10 * self.nodes)
        self.second.kill()
        for thread in threads:
            thread.join(120)
        self.assertEqual(len([each for each in told if each[1].startswith("a ")]), 40 * self.nodes)
        self.check(device, told)

    def test_a_device_goes_on_at_another_member_and_a_member_comes_back(self):
        device = self.at(self.second, "bob", "moves")
        owner = self.subscribed(device)
        for name in self.names():
            self.publish(owner, "1", node=name)
        self.second.kill()
        device = self.at(self.first, "bob", "moves")
        self.announce(device)
        self.check(device, [(name, "1") for name in self.names()])
        self.second.start()
        told = []
        self.publish_from(self.second, "back", 3, told)
        self.assertEqual(len(told), 3 * self.nodes)
        self.check(device, told)

    def test_limits_hold_at_both_members_and_after_the_kill_of_one(self):
        device = self.at(self.first, "bob", "limited")
        owner = self.subscribed(device)
        limits = "".join("<node id='%s' limit='1'/>" % name for name in self.names())
        self.succeed(self.ext(device, "<activate-nodes>%s</activate-nodes>" % limits))
        for text in ("1", "2"):
            for name in self.names():
                self.publish(owner, text, text, name)
        for name in self.names():
            self.assertEqual(self.texts(device, 1, name), ["1"])
            self.succeed(self.ext(device, "<deactivate node='/none%s'/>" % name))  # asks senders of both members
        device.sync()
        self.assertEqual(device.messages(), [])
        self.second.kill()
        for name in self.names():
            self.ack(device, "1", name)
            self.assertEqual(self.texts(device, 1, name), ["2"])

    def test_an_acknowledgement_counts_at_a_member_that_has_not_dropped_the_copy_yet(self):
        """A change reaches the other members a moment after the one where the device is."""
        owner = self.at(self.first, "owner", "moment")
        self.announce(owner)
        for name, limit in zip(self.names()[:2], ("", " limit='1'")):
            key = self.key_node(owner, name)
            self.succeed(self.ext(owner, "<activate node='%s'%s/>" % (name, limit)))
            for text in ("1", "2"):
                self.post(key, text)
            number = self.take(owner, node=name)[0].seq_no
            self.first.evaluate(
                "Node = {<<\"%s\">>, <<\"%s\">>}, Device = {<<\"owner\">>, <<\"localhost\">>, <<\"moment\">>}, "
                "gen_server:cast(pubsub_device_sender:locate(Node, Device), "
                "{acked, Node, Device, pubsub_device_store:attached(Device), %s})" % (self.server.pubsub, name, number))
            self.assertEqual(self.texts(owner, 1, name), ["2"])

    def test_an_acknowledgement_is_honoured_when_a_member_has_joined_meanwhile(self):
        self.second.stop()
        owner = self.at(self.first, "owner", "stays")
        self.announce(owner)
        for name in self.names():
            key = self.key_node(owner, name)
            self.succeed(self.activate(owner, node=name))
            for text in ("1", "2"):
                self.post(key, text)
        first = {name: self.take(owner, node=name)[0] for name in self.names()}
        self.second.start()
        for name in self.names():
            self.ack(owner, first[name].id, name)
            self.assertEqual(self.texts(owner, 1, name), ["2"])
