# SPDX-License-Identifier: GPL-3.0-only
"""The copies kept for a device and an account: their number, their bytes, which are dropped first, and whose."""
import threading
import time

from harness import Instance, ServerTest
from xmppclient import PUBSUB, condition


class KeptTest(ServerTest):
    def bulk(self, client, requests):
        """Sends all requests without waiting; all succeed."""
        for number in [client.send_iq("set", each) for each in requests]:
            self.succeed(client.wait_iq(number, 60))

    def creation(self, node):
        return "<pubsub xmlns='%s'><create node='%s'/></pubsub>" % (PUBSUB, node)

    def subscription(self, client, node):
        return "<pubsub xmlns='%s'><subscribe node='%s' jid='%s'/></pubsub>" % (PUBSUB, node, client.jid)

    def away(self, user, resource, *nodes):
        """A device that subscribed to the nodes, which the owner created if missing, and disconnected."""
        owner, device = self.client("owner"), self.device(user, resource)
        for node in nodes:
            self.create(owner, node)
        self.bulk(device, [self.subscription(device, node) for node in nodes])
        device.kill()
        return owner

    def drained(self, user, resource, nodes):
        """The texts of all copies kept for the device."""
        device = self.device(user, resource)
        for node in nodes:
            self.settle(device, node=node)
        return [each.findtext(".//{*}payload") for each in device.messages()]


class Full(KeptTest):
    """One device of bob has as many copies as its bound, in as many nodes."""

    kept = 1500
    options = ("max_kept=%d" % kept, "max_kept_node=%d" % kept)

    def test_publishing_to_a_full_device_costs_the_same_however_many_nodes_it_has(self):
        owner = self.client("owner")
        names = ["%s/%d" % (self.node, each) for each in range(self.kept)]
        self.bulk(owner, [self.creation(name) for name in names + [self.node, self.node + "/one"]])
        for resource, subscribed in (("many", names + [self.node]), ("one", [self.node + "/one"])):
            device = self.device("bob", resource)
            self.bulk(device, [self.subscription(device, node) for node in subscribed])
            device.kill()
        self.bulk(owner, [self.publish_stanza("x", node=name) for name in names])
        self.bulk(owner, [self.publish_stanza("x", node=self.node + "/one") for _ in range(self.kept)])
        seconds = {}
        for _ in range(3):
            for name in ("", "/one"):
                began = time.monotonic()
                self.bulk(owner, [self.publish_stanza("x", node=self.node + name) for _ in range(200)])
                self.settle(node=self.node + name)
                taken = time.monotonic() - began
                seconds[name] = min(taken, seconds.get(name, taken))
        self.assertLess(seconds[""] / seconds["/one"], 3)


