# SPDX-License-Identifier: GPL-3.0-only
"""What is kept and waits, and what is dropped, as the metrics show it."""
import time

from exposition import PREFIX, MetricsTest


class Gauges(MetricsTest):
    member = "127.0.0.1"

    def test_sessions_devices_and_nodes_are_what_there_is(self):
        before = self.scrape()
        owner = self.device("owner", "gauges")

        def rise(name):
            return self.value(name) - before[PREFIX + name]

        self.wait_for(lambda: (rise("sessions"), rise("devices")) == (1, 1))
        self.succeed(self.create(owner))
        self.key_node(owner, self.node + "/key")
        self.assertEqual((rise("nodes"), rise("key_nodes")), (2, 1))
        self.succeed(self.delete(owner, self.node + "/key"))
        self.assertEqual((rise("nodes"), rise("key_nodes")), (1, 0))
        owner.kill()
        self.wait_for(lambda: (rise("sessions"), rise("devices")) == (0, 1))
        self.assertEqual(self.value("members"), 1)

    def test_kept_items_and_bytes_rise_and_fall_with_what_is_kept(self):
        self.wait_value("kept_items", 0)
        owner = self.away("bob", "kept", self.node)
        for _ in range(3):
            self.publish(owner, "x" * 1000)
        self.assertEqual(self.value("kept_items"), 3)
        self.wait_for(lambda: 6000 <= self.value("kept_bytes") <= 7000)
        self.assertEqual(self.value("kept_limit_bytes"), 1000000000)
        self.empty("bob", "kept", 3)
        self.wait_value("kept_items", 0)
        self.wait_value("kept_bytes", 0)

    def empty(self, user, resource, count):
        """The device takes and acknowledges everything."""
        device = self.device(user, resource)
        for each in self.take(device, count):
            self.ack(device, each.id)
        self.settle(device)

    def test_the_age_is_that_of_the_oldest_item_of_all(self):
        self.wait_value("oldest_item_age_seconds", 0)
        owner = self.away("bob", "old", self.node)
        self.away("carol", "young", self.node + "/young")
        began = time.monotonic()
        self.publish(owner, "old", "old")
        self.wait_for(lambda: time.monotonic() - began > 2.5)
        self.publish(owner, "young", "young", self.node + "/young")
        # The walk over devices and accounts is made every second.
        self.wait_for(lambda: time.monotonic() - began > 4)
        self.assertGreaterEqual(self.value("oldest_item_age_seconds"), 3)
        self.assertLessEqual(self.value("oldest_item_age_seconds"), time.monotonic() - began + 1)
        began = time.monotonic()
        self.empty("bob", "old", 1)
        self.wait_for(lambda: self.value("oldest_item_age_seconds") < 3 + time.monotonic() - began)
        carol = self.device("carol", "young")
        self.ack(carol, self.take(carol, 1, self.node + "/young")[0].id, self.node + "/young")
        self.wait_value("oldest_item_age_seconds", 0)

    def test_the_backlog_of_a_writer_and_of_a_sender_is_what_waits_for_it(self):
        self.assertEqual(self.value("writer_backlog_limit"), 5000)
        for kind in ("writer", "sender"):
            process = "pubsub_device_%s_3" % kind
            self.instance.evaluate("sys:suspend(%s)" % process)
            try:
                self.instance.evaluate("[%s ! nothing || _ <- lists:seq(1, 7)], ok" % process)
                after = self.scrape()
                self.assertEqual({key: number for key, number in after.samples.items()
                                  if key[0].endswith("_backlog") and number},
                                 {(PREFIX + kind + "_backlog", (kind, "3")): 7})
            finally:
                self.instance.evaluate("sys:resume(%s)" % process)
            self.wait_for(lambda kind=kind: self.value(kind + "_backlog", (kind, "3")) == 0)

    def test_a_scrape_costs_the_same_however_much_is_kept(self):
        cost = ("Cost = fun() -> {_, Before} = process_info(self(), reductions), "
                "iolist_size(pubsub_device_exposition:text()), {_, After} = process_info(self(), reductions), "
                "After - Before end, Cost(), lists:min([Cost() || _ <- lists:seq(1, 5)])")
        owner = self.away("bob", "cost", self.node)
        before = int(self.instance.evaluate(cost))
        for number in [owner.send_iq("set", self.publish_stanza("x")) for _ in range(1000)]:
            self.succeed(owner.wait_iq(number, 60))
        self.assertGreaterEqual(self.value("kept_items"), 1000)
        self.assertLess(int(self.instance.evaluate(cost)), 1.2 * before)
        self.empty("bob", "cost", 1000)

    def test_a_walk_over_many_devices_goes_on_where_it_stopped(self):
        """A round over more devices than one step takes finds the oldest and the largest all the same."""
        owner = self.client("owner")
        self.succeed(self.create(owner))
        node = "{<<\"%s\">>, <<\"%s\">>}" % (self.server.pubsub, self.node)
        each = ("[begin Device = {<<\"bob\">>, <<\"localhost\">>, iolist_to_binary(io_lib:format(\"~5..0b\", [Each]))}, "
                "Number = 9000 - Each, %s end || Each <- lists:seq(1, 3000)], ok")
        self.instance.evaluate(each % (
            "Text = binary:copy(<<\"x\">>, case Each of 2999 -> 5000; _ -> 10 end), pubsub_device_store:saw_device(Device), "
            "mnesia:dirty_write({pubsub_device_number, %s, Number, <<\"x\">>}), true = pubsub_device_store:keep_last(%s, "
            "Device, Number, <<\"x\">>, {xmlel, <<\"item\">>, [], [{xmlcdata, Text}]})" % (node, node)))
        try:
            self.wait_for(lambda: [found["jid"] for found in self.command("pubsub_device_top")[1]][:1]
                          == ["bob@localhost/02999"])
            self.assertEqual(len(self.command("pubsub_device_top")[1]), 20)
            self.assertEqual(self.instance.evaluate("element(1, gen_server:call(pubsub_device_gauges, found))"), "6000")
        finally:
            self.instance.evaluate(each % "pubsub_device_store:forget_device(Device)")


