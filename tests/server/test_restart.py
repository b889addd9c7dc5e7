# SPDX-License-Identifier: GPL-3.0-only
"""What the server has confirmed survives an orderly stop and a kill."""
import xmppclient
from harness import ServerTest
from xmppclient import DEVICE


class Restart(ServerTest):
    def subscribed(self, resource):
        owner, bob = self.client("owner"), self.device("bob", resource)
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        return owner, bob

    def test_kept_items_numbers_and_devices_survive_a_stop(self):
        owner, bob = self.subscribed("stop")
        self.publish(owner, "1", "one")
        before = self.take(bob)
        self.instance.stop()
        self.instance.start()
        bob = self.device("bob", "stop")
        self.assertEqual(self.take(bob), before)
        owner = self.client("owner")
        self.publish(owner, "2")
        self.assertGreater(self.take(bob)[0].seq_no, before[0].seq_no)

    def test_an_acknowledged_item_does_not_come_back_after_a_stop(self):
        owner, bob = self.subscribed("gone")
        self.publish(owner, "1", "one")
        self.take(bob)
        self.ack(bob, "one")
        self.settle(bob)
        self.instance.stop()
        self.instance.start()
        self.assert_quiet(self.device("bob", "gone"))

    def test_every_item_that_a_publisher_was_answered_for_survives_a_kill(self):
        owner, bob = self.subscribed("kill")
        bob.kill()
        published = []
        for turn in range(3):
            owner = self.client("owner")
            # Sent without waiting, so that the kill meets items in every state; only confirmed ones have to survive.
            requests = [(owner.send_iq("set", self.publish_stanza("%d %d" % (turn, each))), "%d %d" % (turn, each))
                        for each in range(60)]
            for number, text in requests[:30 + turn]:
                self.succeed(owner.wait_iq(number))
                published.append(text)
            self.instance.kill()
            self.instance.start()
        bob = self.device("bob", "kill")
        self.settle(bob)
        items = [xmppclient.item(each) for each in bob.messages()]
        texts = [each.text for each in items]
        self.assertEqual([text for text in texts if text in published], published)
        numbers = [each.seq_no for each in items]
        self.assertEqual(numbers, sorted(set(numbers)))

    def test_a_node_a_subscription_and_a_key_survive_a_kill_right_after_their_answers(self):
        owner, bob = self.client("owner", "maker"), self.device("bob", "new")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        key = self.key_node(owner, self.node + "/key")
        self.instance.kill()
        self.instance.start()
        owner, bob = self.client("owner", "maker"), self.device("bob", "new")
        again = self.succeed(self.ext(owner, "<key node='%s/key'/>" % self.node, "get"))
        self.assertEqual(again.findtext("{%s}key" % DEVICE), key)
        self.publish(owner, "1")
        self.assertEqual(self.texts(bob, 1), ["1"])

    def test_an_account_survives_a_kill_right_after_its_registration(self):
        self.instance.register("newcomer")
        self.instance.kill()
        self.instance.start()
        self.client("newcomer").sync()

    def test_numbers_rise_when_a_node_is_made_anew_after_a_restart(self):
        owner, bob = self.subscribed("floor")
        self.publish(owner, "1")
        before = self.take(bob)[0].seq_no
        self.succeed(self.delete(owner))
        self.instance.kill()
        self.instance.start()
        owner, bob = self.client("owner"), self.device("bob", "floor")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        self.publish(owner, "2")
        self.assertGreater(self.take(bob)[0].seq_no, before)