class Twenty(KeptTest):
    options = ("max_kept=20", "max_kept_node=20", "key_rate=100000", "key_burst=100000")

    def test_the_bound_of_a_device_holds_for_publishers_of_many_nodes_at_once(self):
        names = ["%s/%d" % (self.node, each) for each in range(16)]
        self.away("bob", "exact", *names)

        def publish(part):
            client = self.client("owner")
            self.bulk(client, [self.publish_stanza(str(each), node=name) for each in range(20) for name in part])

        threads = [threading.Thread(target=publish, args=(names[first::4],)) for first in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(60)
        self.assertEqual(len(self.drained("bob", "exact", names)), 20)

    def test_a_full_node_keeps_its_newest_items(self):
        owner = self.away("bob", "node", self.node)
        for each in range(25):
            self.publish(owner, str(each))
        self.assertEqual(self.drained("bob", "node", [self.node]), [str(each) for each in range(5, 25)])

    def test_of_items_that_are_written_together_the_newest_are_kept(self):
        owner = self.away("bob", "batch", self.node)
        self.bulk(owner, [self.publish_stanza(str(each)) for each in range(200)])
        self.assertEqual(self.drained("bob", "batch", [self.node]), [str(each) for each in range(180, 200)])

    def test_a_full_device_keeps_the_newest_items_of_all_its_nodes(self):
        names = ["%s/%d" % (self.node, each) for each in range(4)]
        owner = self.away("bob", "device", *names)
        for each in range(26):
            self.publish(owner, str(each), node=names[each % 4])
        found = self.drained("bob", "device", names)
        self.assertEqual(sorted(found, key=int), [str(each) for each in range(6, 26)])


class TwentyInACluster(Twenty):
    """The same with another member, which writes for some of the nodes."""

    member = "127.0.0.1"

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        try:
            cls.other = Instance(cls.options, member="127.0.0.2", join=cls.instance.folder)
        except BaseException:
            cls.instance.remove()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.other.remove()
        super().tearDownClass()


class Exact(KeptTest):
    options = ("max_kept=20", "max_kept_node=20")

    def test_what_is_on_disk_counts_after_a_restart(self):
        names = ["%s/%d" % (self.node, each) for each in range(4)]
        owner = self.away("bob", "counted", *names)
        for each in range(20):  # one after the other: nodes have writers of their own
            self.publish(owner, str(each), node=names[each % 4])
        self.instance.stop()
        self.instance.start()
        owner = self.client("owner")
        for each in range(20, 26):
            self.publish(owner, str(each), node=names[each % 4])
        found = self.drained("bob", "counted", names)
        self.assertEqual(sorted(found, key=int), [str(each) for each in range(6, 26)])


class Bytes(KeptTest):
    """A copy of 20,000 bytes costs a little more than 21,000."""

    options = ("max_kept_bytes=200000", "max_account_bytes=300000", "max_store=3000000")

    def test_the_bytes_of_an_absent_device_are_bounded_and_its_oldest_go(self):
        names = [self.node + "/1", self.node + "/2"]
        owner = self.away("bob", "bytes", *names)
        for each in range(40):
            self.publish(owner, "%d %s" % (each, "x" * 20000), node=names[each % 2])
        found = sorted(int(each.split()[0]) for each in self.drained("bob", "bytes", names))
        self.assertEqual(found, list(range(31, 40)))

    def test_the_bytes_of_an_account_are_bounded_and_the_oldest_of_all_its_devices_go(self):
        first, second = self.node + "/1", self.node + "/2"
        self.away("carol", "first", first)
        owner = self.away("carol", "second", second)
        for node in (first, second):
            for each in range(9):
                self.publish(owner, "%d %s" % (each, "x" * 20000), node=node)
        kept = [[int(each.split()[0]) for each in self.drained("carol", resource, [node])]
                for resource, node in (("first", first), ("second", second))]
        self.assertEqual(kept, [list(range(4, 9)), list(range(9))])

    def test_an_item_above_the_bound_pushes_nothing_out(self):
        owner = self.away("bob", "huge", self.node)
        self.publish(owner, "small")
        self.publish(owner, "x" * 210000)
        self.publish(owner, "after")
        self.assertEqual(self.drained("bob", "huge", [self.node]), ["small", "after"])

    def test_an_absent_device_blocks_no_endpoint(self):
        owner, bob = self.client("owner"), self.device("bob", "absent")
        key = self.key_node(owner)
        self.succeed(self.subscribe(bob))
        bob.kill()
        other = self.key_node(self.client("carol"), self.node + "/other")
        for each in range(60):
            self.assertEqual(self.post(key, "x" * 20000)[0], 201)
        self.assertEqual(self.post(other, "x")[0], 201)


class Relation(KeptTest):
    options = ("max_kept_bytes=10000000", "max_account_bytes=10000000", "max_store=500000")

    def test_no_account_fills_the_store_whatever_its_own_bound_says(self):
        owner, bob = self.client("owner"), self.device("bob", "absent")
        key = self.key_node(owner)
        self.succeed(self.subscribe(bob))
        bob.kill()
        for _ in range(30):
            self.assertEqual(self.post(key, "x" * 20000)[0], 201)
        self.assertLess(len(self.drained("bob", "absent", [self.node])), 12)


class Whole(KeptTest):
    """An account may fill half of the store, so three are needed."""

    options = ("max_store=500000",)

    def crowd(self):
        """Absent devices of three accounts that subscribed to one node; its owner."""
        for name in ("bob", "carol", "dave"):
            owner = self.away(name, "big", self.node)
        return owner

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.instance.register("dave")

    def fill(self, owner):
        return owner.iq("set", self.publish_stanza("x" * 20000))

    def test_a_full_store_sends_publishers_away_for_a_while(self):
        owner = self.crowd()
        key = self.key_node(owner, self.node + "/key")
        by_key = "<publish key='%s'><item><payload/></item></publish>" % key

        def is_full():
            answers = [self.fill(owner), self.ext(owner, by_key)]
            status, headers, _ = self.post(key, "x")
            if status != 503 or any(condition(each) is None for each in answers):
                return False
            self.assertGreaterEqual(int(headers["Retry-After"]), 1)
            for each in answers:
                self.refused(each, "resource-constraint")
            return True

        self.wait_for(is_full)
        self.wait_for(lambda: self.post(key, "x")[0] == 201)

    def test_in_a_full_store_the_accounts_that_have_most_lose_their_oldest(self):
        small = self.node + "/small"
        owner = self.away("owner", "small", small)
        for each in range(20):
            self.publish(owner, str(each), node=small)
        owner = self.crowd()
        self.wait_for(lambda: self.fill(owner).get("type") == "error")
        self.wait_for(lambda: self.fill(owner).get("type") == "result")
        self.publish(owner, "last")
        self.assertEqual(self.drained("owner", "small", [small]), [str(each) for each in range(20)])
        for name in ("bob", "carol", "dave"):
            kept = self.drained(name, "big", [self.node])
            self.assertEqual((kept[-1], 3 < len(kept) < 10), ("last", True))
