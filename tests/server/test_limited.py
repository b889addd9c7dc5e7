# SPDX-License-Identifier: GPL-3.0-only
"""Nodes of which a session wants one open item at a time, and how many items wait."""
from xml.sax.saxutils import quoteattr

import xmppclient
from harness import ServerTest
from xmppclient import DEVICE, PUBSUB


class LimitTest(ServerTest):
    def subscribed(self, resource, count=0, node=None):
        """A node of the owner, with items for bob's device, which is absent. Returns the owner."""
        owner, bob = self.client("owner"), self.device("bob", resource)
        self.succeed(self.create(owner, node))
        self.succeed(self.subscribe(bob, node=node))
        bob.kill()
        self.settle(node=node)
        for each in range(1, count + 1):
            self.publish(owner, str(each), str(each), node)
        return owner

    def limit(self, client, since=0, node=None):
        return self.ext(client, "<activate node=%s seqNo='%s' limit='1'/>" % (quoteattr(node or self.node), since))

    def limit_all(self, client, *nodes):
        """The nodes for which the request failed, with their conditions."""
        return self.bulk(client, "".join("<node id=%s limit='1'/>" % quoteattr(each) for each in nodes))

    def bulk(self, client, entries):
        answer = self.succeed(self.ext(client, "<activate-nodes>%s</activate-nodes>" % entries))
        return {each.get("id"): each.get("error") for each in answer.iter("{%s}node" % DEVICE)}

    def deactivate(self, client, node=None):
        self.succeed(self.ext(client, "<deactivate node=%s/>" % quoteattr(node or self.node)))

    def limited(self, resource, *nodes):
        """Bob's device, announced, with a limit on the nodes."""
        bob = self.client("bob", resource)
        self.assertEqual(self.limit_all(bob, *(nodes or (self.node,))), {})
        self.announce(bob)
        return bob

    def assert_one(self, client, text, node=None):
        """One item of the node has come, and no other. Returns it."""
        found = self.take(client, 1, node)[0]
        self.assertEqual(found.text, text)
        self.assert_quiet(client, node)
        return found

    def number_ack(self, client, found):
        client.send("<message to='%s'><ack xmlns='%s' node=%s id=%s seqNo='%d'/></message>"
                    % (self.server.pubsub, DEVICE, quoteattr(found.node), quoteattr(found.id), found.seq_no))

    def drain(self, client, texts, node=None):
        """Exactly these items come, one after the other, each after the acknowledgement of the one before."""
        for text in texts:
            self.ack(client, self.assert_one(client, text, node).id, node)
        self.assert_quiet(client, node)

    def waiting(self, client, *nodes):
        entries = "".join("<node id=%s/>" % quoteattr(each) for each in nodes)
        answer = self.succeed(self.ext(client, "<waiting>%s</waiting>" % entries, "get"))
        return [(each.get("id"), int(each.get("count"))) for each in answer.iter("{%s}node" % DEVICE)]


