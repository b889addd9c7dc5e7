# SPDX-License-Identifier: GPL-3.0-only
"""Devices of ordinary nodes: items are numbered, kept until acknowledged, and sent again."""
import threading

import xmppclient
from harness import ServerTest
from xmppclient import EVENT, item


class Delivery(ServerTest):
    def subscribed(self, resource, jid=None):
        """A node, its owner, and a device of bob that is subscribed to it."""
        owner = self.client("owner")
        self.succeed(self.create(owner))
        bob = self.device("bob", resource)
        self.succeed(self.subscribe(bob, jid=jid))
        return owner, bob

    def back(self, client, resource):
        """The device's next session, announced; the old one has ended without a goodbye."""
        client.sync()
        client.kill()
        return self.device(client.bare.split("@")[0], resource)

    def test_an_item_comes_alone_in_its_message_with_id_number_and_payload(self):
        owner, bob = self.subscribed("whole")
        item_id = self.publish(owner, "a < b & c", "one")
        message = bob.wait_message()
        number = item(message).seq_no
        self.assertEqual(message.attrib, {"from": self.server.pubsub, "to": bob.jid, "type": "headline"})
        self.assertEqual(xmppclient.xml(message[0]),
                         '<ns0:event xmlns:ns0="%s"><ns0:items node="%s"><ns0:item id="%s" seqNo="%d">'
                         '<ns0:payload>a &lt; b &amp; c</ns0:payload></ns0:item></ns0:items></ns0:event>'
                         % (EVENT, self.node, item_id, number))
        self.assertGreater(number, 0)

    def test_a_device_that_was_away_gets_what_was_kept_in_order_and_then_what_is_live(self):
        owner, bob = self.subscribed("away")
        bob.kill()
        for text in ("1", "2", "3"):
            self.publish(owner, text)
        bob = self.device("bob", "away")
        self.publish(owner, "4")
        self.publish(owner, "5")
        items = self.take(bob, 5)
        self.assertEqual([each.text for each in items], ["1", "2", "3", "4", "5"])
        self.assertEqual(sorted({each.seq_no for each in items}), [each.seq_no for each in items])

    def test_a_live_item_waits_for_the_device_to_announce_itself(self):
        owner, bob = self.subscribed("silent")
        bob.kill()
        self.publish(owner, "kept")
        bob = self.client("bob", "silent")
        self.publish(owner, "live")
        self.assert_quiet(bob)
        self.announce(bob)
        self.assertEqual(self.texts(bob, 2), ["kept", "live"])

    def test_what_is_acknowledged_does_not_come_again_and_the_rest_does(self):
        owner, bob = self.subscribed("acks")
        for text in ("1", "2", "3"):
            self.publish(owner, text, text)
        self.take(bob, 3)
        self.ack(bob, "2")
        bob = self.back(bob, "acks")
        self.assertEqual(self.texts(bob, 2), ["1", "3"])
        self.assert_quiet(bob)

    def test_announcing_again_in_a_session_sends_the_rest_again(self):
        owner, bob = self.subscribed("twice")
        for text in ("1", "2"):
            self.publish(owner, text, text)
        self.take(bob, 2)
        self.ack(bob, "1")
        self.announce(bob)
        self.assertEqual(self.texts(bob, 1), ["2"])
        self.assert_quiet(bob)

    def test_a_copy_is_on_its_way_twice_at_the_most(self):
        owner, bob = self.subscribed("often")
        self.publish(owner, "1")
        for _ in range(5):
            self.announce(bob)
        self.settle(bob)
        self.assertEqual(len(bob.messages()), 2)

    def test_an_acknowledgement_takes_the_oldest_sending_under_the_id(self):
        owner, bob = self.subscribed("oldest")
        for text in ("1", "2", "3"):
            self.publish(owner, text, "same")
        self.take(bob, 3)
        self.ack(bob, "same")
        bob = self.back(bob, "oldest")
        self.assertEqual(self.texts(bob, 2), ["2", "3"])
        self.ack(bob, "same")
        self.ack(bob, "same")
        bob = self.back(bob, "oldest")
        self.assert_quiet(bob)

    def test_an_acknowledgement_of_a_repetition_leaves_the_newer_copy(self):
        owner, bob = self.subscribed("repeated")
        self.publish(owner, "1", "same")
        self.take(bob)
        self.announce(bob)
        self.take(bob)
        self.publish(owner, "2", "same")
        self.take(bob)
        self.ack(bob, "same")
        self.ack(bob, "same")
        bob = self.back(bob, "repeated")
        self.assertEqual(self.texts(bob, 1), ["2"])

    def test_what_was_not_sent_in_this_session_cannot_be_acknowledged(self):
        owner, bob = self.subscribed("early")
        bob.kill()
        self.publish(owner, "1", "one")
        bob = self.client("bob", "early")
        self.ack(bob, "one")
        self.announce(bob)
        self.assertEqual(self.texts(bob, 1), ["1"])

    def test_another_devices_acknowledgement_counts_for_itself_alone(self):
        owner, bob = self.subscribed("mine")
        other, carol = self.device("bob", "other"), self.device("carol", "other")
        self.publish(owner, "1", "one")
        self.take(bob)
        for each in (other, carol):
            self.ack(each, "one")
            each.sync()
        bob = self.back(bob, "mine")
        self.assertEqual(self.texts(bob, 1), ["1"])

    def test_acknowledging_something_unknown_does_nothing(self):
        owner, bob = self.subscribed("unknown")
        self.publish(owner, "1", "one")
        self.take(bob)
        self.ack(bob, "two")
        self.ack(bob, "one", node="/elsewhere")
        self.ack(bob, "")
        bob = self.back(bob, "unknown")
        self.assertEqual(self.texts(bob, 1), ["1"])

    def test_the_bare_jid_means_all_devices_and_each_acknowledges_for_itself(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        first, second = self.device("carol", "first"), self.device("carol", "second")
        self.succeed(self.subscribe(first, jid=first.bare))
        self.publish(owner, "1", "one")
        self.assertEqual(self.texts(first, 1) + self.texts(second, 1), ["1", "1"])
        self.ack(first, "one")
        first, second = self.back(first, "first"), self.back(second, "second")
        self.assertEqual(self.texts(second, 1), ["1"])
        self.assert_quiet(first)

    def test_a_device_meant_twice_gets_one_copy(self):
        owner, bob = self.subscribed("double")
        self.succeed(self.subscribe(bob, jid=bob.bare))
        self.publish(owner, "1")
        self.assertEqual(self.texts(bob, 1), ["1"])
        self.assert_quiet(bob)

    def test_beside_its_devices_an_accounts_available_clients_get_the_notification(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        device, chat = self.device("bob", "device"), self.client("bob", "chat", presence="")
        negative = self.client("bob", "negative", presence="<priority>-1</priority>")
        silent = self.client("bob", "mute")
        self.succeed(self.subscribe(device, jid=device.bare))
        self.publish(owner, "1")
        numbers = {each.seq_no for each in self.take(device) + self.take(chat)}
        self.assertEqual(len(numbers), 1)
        self.assert_quiet(device)
        self.assert_quiet(chat)
        self.assert_quiet(negative)
        self.assert_quiet(silent)

    def test_a_subscriber_that_is_no_device_gets_a_numbered_notification_and_nothing_is_kept(self):
        owner, carol = self.client("owner"), self.client("carol", "plain")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(carol))
        self.publish(owner, "1")
        self.assertGreater(self.take(carol)[0].seq_no, 0)
        carol.kill()
        self.publish(owner, "2")
        carol = self.device("carol", "plain")
        self.assert_quiet(carol)

    def test_a_device_that_says_goodbye_gets_no_more_until_it_is_back(self):
        owner, bob = self.subscribed("bye")
        bob.send("<presence to='%s' type='unavailable'/>" % self.server.pubsub)
        bob.sync()
        self.publish(owner, "1")
        self.assert_quiet(bob)
        self.announce(bob)
        self.assertEqual(self.texts(bob, 1), ["1"])

    def test_a_new_session_of_the_resource_takes_over_from_the_old_one(self):
        owner, old = self.subscribed("same")
        self.publish(owner, "kept", "kept")
        self.take(old)
        for turn in range(10):  # the old session may end before the new one announces itself, or after
            new = self.device("bob", "same")
            old.wait_end()
            self.assertEqual(self.texts(new, 1), ["kept"])
            self.publish(owner, str(turn), str(turn))
            self.assertEqual(self.texts(new, 1), [str(turn)])
            self.ack(new, str(turn))
            new.sync()
            old = new

    def test_an_item_without_a_payload_is_sent_live_and_not_kept(self):
        owner, bob = self.subscribed("shape")
        self.succeed(self.pubsub(owner, "<publish node='%s'><item id='x'><entry xmlns='urn:x'>e</entry></item></publish>"
                                 % self.node))
        found = self.take(bob)[0]
        self.assertEqual((found.id, found.text), ("x", None))
        self.assertGreater(found.seq_no, 0)
        bob = self.back(bob, "shape")
        self.assert_quiet(bob)

    def test_a_bare_notification_is_sent_live_and_not_kept(self):
        owner, bob = self.client("owner"), self.device("bob", "bare")
        self.succeed(self.create(owner, deliver_payloads="0", persist_items="1"))
        self.succeed(self.subscribe(bob))
        self.publish(owner, "hidden")
        found = self.take(bob)[0]
        self.assertIsNone(found.text)
        self.assertGreater(found.seq_no, 0)
        bob = self.back(bob, "bare")
        self.assert_quiet(bob)

    def test_a_retraction_is_sent_live_to_the_devices_and_not_kept(self):
        owner = self.client("owner")
        self.succeed(self.create(owner, persist_items="1", notify_retract="1"))
        bob = self.device("bob", "retract")
        self.succeed(self.subscribe(bob, jid=bob.bare))
        self.publish(owner, "1", "one")
        self.take(bob)
        self.ack(bob, "one")
        self.succeed(self.pubsub(owner, "<retract node='%s' notify='1'><item id='one'/></retract>" % self.node))
        retracted = bob.wait_message().find(".//{%s}retract" % EVENT)
        self.assertEqual(retracted.get("id"), "one")
        bob = self.back(bob, "retract")
        self.assert_quiet(bob)

    def test_numbers_rise_when_the_node_is_made_anew(self):
        owner, bob = self.subscribed("anew")
        self.publish(owner, "1")
        before = self.take(bob)[0].seq_no
        self.succeed(self.delete(owner))
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        self.publish(owner, "2")
        self.assertGreater(self.take(bob)[0].seq_no, before)

    def test_what_was_kept_of_a_node_dies_with_it(self):
        owner, bob = self.subscribed("dies")
        bob.kill()
        self.publish(owner, "1")
        self.succeed(self.delete(owner))
        self.succeed(self.create(owner))
        bob = self.device("bob", "dies")
        self.assert_quiet(bob)

    def test_the_last_item_that_a_node_sends_on_subscription_is_numbered_and_kept(self):
        owner = self.client("owner")
        self.succeed(self.create(owner, send_last_published_item="on_sub"))
        carol = self.client("carol", "sees")
        self.succeed(self.subscribe(carol))
        self.publish(owner, "1")
        number = self.take(carol)[0].seq_no
        bob = self.device("bob", "last")
        self.succeed(self.subscribe(bob))
        self.assertEqual(self.take(bob)[0].seq_no, number)
        bob = self.back(bob, "last")
        self.assertEqual(self.take(bob)[0].seq_no, number)

    def test_numbers_rise_over_concurrent_publishers_for_every_device(self):
        publishers, count = 4, 150
        owner = self.client("owner")
        self.succeed(self.create(owner, publish_model="open", max_items="10"))
        first, second = self.device("bob", "order1"), self.device("bob", "order2")
        self.succeed(self.subscribe(first, jid=first.bare))

        def run(number):
            client = self.client("owner")
            requests = [client.send_iq("set", self.publish_stanza("%d %d" % (number, each))) for each in range(count)]
            for request in requests:
                self.succeed(client.wait_iq(request))

        threads = [threading.Thread(target=run, args=(number,)) for number in range(publishers)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(60)
        seen = [self.take(device, publishers * count) for device in (first, second)]
        for items in seen:
            numbers = [each.seq_no for each in items]
            self.assertEqual(numbers, sorted(set(numbers)))
        self.assertEqual(seen[0], seen[1])
        for number in range(publishers):
            own = [each.text for each in seen[0] if each.text.startswith("%d " % number)]
            self.assertEqual(own, ["%d %d" % (number, each) for each in range(count)])
