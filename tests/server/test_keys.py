# SPDX-License-Identifier: GPL-3.0-only
"""Key nodes: keys, activation, bulk requests, publishing with a key."""
import xmppclient
from harness import ServerTest
from xmppclient import CLIENT, DEVICE


def nodes(answer):
    """The nodes that a bulk request failed for, with their conditions."""
    return {each.get("id"): each.get("error") for each in answer.iter("{%s}node" % DEVICE)}


class Keys(ServerTest):
    def test_the_owner_asking_again_gets_the_same_key_and_is_told_so(self):
        owner = self.client("owner")
        first = self.succeed(self.ext(owner, "<create-key-node node='%s'/>" % self.node)).find("{%s}key" % DEVICE)
        again = self.succeed(self.ext(self.client("owner"), "<create-key-node node='%s'/>" % self.node))
        again = again.find("{%s}key" % DEVICE)
        url = "%s/%s" % (self.server.env["HTTPS_URL"], first.text)
        self.assertEqual(first.attrib, {"node": self.node, "url": url})
        self.assertEqual(again.attrib, {"node": self.node, "url": url, "status": "exists"})
        self.assertEqual(first.text, again.text)
        self.assertGreaterEqual(len(first.text) * 6, 160)

    def test_no_key_can_be_taken_for_an_option_of_a_command(self):
        owner = self.client("owner")
        keys = [self.key_node(owner, "%s/%d" % (self.node, number)) for number in range(300)]
        self.assertEqual([key for key in keys if key.startswith("-")], [])

    def test_somebody_elses_name_conflicts(self):
        self.key_node(self.client("owner"))
        self.refused(self.ext(self.client("bob"), "<create-key-node node='%s'/>" % self.node), "conflict")

    def test_an_ordinary_node_does_not_become_a_key_node(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        self.refused(self.ext(owner, "<create-key-node node='%s'/>" % self.node), "conflict")

    def test_a_key_node_has_a_name_and_the_configuration_that_came_with_it(self):
        owner, bob = self.client("owner"), self.client("bob")
        self.refused(self.ext(owner, "<create-key-node node=''/>"), "bad-request")
        config = xmppclient.form(xmppclient.CONFIG, [("pubsub#access_model", "whitelist")])
        self.succeed(self.ext(owner, "<create-key-node node='%s'>%s</create-key-node>" % (self.node, config)))
        self.refused(self.subscribe(bob), "not-allowed")

    def test_a_configuration_that_is_none_is_refused_and_leaves_no_node(self):
        owner = self.client("owner")
        wrong = xmppclient.form(xmppclient.CONFIG, [("pubsub#access_model", "no such thing")])
        answer = self.ext(owner, "<create-key-node node='%s'>%s</create-key-node>" % (self.node, wrong))
        self.refused(answer, "resource-constraint")  # the engine's own condition for an unknown value
        self.refused(self.ext(owner, "<key node='%s'/>" % self.node, "get"), "item-not-found")

    def test_only_the_owner_reads_the_key(self):
        owner = self.client("owner")
        key = self.key_node(owner)
        answer = self.succeed(self.ext(owner, "<key node='%s'/>" % self.node, "get"))
        self.assertEqual(answer.findtext("{%s}key" % DEVICE), key)
        self.refused(self.ext(self.client("bob"), "<key node='%s'/>" % self.node, "get"), "forbidden")

    def test_a_missing_or_ordinary_node_has_no_key(self):
        owner = self.client("owner")
        self.refused(self.ext(owner, "<key node='%s'/>" % self.node, "get"), "item-not-found")
        self.succeed(self.create(owner))
        self.refused(self.ext(owner, "<key node='%s'/>" % self.node, "get"), "item-not-found")

    def test_a_key_dies_with_its_node(self):
        owner = self.client("owner")
        key = self.key_node(owner)
        self.succeed(self.delete(owner))
        self.refused(self.ext(owner, "<key node='%s'/>" % self.node, "get"), "item-not-found")
        self.assertEqual(self.post(key, "late")[0], 404)
        self.assertNotEqual(self.key_node(owner), key)

    def test_anyone_publishes_with_the_key_and_reads_the_items_id_and_number(self):
        owner = self.client("owner", "target")
        key = self.key_node(owner)
        self.succeed(self.activate(owner))
        bob = self.client("bob")
        answer = self.succeed(self.ext(bob, "<publish key='%s'><item id='mine'><payload>hello</payload></item></publish>"
                                       % key))
        published = answer.find("{%s}item" % DEVICE)
        found = self.take(owner)[0]
        self.assertEqual(published.attrib, {"id": "mine", "seqNo": str(found.seq_no)})
        self.assertEqual((found.id, found.text), ("mine", "hello"))

    def test_an_item_published_without_an_id_gets_one(self):
        owner = self.client("owner")
        key = self.key_node(owner)
        answer = self.succeed(self.ext(owner, "<publish key='%s'><item><payload/></item></publish>" % key))
        self.assertTrue(answer.find("{%s}item" % DEVICE).get("id"))

    def test_publishing_with_a_key_needs_a_known_key_and_a_payload(self):
        owner = self.client("owner")
        key = self.key_node(owner)
        self.refused(self.ext(owner, "<publish key='wrong'><item><payload/></item></publish>"), "item-not-found")
        self.refused(self.ext(owner, "<publish key='%s'><item><entry/></item></publish>" % key), "bad-request")
        self.refused(self.ext(owner, "<publish key='%s'><item/></publish>" % key), "bad-request")
        self.refused(self.ext(owner, "<publish key='%s'/>" % key), "bad-request")


class Activation(ServerTest):
    def ready(self, resource):
        """A key node of the owner and its device."""
        owner = self.device("owner", resource)
        return owner, self.key_node(owner)

    def back(self, client, resource):
        client.sync()
        client.kill()
        return self.device("owner", resource)

    def test_nothing_comes_before_the_activation_and_after_it_the_answer_is_first(self):
        owner, key = self.ready("gate")
        self.post(key, "1")
        self.assert_quiet(owner)
        owner.trace = []
        self.succeed(self.activate(owner))
        self.assertEqual(self.texts(owner, 1), ["1"])
        self.assertEqual([each.tag for each in owner.trace], [CLIENT + "iq", CLIENT + "message"])

    def test_one_item_is_on_its_way_and_the_next_follows_the_acknowledgement(self):
        owner, key = self.ready("single")
        for text in ("1", "2", "3"):
            self.post(key, text)
        self.succeed(self.activate(owner))
        self.settle(owner)
        first = [xmppclient.item(each) for each in owner.messages()]
        self.assertEqual([each.text for each in first], ["1"])
        self.ack(owner, first[0].id)
        second = self.take(owner)[0]
        self.assertEqual(second.text, "2")
        self.assert_quiet(owner)
        self.ack(owner, second.id)
        self.assertEqual(self.texts(owner, 1), ["3"])

    def test_a_live_item_comes_at_once_when_nothing_is_on_its_way(self):
        owner, key = self.ready("live")
        self.succeed(self.activate(owner))
        self.post(key, "1")
        self.assertEqual(self.texts(owner, 1), ["1"])

    def test_activating_again_sends_the_one_on_its_way_again_and_no_other(self):
        owner, key = self.ready("again")
        for text in ("1", "2", "3"):
            self.post(key, text)
        self.succeed(self.activate(owner))
        self.take(owner)
        self.succeed(self.activate(owner))
        self.assertEqual(self.texts(owner, 1), ["1"])
        self.succeed(self.activate(owner))
        self.assert_quiet(owner)

    def test_what_the_device_has_by_its_own_number_is_not_sent(self):
        owner, key = self.ready("above")
        numbers = [int(self.post(key, text)[2]["seqNo"]) for text in ("1", "2", "3")]
        self.succeed(self.activate(owner, numbers[1]))
        self.assertEqual([each.seq_no for each in self.take(owner)], numbers[2:])
        owner = self.back(owner, "above")
        self.succeed(self.activate(owner))
        self.assertEqual(self.texts(owner, 1), ["3"])

    def test_a_bulk_activation_after_a_single_one_sends_nothing_twice(self):
        owner, key = self.ready("bulk")
        self.post(key, "1")
        self.succeed(self.activate(owner))
        self.take(owner)
        answer = self.succeed(self.ext(owner, "<activate-nodes><node id='%s'/></activate-nodes>" % self.node))
        self.assertEqual(nodes(answer), {})
        self.assert_quiet(owner)

    def test_a_bulk_activation_opens_its_nodes_and_names_those_that_failed(self):
        owner, key = self.ready("list")
        other = self.key_node(self.client("bob"), self.node + "/bobs")
        self.post(key, "1")
        self.post(other, "2")
        answer = self.succeed(self.ext(owner, "<activate-nodes><node id='%s'/><node id=''/><node id='%s'/>"
                                       "<node id='/missing'/><node id='%s/bobs'/></activate-nodes>"
                                       % (self.node, self.node, self.node)))
        self.assertEqual(nodes(answer), {"/missing": "item-not-found", self.node + "/bobs": "forbidden"})
        self.assertEqual(self.texts(owner, 1), ["1"])
        self.assert_quiet(owner)

    def test_an_empty_bulk_request_is_answered(self):
        owner = self.device("owner")
        for name in ("activate-nodes", "delete-nodes"):
            self.assertEqual(nodes(self.succeed(self.ext(owner, "<%s/>" % name))), {})

    def test_after_a_deactivation_nothing_comes_until_the_next_activation(self):
        owner, key = self.ready("off")
        self.succeed(self.activate(owner))
        self.succeed(self.ext(owner, "<deactivate node='%s'/>" % self.node))
        self.post(key, "1")
        self.assert_quiet(owner)
        self.succeed(self.activate(owner))
        self.assertEqual(self.texts(owner, 1), ["1"])

    def test_a_fresh_activation_sends_the_item_that_waits_however_often_it_was_sent(self):
        owner, key = self.ready("fresh")
        for text in ("1", "2"):
            self.post(key, text)
        for _ in range(3):
            self.succeed(self.activate(owner))
        self.assertEqual(self.texts(owner, 2), ["1", "1"])
        self.assert_quiet(owner)
        for fresh in (lambda: self.activate(owner),
                      lambda: self.ext(owner, "<activate-nodes><node id='%s'/></activate-nodes>" % self.node)):
            self.succeed(self.ext(owner, "<deactivate node='%s'/>" % self.node))
            self.succeed(fresh())
            found = self.take(owner)[0]
            self.assertEqual(found.text, "1")
            self.assert_quiet(owner)
        self.ack(owner, found.id)
        self.assertEqual(self.texts(owner, 1), ["2"])

    def test_an_activation_ends_with_its_session(self):
        owner, key = self.ready("session")
        self.succeed(self.activate(owner))
        owner = self.back(owner, "session")
        self.post(key, "1")
        self.assert_quiet(owner)
        self.succeed(self.ext(owner, "<activate-nodes><node id='%s'/></activate-nodes>" % self.node))
        self.assertEqual(self.texts(owner, 1), ["1"])

    def test_every_device_of_the_owner_activates_for_itself(self):
        owner, key = self.ready("first")
        second = self.device("owner", "second")
        self.succeed(self.activate(second))
        self.succeed(self.ext(second, "<deactivate node='%s'/>" % self.node))
        self.post(key, "1")
        self.succeed(self.activate(owner))
        self.assertEqual(self.texts(owner, 1), ["1"])
        self.assert_quiet(second)
        self.succeed(self.activate(second))
        self.assertEqual(self.texts(second, 1), ["1"])

    def test_creating_or_activating_makes_a_device_without_presence(self):
        owner = self.client("owner", "maker")
        key = self.key_node(owner)
        self.post(key, "1")
        owner.kill()
        owner = self.client("owner", "maker")
        self.succeed(self.activate(owner))
        self.assertEqual(self.texts(owner, 1), ["1"])

    def test_what_cannot_be_activated_is_refused(self):
        owner, _ = self.ready("refused")
        self.refused(self.activate(owner, node="/missing"), "item-not-found")
        self.refused(self.activate(self.client("bob")), "forbidden")
        for number in ("x", "-1", "1.5", " 1", "9" * 21):
            self.refused(self.activate(owner, number), "bad-request")

    def test_an_ordinary_node_can_be_activated_and_sends_what_is_kept_above_the_number(self):
        owner, bob = self.client("owner"), self.device("bob", "plain")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        bob.kill()
        for text in ("1", "2", "3"):
            self.publish(owner, text)
        bob = self.client("bob", "plain")
        self.succeed(self.activate(bob))
        items = self.take(bob, 3)
        self.assertEqual([each.text for each in items], ["1", "2", "3"])
        self.succeed(self.activate(bob, items[0].seq_no))
        self.assertEqual(self.texts(bob, 2), ["2", "3"])

    def test_a_subscribed_device_gets_a_key_nodes_items_without_activation_and_once(self):
        owner, key = self.ready("subscriber")
        bob = self.device("bob", "subscriber")
        for each in (owner, bob):
            self.succeed(self.subscribe(each))
        self.succeed(self.activate(owner))
        self.post(key, "1")
        self.post(key, "2")
        for each in (owner, bob):
            self.assertEqual(self.texts(each, 2), ["1", "2"])
        self.assert_quiet(owner)
        self.assert_quiet(bob)

    def test_what_waits_for_an_activation_goes_before_what_a_subscription_brings(self):
        owner, key = self.ready("mixed")
        self.post(key, "1")
        self.succeed(self.subscribe(owner))
        self.post(key, "2")
        self.assertEqual(self.texts(owner, 2), ["1", "2"])

    def test_a_burst_to_a_client_that_activates_after_each_item_costs_two_deliveries_an_item(self):
        count = 200
        owner, key = self.ready("burst")
        for each in range(count):
            self.assertEqual(self.post(key, str(each))[0], 201)
        self.succeed(self.activate(owner))
        delivered, seen, last = 0, [], 0
        while len(seen) < count:
            found = self.take(owner)[0]
            delivered += 1
            if found.seq_no > last:
                last = found.seq_no
                seen.append(found.text)
            self.ack(owner, found.id)
            owner.send_iq("set", "<activate xmlns='%s' node='%s' seqNo='%d'/>" % (DEVICE, self.node, last))
        self.assertEqual(seen, [str(each) for each in range(count)])
        self.assertLessEqual(delivered, 2 * count)

    def test_nodes_are_deleted_in_bulk_and_a_missing_one_counts_as_deleted(self):
        owner = self.device("owner")
        keys = [self.key_node(owner, "%s/%d" % (self.node, each)) for each in range(3)]
        self.key_node(self.client("bob"), self.node + "/bobs")
        names = ["%s/%d" % (self.node, each) for each in range(3)] + ["/missing", "", self.node + "/bobs"]
        answer = self.succeed(self.ext(owner, "<delete-nodes>%s</delete-nodes>"
                                       % "".join("<node id='%s'/>" % name for name in names)))
        self.assertEqual(nodes(answer), {self.node + "/bobs": "forbidden"})
        self.assertEqual([self.post(key, "late")[0] for key in keys], [404, 404, 404])