class Limited(LimitTest):
    def test_kept_items_come_one_by_one_each_after_the_acknowledgement_and_then_live_ones(self):
        owner = self.subscribed("kept", 3)
        bob = self.limited("kept")
        self.assert_one(bob, "1")
        self.publish(owner, "4", "4")
        self.assert_quiet(bob)
        self.ack(bob, "1")
        self.drain(bob, ["2", "3", "4"])
        self.publish(owner, "5", "5")
        self.drain(bob, ["5"])

    def test_a_limit_before_the_announcement_announces_nothing(self):
        owner = self.subscribed("early", 2)
        bob = self.client("bob", "early")
        self.succeed(self.limit(bob))
        self.publish(owner, "3", "3")
        self.assert_quiet(bob)
        self.announce(bob)
        self.drain(bob, ["1", "2", "3"])

    def test_items_of_other_nodes_come_with_the_announcement_as_before(self):
        other = self.node + "/other"
        self.subscribed("others", 3)
        self.subscribed("others", 3, other)
        bob = self.limited("others")
        self.assertEqual(self.texts(bob, 3, other), ["1", "2", "3"])
        self.assert_one(bob, "1")

    def test_a_request_with_and_without_limits_announces_and_keeps_the_limits(self):
        other = self.node + "/other"
        self.subscribed("mixed", 3)
        self.subscribed("mixed", 3, other)
        bob = self.client("bob", "mixed")
        self.assertEqual(self.bulk(bob, "<node id='%s' limit='1'/><node id='%s'/>" % (self.node, other)), {})
        self.assertEqual(self.texts(bob, 3, other), ["1", "2", "3"])
        self.drain(bob, ["1", "2", "3"])

    def test_a_limit_begins_with_the_oldest_item_whatever_was_sent_before(self):
        self.subscribed("begin", 3)
        bob = self.device("bob", "begin")
        self.assertEqual(self.texts(bob, 3), ["1", "2", "3"])
        self.succeed(self.limit(bob))
        self.assert_one(bob, "1")
        self.ack(bob, "2")
        self.assert_quiet(bob)  # it was sent before and is no more; the open one stays open
        self.ack(bob, "1")
        self.assert_one(bob, "3")
        self.ack(bob, "1")  # the second transmission of what is gone
        self.assert_quiet(bob)

    def test_a_limit_with_a_number_begins_above_it(self):
        self.subscribed("above", 4)
        first = self.take(self.device("bob", "above"), 4)
        bob = self.client("bob", "above")
        self.succeed(self.limit(bob, first[1].seq_no))
        self.announce(bob)
        self.assert_one(bob, "3")
        self.succeed(self.limit(bob, first[2].seq_no))
        self.drain(bob, ["4"])

    def test_asking_again_sends_the_open_item_again_and_in_bulk_nothing(self):
        self.subscribed("again", 2)
        bob = self.limited("again")
        self.assert_one(bob, "1")
        for _ in range(3):
            self.succeed(self.limit(bob))
            self.assert_one(bob, "1")
        self.assertEqual(self.limit_all(bob, self.node), {})
        self.announce(bob)
        self.assert_quiet(bob)

    def test_a_deactivation_gives_the_open_item_back_and_closes_the_node(self):
        owner = self.subscribed("closed", 2)
        bob = self.limited("closed")
        self.assert_one(bob, "1")
        for _ in range(2):
            self.deactivate(bob)
            self.publish(owner, "more")
            self.announce(bob)
            self.assert_quiet(bob)
        self.assertEqual(self.limit_all(bob, self.node), {})
        self.drain(bob, ["1", "2", "more", "more"])

    def test_what_is_acknowledged_after_the_deactivation_does_not_come_again(self):
        self.subscribed("late", 2)
        bob = self.limited("late")
        self.assert_one(bob, "1")
        self.deactivate(bob)
        self.ack(bob, "1")
        self.ack(bob, "1")
        self.wait_for(lambda: self.waiting(bob, self.node) == [(self.node, 1)])
        self.assert_quiet(bob)
        self.succeed(self.limit(bob))
        self.drain(bob, ["2"])

    def test_an_activation_without_a_limit_sends_everything(self):
        owner = self.subscribed("lifted", 3)
        plain = "<node id='%s'/>" % self.node
        for close, lift in ((False, lambda: self.bulk(bob, plain)), (True, lambda: self.bulk(bob, plain)),
                            (False, lambda: self.succeed(self.activate(bob))),
                            (True, lambda: self.succeed(self.activate(bob)))):
            bob = self.limited("lifted")
            self.assert_one(bob, "1")
            if close:
                self.deactivate(bob)
            lift()
            self.assertEqual(self.texts(bob, 3), ["1", "2", "3"])
            self.publish(owner, "live", "live")
            self.assertEqual(self.texts(bob, 1), ["live"])
            self.assert_quiet(bob)
            self.ack(bob, "live")
            self.wait_for(lambda bob=bob: self.waiting(bob, self.node) == [(self.node, 3)])
            bob.kill()

    def test_the_limit_is_the_sessions_and_the_next_one_gets_everything(self):
        self.subscribed("ends", 3)
        for end in (lambda: bob.kill(), lambda: None):  # the second one is replaced by the next session
            bob = self.limited("ends")
            self.assert_one(bob, "1")
            end()
            new = self.device("bob", "ends")
            self.assertEqual(self.texts(new, 3), ["1", "2", "3"])
            new.kill()

    def test_a_session_that_replaces_another_one_keeps_its_own_limits(self):
        for turn in range(5):  # the old session may end before the new one sets its limit, or after
            node, resource = "%s/%d" % (self.node, turn), "taken%d" % turn
            self.subscribed(resource, 3, node)
            old = self.limited(resource, node)
            self.assert_one(old, "1", node)
            new = self.limited(resource, node)
            old.wait_end()
            self.assert_one(new, "1", node)
            self.ack(new, "1", node)
            self.assert_one(new, "2", node)

    def test_a_goodbye_ends_the_limit_also_of_a_node_of_which_nothing_was_sent(self):
        other = self.node + "/other"
        self.subscribed("bye", 3)
        owner = self.subscribed("bye", 0, other)
        bob = self.limited("bye", self.node, other)
        self.assert_one(bob, "1")
        bob.send("<presence to='%s' type='unavailable'/>" % self.server.pubsub)
        self.announce(bob)
        self.assertEqual(self.texts(bob, 3), ["1", "2", "3"])
        for text in ("1", "2"):
            self.publish(owner, text, node=other)
        self.assertEqual(self.texts(bob, 2, other), ["1", "2"])

    def test_other_devices_are_not_limited(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        one, two = self.device("bob", "one"), self.device("bob", "two")
        self.succeed(self.subscribe(one, jid=one.bare))
        self.succeed(self.limit(one))
        for text in ("1", "2", "3"):
            self.publish(owner, text, text)
        self.assertEqual(self.texts(two, 3), ["1", "2", "3"])
        self.drain(one, ["1", "2", "3"])

    def test_an_open_item_holds_back_its_own_node_alone(self):
        names = ["%s/%d" % (self.node, each) for each in range(20)]
        owner, bob = self.client("owner"), self.device("bob", "many")
        for name in names:
            self.succeed(self.create(owner, name))
            self.succeed(self.subscribe(bob, node=name))
        self.assertEqual(self.limit_all(bob, *names), {})
        for text in ("1", "2"):
            for name in names:
                self.publish(owner, text, text, name)
        for name in names:
            self.assertEqual(self.texts(bob, 1, name), ["1"])
        self.ack(bob, "1", names[7])
        self.assert_one(bob, "2", names[7])

    def test_values_other_than_one_are_refused_and_of_repeated_names_the_limit_counts(self):
        for value in ("0", "2", "01", "x", "", " 1"):
            answer = self.ext(self.client("bob"), "<activate node='%s' limit='%s'/>" % (self.node, value))
            self.refused(answer, "bad-request")
        names = [self.node + each for each in ("", "/wrong", "/plain")]
        for name in names:
            self.subscribed("values", 2, name)
        bob = self.client("bob", "values")
        self.assertEqual(self.bulk(bob, "<node id='%s'/><node id='%s' limit='2'/><node id='%s'/><node limit='1'/>"
                                   "<node id='/none' limit='1'/><node id='%s' limit='1'/><node id='%s' limit='1'/>"
                                   "<node id='%s'/>"
                                   % (names[0], names[1], names[2], names[0], names[1], names[0])),
                         {names[1]: "bad-request", "/none": "item-not-found"})
        self.assertEqual(self.texts(bob, 2, names[2]), ["1", "2"])
        self.assert_one(bob, "1", names[0])
        self.announce(bob)
        self.assertEqual(self.texts(bob, 2, names[1]), ["1", "2"])

    def test_a_device_that_gets_an_item_for_several_reasons_gets_one_at_a_time(self):
        owner = self.client("owner", "reasons")
        key = self.key_node(owner)
        for jid in (owner.jid, owner.bare):
            self.succeed(self.subscribe(owner, jid=jid))
        self.succeed(self.limit(owner))
        for text in ("1", "2", "3"):
            self.assertEqual(self.post(key, text)[0], 201)
        found = self.assert_one(owner, "1")
        self.ack(owner, found.id)
        self.assert_one(owner, "2")
        self.deactivate(owner)
        self.assertEqual(self.post(key, "4")[0], 201)
        self.assert_quiet(owner)
        self.succeed(self.activate(owner))
        self.assertEqual(self.texts(owner, 3), ["2", "3", "4"])
        self.assert_quiet(owner)

    def test_a_key_node_is_activated_with_a_limit_like_without(self):
        owner = self.client("owner", "key")
        key = self.key_node(owner)
        owner.kill()
        for text in ("1", "2"):
            self.assertEqual(self.post(key, text)[0], 201)
        owner = self.client("owner", "key")
        self.assertEqual(self.limit_all(owner, self.node), {})
        self.assert_quiet(owner)
        self.announce(owner)
        found = self.assert_one(owner, "1")
        self.ack(owner, found.id)
        self.assert_one(owner, "2")

    def test_a_limit_on_nodes_of_others_brings_nothing_and_tells_nothing(self):
        owner = self.subscribed("whose", 2)
        self.key_node(owner, "/owner/machine/key")
        carol = self.device("carol", "whose")
        for refused in ("/owner/machine/key", "/owner/machine/unused"):
            self.refused(self.limit(carol, node=refused), "forbidden")
        self.refused(self.limit(carol, node="/missing"), "item-not-found")
        self.succeed(self.limit(carol))
        self.publish(owner, "3", "3")
        self.assert_quiet(carol)
        self.assertEqual(self.waiting(carol, self.node, "/owner/machine/key"),
                         [(self.node, 0), ("/owner/machine/key", 0)])
        bob = self.device("bob", "whose")
        self.assertEqual(self.texts(bob, 3), ["1", "2", "3"])

    def test_a_limit_ends_with_its_node(self):
        owner = self.subscribed("deleted", 2)
        bob = self.limited("deleted")
        self.assert_one(bob, "1")
        self.succeed(self.delete(owner))
        self.ack(bob, "1")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        for text in ("3", "4"):
            self.publish(owner, text, text)
        self.assertEqual(self.texts(bob, 2), ["3", "4"])

    def test_what_has_no_payload_is_sent_past_the_limit_and_not_while_the_node_is_closed(self):
        self.subscribed("bare", 2)
        owner, bob = self.client("owner"), self.limited("bare")
        self.assert_one(bob, "1")
        bare = "<publish node='%s'><item id='bare'><entry xmlns='urn:x'/></item></publish>" % self.node
        self.succeed(self.pubsub(owner, bare))
        self.assertIsNone(self.take(bob)[0].text)
        self.deactivate(bob)
        self.succeed(self.pubsub(owner, bare))
        self.assert_quiet(bob)
        self.succeed(self.limit(bob))
        self.assert_one(bob, "1")

    def test_an_open_item_comes_again_after_the_server_was_killed(self):
        self.subscribed("killed", 2)
        bob = self.limited("killed")
        before = self.assert_one(bob, "1")
        self.instance.kill()
        self.instance.start()
        bob = self.limited("killed")
        self.assertEqual(self.assert_one(bob, "1"), before)
        self.ack(bob, "1")
        self.drain(bob, ["2"])

    def test_a_subscription_that_sends_the_last_item_sends_it_within_the_limit(self):
        owner, bob = self.client("owner"), self.device("bob", "last")
        self.succeed(self.create(owner, send_last_published_item="on_sub"))
        self.publish(owner, "1", "1")
        self.succeed(self.limit(bob))
        self.succeed(self.subscribe(bob))
        self.publish(owner, "2", "2")
        self.drain(bob, ["1", "2"])


class Numbers(LimitTest):
    """Acknowledgements that name the number, of items whose ids are all the same."""

    def same(self, resource):
        owner = self.subscribed(resource)
        for text in ("1", "2", "3"):
            self.publish(owner, text, "same")

    def test_a_number_refers_to_all_transmissions_of_its_copy(self):
        self.same("numbers")
        bob = self.limited("numbers")
        first = self.assert_one(bob, "1")
        self.succeed(self.limit(bob))
        self.assert_one(bob, "1")
        self.number_ack(bob, first)
        second = self.assert_one(bob, "2")
        for wrong in (second.seq_no + 10 ** 6, 0):
            self.number_ack(bob, second._replace(seq_no=wrong))
        bob.send("<message to='%s'><ack xmlns='%s' node='%s' id='same' seqNo='x'/></message>"
                 % (self.server.pubsub, DEVICE, self.node))
        self.assert_quiet(bob)
        self.ack(bob, "same")  # without a number: the oldest that is left
        third = self.assert_one(bob, "3")
        for each in (first, second, third):
            self.number_ack(bob, each)
        self.assert_quiet(bob)
        self.wait_for(lambda: self.waiting(bob, self.node) == [(self.node, 0)])

    def test_a_number_takes_its_copy_from_among_many(self):
        self.same("among")
        bob = self.device("bob", "among")
        items = self.take(bob, 3)
        self.number_ack(bob, items[1])
        self.wait_for(lambda: self.waiting(bob, self.node) == [(self.node, 2)])
        bob.kill()
        self.assertEqual(self.texts(self.device("bob", "among"), 2), ["1", "3"])


class Waiting(LimitTest):
    def test_the_counts_are_those_of_the_asking_device_in_the_order_asked(self):
        names = [self.node + each for each in ("/b", "/a", "/\u00e4 & '<")]
        for count, name in enumerate(names, 1):
            self.subscribed("counts", count, name)
        bob, other = self.client("bob", "counts"), self.client("bob", "other")
        asked = [names[2], "/missing", names[0], names[1], names[0], self.node]
        self.assertEqual(self.waiting(bob, *asked), list(zip(asked, (3, 0, 1, 2, 1, 0))))
        for client in (other, self.client("owner"), self.client("carol", "counts")):
            self.assertEqual(self.waiting(client, *asked), list(zip(asked, [0] * 6)))
        self.assertEqual(self.waiting(bob), [])
        self.assertEqual(self.waiting(bob, "", names[0]), [(names[0], 1)])
        self.refused(self.ext(bob, "<waiting><node id='%s'/></waiting>" % names[0]), "bad-request")

    def test_an_open_item_counts_until_it_is_acknowledged(self):
        self.subscribed("open", 2)
        bob = self.limited("open")
        self.assert_one(bob, "1")
        self.assertEqual(self.waiting(bob, self.node), [(self.node, 2)])
        self.ack(bob, "1")
        self.wait_for(lambda: self.waiting(bob, self.node) == [(self.node, 1)])
        self.deactivate(bob)
        self.assertEqual(self.waiting(bob, self.node), [(self.node, 1)])

    def test_a_stanza_full_of_names_is_answered(self):
        self.subscribed("full", 1)
        bob = self.client("bob", "full")
        asked = ["/%05d" % each for each in range(10000)] + [self.node]
        self.assertEqual(self.waiting(bob, *asked), [(each, 0) for each in asked[:-1]] + [(self.node, 1)])


class Dropped(LimitTest):
    options = ("max_kept_node=3",)

    def test_when_the_open_item_is_dropped_the_next_one_still_waits_for_its_acknowledgement(self):
        owner = self.subscribed("dropped", 1)
        bob = self.limited("dropped")
        self.assert_one(bob, "1")
        for text in ("2", "3", "4", "5"):
            self.publish(owner, text, text)
        self.assert_quiet(bob)
        self.ack(bob, "1")
        self.drain(bob, ["3", "4", "5"])


class Bounds(LimitTest):
    options = ("max_nodes=3", "max_keys=3")

    def test_a_session_has_twice_as_many_limits_as_an_account_has_nodes(self):
        names = []
        for user in ("owner", "bob", "carol"):
            client = self.client(user)
            for each in range(3):
                names.append("%s/%s %d" % (self.node, user, each))
                self.succeed(self.create(client, names[-1]))
        first, second = self.client("bob", "first"), self.client("bob", "second")
        refused = self.limit_all(first, *names)
        self.assertEqual(set(refused.values()), {"resource-constraint"})
        self.assertEqual(len(refused), 3)
        accepted = [name for name in names if name not in refused]
        self.assertEqual(self.limit_all(first, *accepted), {})
        self.refused(self.limit(first, node=sorted(refused)[0]), "resource-constraint")
        self.deactivate(first, accepted[0])
        self.refused(self.limit(first, node=sorted(refused)[0]), "resource-constraint")
        self.assertEqual(self.limit_all(second, *names[:6]), {})
        self.assertEqual(self.limit_all(second, names[0]), {})


class Room(LimitTest):
    options = ("max_nodes=3", "max_keys=3")

    def test_limits_of_deleted_nodes_make_room(self):
        owner, bob = self.client("owner"), self.client("bob")
        for turn in range(4):
            names = ["%s/%d %d" % (self.node, turn, each) for each in range(3)]
            for name in names:
                self.succeed(self.create(owner, name))
            self.assertEqual(self.limit_all(bob, *names), {})
            for name in names:
                self.succeed(self.delete(owner, name))


class StateTest(LimitTest):
    """A server whose memory can be looked at."""

    member = "127.0.0.1"

    def size(self):
        return int(self.instance.evaluate("mnesia:table_info(pubsub_device_active, size)"))

    def session(self, client):
        user, rest = client.jid.split("@")
        return ("ejabberd_sm:get_session_pid(<<\"%s\">>, <<\"%s\">>, <<\"%s\">>)"
                % (user, *rest.split("/")))

    def sender(self, resource):
        """The name of the process that sends the items of the test's node to bob's device."""
        return self.instance.evaluate(
            "element(1, pubsub_device_sender:locate({<<\"%s\">>, <<\"%s\">>}, "
            "{<<\"bob\">>, <<\"localhost\">>, <<\"%s\">>}))" % (self.server.pubsub, self.node, resource))


class State(StateTest):
    def test_ten_thousand_limits_end_with_their_session_announced_or_not(self):
        count = 10000
        names = ["%s/%d" % (self.node, each) for each in range(count)]
        owner = self.client("owner")
        for part in range(0, count, 500):
            for request in [owner.send_iq("set", "<pubsub xmlns='%s'><create node='%s'/></pubsub>" % (PUBSUB, name))
                            for name in names[part:part + 500]]:
                self.succeed(owner.wait_iq(request, 60))
        before = self.size()
        for announced in (False, True):
            bob = self.device("bob", "many") if announced else self.client("bob", "many")
            for part in range(0, count, 2000):
                self.assertEqual(self.limit_all(bob, *names[part:part + 2000]), {})
            self.settle(bob, node=names[0])
            self.assertEqual(self.size() - before, count)
            memory = int(self.instance.evaluate("element(2, process_info(%s, memory))" % self.session(bob)))
            self.assertLess(memory, 20000000)
            bob.kill()
            self.wait_for(lambda: self.size() == before)

    def test_two_bulk_requests_in_a_row_send_the_open_item_once(self):
        self.subscribed("row", 2)
        bob = self.device("bob", "row")
        self.assertEqual(self.texts(bob, 2), ["1", "2"])
        sender = self.sender("row")
        self.instance.evaluate("sys:suspend(%s)" % sender)
        for _ in range(2):
            self.assertEqual(self.limit_all(bob, self.node), {})
        self.instance.evaluate("sys:resume(%s)" % sender)
        self.assert_one(bob, "1")

    def test_a_session_that_ends_late_leaves_the_limits_of_the_next_one(self):
        self.subscribed("late", 3)
        old = self.limited("late")
        self.assert_one(old, "1")
        before = self.instance.evaluate("Session = %s, sys:suspend(Session), pid_to_list(Session)" % self.session(old))
        new = self.limited("late")
        self.assert_one(new, "1")
        self.instance.evaluate("sys:resume(list_to_pid(%s))" % before)
        old.wait_end()
        self.wait_for(lambda: self.instance.evaluate("is_process_alive(list_to_pid(%s))" % before) == "false")
        self.ack(new, "1")
        self.drain(new, ["2", "3"])

    def test_a_limit_of_a_replaced_session_that_comes_late_does_not_hold_for_the_new_one(self):
        self.subscribed("stale", 3)
        old = self.device("bob", "stale")
        self.assertEqual(self.texts(old, 3), ["1", "2", "3"])
        sender = self.sender("stale")
        self.instance.evaluate("sys:suspend(%s)" % sender)
        self.assertEqual(self.limit_all(old, self.node), {})
        new = self.device("bob", "stale")
        old.wait_end()
        self.instance.evaluate("sys:resume(%s)" % sender)
        self.assertEqual(self.texts(new, 3), ["1", "2", "3"])

    def test_a_sender_that_is_restarted_sends_no_other_item_than_the_open_one(self):
        owner = self.subscribed("restarted", 3)
        bob = self.limited("restarted")
        self.assert_one(bob, "1")
        sender = self.sender("restarted")
        for text in ("4", "5"):
            before = self.instance.evaluate("whereis(%s)" % sender)
            self.instance.evaluate("exit(whereis(%s), kill)" % sender)
            self.wait_for(lambda before=before: self.instance.evaluate("whereis(%s)" % sender)
                          not in (before, "undefined"))
            self.publish(owner, text, text)
            self.settle(bob)
            again = [xmppclient.item(each) for each in bob.messages()]
            self.assertEqual({each.text for each in again} - {"1"}, set())
        first = again[0]
        self.number_ack(bob, first)
        self.drain(bob, ["2", "3", "4", "5"])


class Swept(StateTest):
    options = ("sweep_interval=1",)

    def test_limits_of_a_session_that_died_are_swept_and_others_stay(self):
        self.subscribed("swept", 2)
        before = self.size()
        silent, bob = self.client("bob", "silent"), self.limited("swept")
        self.succeed(self.limit(silent))
        self.assert_one(bob, "1")
        self.assertEqual(self.size() - before, 2)
        self.instance.evaluate("exit(%s, kill)" % self.session(bob))
        self.wait_for(lambda: self.size() - before == 1)
        self.instance.evaluate("pubsub_device_sweep ! sweep, sys:get_state(pubsub_device_sweep)")
        self.assertEqual(self.size() - before, 1)
        silent.kill()
        self.wait_for(lambda: self.size() == before)
