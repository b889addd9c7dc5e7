# SPDX-License-Identifier: GPL-3.0-only
"""What is stored of an item: one record, for as long as a device waits for it."""
import os

from harness import ServerTest
from xmppclient import OWNER, PUBSUB


class Storage(ServerTest):
    member = "127.0.0.1"
    tables = ("pubsub_device_body", "pubsub_device_cursor", "pubsub_device_waiting", "pubsub_device_oldest",
              "pubsub_device_queue", "pubsub_device_share", "pubsub_item", "pubsub_device_mark", "pubsub_device_key")

    def rows(self):
        """Table -> number of records."""
        found = self.instance.evaluate("lists:flatten(lists:join(\" \", [integer_to_list(mnesia:table_info(T, size)) "
                                       "|| T <- [%s]]))" % ", ".join(self.tables))
        return dict(zip(self.tables, map(int, found.strip('"').split())))

    def change(self, before):
        """The tables whose number of records has changed, with the change."""
        after = self.rows()
        return {table: after[table] - before[table] for table in self.tables if after[table] != before[table]}

    def subscribers(self, *resources):
        """Devices of bob that subscribed to the test's node."""
        devices = [self.device("bob", resource) for resource in resources]
        for device in devices:
            self.succeed(self.subscribe(device))
        return devices

    def items(self, client, node=None):
        answer = self.succeed(self.pubsub(client, "<items node='%s'/>" % (node or self.node), "get"))
        return [each.get("id") for each in answer.iter("{%s}item" % PUBSUB)]


