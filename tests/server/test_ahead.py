# SPDX-License-Identifier: GPL-3.0-only
"""A device is sent an item while it is being written to disk; its publisher is answered when it is there."""
from harness import ServerTest

# In the server: a process that publishes the text, and is known by the name `publisher` until it was answered.
PUBLISH = ("spawn(fun() -> register(publisher, self()), {ok, _, _} = "
           "pubsub_device_publish:to_key_node("
           "pubsub_device_store:node_of(<<\"%s\">>), <<\"%s\">>, [{xmlel, <<\"payload\">>, [], []}], none) end)")
SUSPEND = "sys:suspend(pubsub_device_commit)"


class Ahead(ServerTest):
    member = "127.0.0.1"

    def setUp(self):
        super().setUp()
        self.addCleanup(self.instance.evaluate, "catch sys:resume(pubsub_device_commit, 1000)")

    def open_device(self, resource):
        """A device that is sent all items of its key node at once, and the key."""
        device = self.device("owner", resource)
        key = self.key_node(device)
        self.succeed(self.pubsub(device, "<subscribe node='%s' jid='%s'/>" % (self.node, device.jid)))
        return device, key

    def publish_unsynced(self, key, item_id):
        """Publishes `fresh`, which brings a floor for the numbers to the disk, and the item while no sync returns."""
        self.instance.evaluate(
            "{ok, _, _} = pubsub_device_publish:to_key_node(pubsub_device_store:node_of(<<\"%s\">>), <<\"fresh\">>, "
            "[{xmlel, <<\"payload\">>, [], []}], none), "
            % key + SUSPEND + ", " + PUBLISH % (key, item_id))

    def is_unanswered(self):
        return self.instance.evaluate("is_pid(whereis(publisher))") == "true"

    def test_a_device_gets_an_item_before_the_sync_and_its_publisher_is_answered_after_it(self):
        device, key = self.open_device("early")
        self.publish_unsynced(key, "early")
        self.assertEqual([each.id for each in self.take(device, 2)], ["fresh", "early"])
        self.assertTrue(self.is_unanswered())
        self.instance.evaluate("sys:resume(pubsub_device_commit)")
        self.wait_for(lambda: not self.is_unanswered())

    def test_an_item_is_not_sent_before_the_floor_of_its_number_is_on_disk(self):
        device, key = self.open_device("floor")
        self.publish_unsynced(key, "early")
        self.instance.evaluate("sys:resume(pubsub_device_commit)")
        self.take(device, 2)
        self.wait_for(lambda: not self.is_unanswered())
        self.wait_for(lambda: self.instance.evaluate(
            "erlang:system_time(microsecond) > lists:max([element(3, Each) || Each <- ets:tab2list("
            "pubsub_device_number), element(1, element(2, Each)) == floor])") == "true")
        self.instance.evaluate(SUSPEND + ", " + PUBLISH % (key, "late"))
        self.wait_for(lambda: self.instance.evaluate(
            "element(2, process_info(whereis(pubsub_device_commit), message_queue_len)) > 0") == "true")
        device.sync()
        self.assertEqual(device.messages(), [])
        self.instance.evaluate("sys:resume(pubsub_device_commit)")
        self.assertEqual([each.id for each in self.take(device)], ["late"])

    def test_numbers_rise_after_a_kill_that_met_an_item_which_only_its_device_has(self):
        device, key = self.open_device("kill")
        self.publish_unsynced(key, "early")
        before = self.take(device, 2)[1].seq_no
        self.assertTrue(self.is_unanswered())
        self.instance.kill()
        self.instance.start()
        device = self.device("owner", "kill")
        self.post(key, "after")
        items = self.take(device)
        while items[-1].text != "after":
            items += self.take(device)
        self.assertGreater(items[-1].seq_no, before)

    def test_a_publisher_is_answered_when_the_process_that_syncs_ended_before_its_item_was_on_disk(self):
        device, key = self.open_device("crash")
        self.publish_unsynced(key, "early")
        self.take(device, 2)
        self.assertTrue(self.is_unanswered())
        self.instance.evaluate("exit(whereis(pubsub_device_commit), kill)")
        self.wait_for(lambda: not self.is_unanswered())
        self.post(key, "after")
        items = self.take(device)
        while items[-1].text != "after":
            items += self.take(device)
        self.assertEqual(sorted({each.id for each in items[:-1]}), ["early"])  # published again, under a new number