class Bounds(MetricsTest):
    options = ("max_kept=6", "max_kept_node=4", "max_kept_bytes=30000", "max_account_bytes=45000", "max_devices=3",
               "max_nodes=8", "max_keys=2", "key_rate=1", "key_burst=3")

    def test_drops_count_by_the_bound_and_refusals_by_the_option(self):
        first, second, big = (self.node + each for each in ("/1", "/2", "/3"))
        owner = self.away("bob", "a", first, second)

        def publish(node, count, size=1):
            for _ in range(count):
                self.publish(owner, "x" * size, node=node)

        self.assert_counts("dropped_total", {"node": 1}, lambda: publish(first, 5))
        self.assert_counts("dropped_total", {"device": 1}, lambda: publish(second, 3))
        for resource in ("a", "b", "c"):
            self.away("carol", resource, big)
        self.assert_counts("dropped_total", {"account": 1}, lambda: publish(big, 1, 20000))
        self.assert_counts("dropped_total", {"size": 3}, lambda: publish(big, 1, 40000))
        self.device("carol", "d")  # instead of "a", whose item was dropped
        self.assert_counts("dropped_total", {"forgotten": 1}, lambda: self.device("carol", "e"))
        self.assert_counts("dropped_total", {"forgotten": 1}, lambda: self.device("carol", "f"))
        self.assert_counts("refusals_total", {"max_devices": 1}, lambda: self.announce(self.client("carol", "g")))
        key = self.key_node(owner, self.node + "/key")
        self.key_node(owner, self.node + "/key2")
        self.assert_counts("refusals_total", {"max_keys": 1},
                           lambda: self.ext(owner, "<create-key-node node='%s/key3'/>" % self.node))
        for each in range(3):
            self.succeed(self.create(owner, "%s/more%d" % (self.node, each)))
        self.assert_counts("refusals_total", {"max_nodes": 1}, lambda: self.create(owner, self.node + "/9"))
        by_key = "<publish key='%s'><item><payload/></item></publish>" % key
        self.assert_counts("refusals_total", {"key_rate": 2},
                           lambda: [self.post(key, "x") for _ in range(4)] + [self.ext(owner, by_key)])


class Ages(MetricsTest):
    options = ("max_age=1", "sweep_interval=1", "max_store=500000")

    def test_items_that_are_too_old_count_as_such(self):
        owner = self.away("bob", "age", self.node)
        self.assert_counts("dropped_total", {"age": 2}, lambda: [self.publish(owner, "x") for _ in range(2)])


class Full(MetricsTest):
    options = ("max_store=500000",)

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.instance.register("dave")

    def test_a_full_store_counts_those_that_it_refuses_and_what_it_drops(self):
        for user in ("bob", "carol", "dave"):
            owner = self.away(user, "full", self.node)
        key = self.key_node(owner, self.node + "/key")
        refused = dict.fromkeys(("xmpp", "http"), 0)

        def fill():
            refused["xmpp"] += owner.iq("set", self.publish_stanza("x" * 20000)).get("type") == "error"
            refused["http"] += self.post(key, "x")[0] == 503
            return all(refused.values())

        self.wait_for(fill)
        self.wait_for(lambda: self.value("dropped_total", ("reason", "store")) > 0)
        self.assertEqual(self.value("refusals_total", ("reason", "full")), sum(refused.values()))