class Bodies(Storage):
    def test_an_item_for_several_devices_is_one_record_until_the_last_has_taken_it(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        devices = self.subscribers("one", "two", "three")
        before = self.rows()
        self.publish(owner, "x", "id")
        for number, device in enumerate(devices):
            self.take(device)
            change = self.change(before)
            self.assertEqual((change["pubsub_device_body"], change["pubsub_device_waiting"],
                              change["pubsub_device_oldest"]), (1, 3 - number, 2 * (3 - number)))
            self.ack(device, "id")
            device.sync()
        self.assertEqual({table: rows for table, rows in self.change(before).items() if "cursor" not in table}, {})

    def test_the_engine_stores_nothing_unless_the_node_asks_for_it(self):
        owner = self.client("owner")
        key = self.key_node(owner, self.node + "/key")
        before = self.rows()
        self.succeed(self.create(owner))
        self.succeed(self.create(owner, self.node + "/asks", persist_items="1"))
        self.succeed(self.create(owner, self.node + "/last", persist_items="0", send_last_published_item="on_sub"))
        for node in ("", "/asks", "/last"):
            for number in range(2):
                self.publish(owner, "x", "id%d" % number, self.node + node)
        self.assertEqual(self.post(key, "x")[0], 201)
        self.assertEqual(self.items(owner, self.node + "/asks"), ["id1"])
        self.assertEqual(self.items(owner), [])
        self.assertEqual(self.change(before).get("pubsub_item"), 2)
        bob = self.device("bob", "late")
        self.succeed(self.subscribe(bob, node=self.node + "/last"))
        self.assertEqual(self.take(bob, node=self.node + "/last")[0].id, "id1")
        self.succeed(self.subscribe(bob))
        self.assert_quiet(bob)

    def test_nothing_is_left_of_a_node_that_is_deleted_while_many_publish(self):
        owner = self.client("owner")
        before = self.rows()
        clients = [self.client(user) for user in ("owner", "owner", "bob", "carol")]
        for persist in ("0", "1"):
            self.succeed(self.create(owner, persist_items=persist, publish_model="open"))
            self.subscribers("one", "two")
            requests = [(client, client.send_iq("set", self.publish_stanza(str(number))))
                        for number in range(50) for client in clients]
            deletion = owner.send_iq("set", "<pubsub xmlns='%s'><delete node='%s'/></pubsub>" % (OWNER, self.node))
            answers = [client.wait_iq(request).get("type") for client, request in requests]
            self.succeed(owner.wait_iq(deletion))
            self.assertIn("result", answers)
            self.wait_for(lambda: self.change(before) == {})
            self.pubsub(owner, "<delete node='%s'/>" % self.node, namespace=OWNER)

    def test_publishing_to_a_node_that_is_made_anew_stores_nothing_for_the_former_one(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        bob, = self.subscribers("anew")
        before = self.rows()
        self.publish(owner, "1")
        self.succeed(self.delete(owner))
        self.succeed(self.create(owner))
        self.publish(owner, "2")
        self.assertEqual(self.change(before), {})
        self.take(bob)

    def test_an_item_of_a_hundred_bytes_adds_less_than_a_kilobyte_to_the_log(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        self.subscribers("bytes")[0].kill()
        log = os.path.join(self.instance.folder, "spool", "LATEST.LOG")
        self.publish(owner, "x" * 100)
        before, count = os.path.getsize(log), 100
        for _ in range(count):
            self.publish(owner, "x" * 100)
        self.assertLess((os.path.getsize(log) - before) / count, 1000)


class Cursors(Storage):
    """A crash of the server, when one of two devices has taken an item that the other one waits for."""

    def taken_by_one(self):
        owner = self.client("owner")
        self.succeed(self.create(owner, send_last_published_item="on_sub"))
        one, two = self.subscribers("one", "two")
        for number in range(3):
            self.publish(owner, str(number), "id%d" % number)
        self.take(one, 3)
        for number in (0, 2, 1):
            self.ack(one, "id%d" % number)
        one.sync()
        two.kill()
        self.wait_for(lambda: self.rows()["pubsub_device_cursor"] == 1)
        return owner

    def restart(self):
        self.instance.kill()
        self.instance.start()

    def test_what_was_taken_does_not_come_again_and_the_rest_does(self):
        self.taken_by_one()
        self.wait_for(lambda: self.instance.evaluate(
            "[Floor || {_, _, Floor} <- ets:tab2list(pubsub_device_cursor)] == "
            "[Last || {_, _, Last, _} <- ets:lookup(pubsub_device_number, {<<\"%s\">>, <<\"%s\">>})]"
            % (self.server.pubsub, self.node)) == "true")
        self.sync_to_disk()
        self.restart()
        self.assert_quiet(self.device("bob", "one"))
        self.assertEqual(self.texts(self.device("bob", "two"), 3), ["0", "1", "2"])
        self.succeed(self.delete(self.client("owner")))
        self.assertEqual(self.rows()["pubsub_device_cursor"], 0)

    def test_the_last_item_that_is_asked_for_again_comes_also_after_a_crash(self):
        self.taken_by_one()
        one = self.device("bob", "one")
        self.succeed(self.pubsub(one, "<unsubscribe node='%s' jid='%s'/>" % (self.node, one.jid)))
        self.succeed(self.subscribe(one))
        self.assertEqual(self.texts(one, 1), ["2"])
        self.sync_to_disk()
        self.restart()
        self.assertEqual(self.texts(self.device("bob", "one"), 1), ["2"])
        self.succeed(self.delete(self.client("owner")))

    def sync_to_disk(self):
        """A confirmed change: everything before it is on disk."""
        owner = self.client("owner")
        self.succeed(self.create(owner, self.node + "/other"))
        self.succeed(self.delete(owner, self.node + "/other"))


class Full(Storage):
    options = ("max_kept=600",)

    def work(self, publish):
        """The reductions of all writers for the call."""
        now = ("lists:sum([element(2, process_info(whereis(pubsub_device_writer:name(Shard)), reductions)) "
               "|| Shard <- pubsub_device_writer:shards()])")
        before = int(self.instance.evaluate(now))
        publish()
        return int(self.instance.evaluate(now)) - before

    def test_a_device_that_holds_all_it_may_costs_a_writer_little_more_than_an_empty_one(self):
        owner = self.client("owner")
        nodes = ["%s/%d" % (self.node, number) for number in range(600)]
        device, other = self.device("bob", "full"), self.device("carol", "empty")
        for node in nodes:
            self.succeed(self.create(owner, node))
            self.succeed(self.subscribe(device, node=node))
        for node in (self.node + "/full", self.node + "/empty"):
            self.succeed(self.create(owner, node))
        self.succeed(self.subscribe(device, node=self.node + "/full"))
        self.succeed(self.subscribe(other, node=self.node + "/empty"))
        device.kill()
        other.kill()

        def publish(name, count=200):
            for _ in range(count):
                self.publish(owner, "x", node=self.node + name)

        empty = self.work(lambda: publish("/empty"))
        for node in nodes:
            self.publish(owner, "x", node=node)
        kept = self.rows()["pubsub_device_waiting"]
        full = self.work(lambda: publish("/full"))
        self.assertEqual(self.rows()["pubsub_device_waiting"], kept)
        self.assertLess(full, 2 * empty)
