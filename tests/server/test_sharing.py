# SPDX-License-Identifier: GPL-3.0-only
"""Authorisation of subscribers, pending requests, and collections."""
import xmppclient
from harness import ServerTest
from xmppclient import CONFIG, DATA, EVENT, OWNER, PUBSUB, form

COMMANDS = "http://jabber.org/protocol/commands"
GET_PENDING = "http://jabber.org/protocol/pubsub#get-pending"
AUTHORISE = "http://jabber.org/protocol/pubsub#subscribe_authorization"


def fields(message):
    """The values of the form in a message, by variable."""
    return {each.get("var"): each.findtext("{%s}value" % DATA) for each in message.iter("{%s}field" % DATA)}


def is_form(message):
    found = message.find("{%s}x" % DATA)
    return found is not None and found.get("type") == "form"


def subscription(message):
    return message.find("{%s}event/{%s}subscription" % (EVENT, EVENT))


class Authorisation(ServerTest):
    def pending(self, resource):
        owner = self.device("owner", resource)
        self.succeed(self.create(owner, access_model="authorize"))
        bob = self.device("bob", resource)
        answer = self.succeed(self.subscribe(bob))
        found = answer.find(".//{%s}subscription" % PUBSUB)
        self.assertEqual(found.get("subscription"), "pending")
        return owner, bob, found.get("subid")

    def approve(self, owner, asked, allow):
        values = fields(asked)
        answer = form(AUTHORISE, [("pubsub#subid", values["pubsub#subid"]), ("pubsub#node", values["pubsub#node"]),
                                  ("pubsub#subscriber_jid", values["pusub#subscriber_jid"]),
                                  ("pubsub#allow", allow)])
        owner.send("<message to='%s' id='%s'>%s</message>" % (self.server.pubsub, asked.get("id"), answer))

    def test_the_form_has_an_id_the_subscription_and_the_subscriber_under_both_names(self):
        owner, bob, subid = self.pending("form")
        asked = owner.wait_message(is_form)
        values = fields(asked)
        self.assertTrue(asked.get("id"))
        self.assertTrue(subid)
        self.assertEqual(values["FORM_TYPE"], AUTHORISE)
        self.assertEqual(values["pubsub#node"], self.node)
        self.assertEqual(values["pubsub#subid"], subid)
        self.assertEqual(values["pubsub#subscriber_jid"], bob.jid)
        self.assertEqual(values["pusub#subscriber_jid"], bob.jid)
        self.assertIn("pubsub#allow", values)

    def test_the_form_reaches_every_device_of_the_owner_once(self):
        second, third = self.device("owner", "second"), self.client("owner", "third", presence="")
        self.announce(third)
        owner, _, _ = self.pending("first")
        found = [each.wait_message(is_form).get("id") for each in (owner, second, third)]
        self.assertEqual(len(set(found)), 1)
        for each in (owner, second, third):
            self.assert_quiet(each)

    def test_an_approved_subscriber_is_told_and_gets_items(self):
        owner, bob, _ = self.pending("allow")
        self.approve(owner, owner.wait_message(is_form), "true")
        told = subscription(bob.wait_message(lambda each: subscription(each) is not None))
        self.assertEqual((told.get("node"), told.get("jid"), told.get("subscription")),
                         (self.node, bob.jid, "subscribed"))
        self.publish(owner, "1")
        self.assertEqual(self.texts(bob, 1), ["1"])

    def test_a_refused_subscriber_is_told_and_gets_nothing(self):
        owner, bob, _ = self.pending("deny")
        self.approve(owner, owner.wait_message(is_form), "false")
        told = subscription(bob.wait_message(lambda each: subscription(each) is not None))
        self.assertEqual(told.get("subscription"), "none")
        self.publish(owner, "1")
        self.assert_quiet(bob)

    def test_nobody_but_the_owner_approves(self):
        owner, bob, _ = self.pending("thief")
        asked = owner.wait_message(is_form)
        self.approve(bob, asked, "true")
        refused = bob.wait_message(lambda each: each.get("type") == "error")
        self.assertEqual(xmppclient.condition(refused), "forbidden")
        self.publish(owner, "1")
        self.assert_quiet(bob)

    def test_the_pending_requests_are_listed_and_asked_again_for_a_node(self):
        owner, bob, subid = self.pending("list")
        owner.wait_message(is_form)
        listed = self.succeed(owner.iq("set", "<command xmlns='%s' node='%s' action='execute'/>"
                                       % (COMMANDS, GET_PENDING)))
        command = listed.find("{%s}command" % COMMANDS)
        nodes = {each.text for each in command.iter("{%s}value" % DATA)}
        self.assertIn(self.node, nodes)
        self.assertTrue(command.get("sessionid"))
        answer = form(AUTHORISE, [("pubsub#node", self.node)])
        self.succeed(owner.iq("set", "<command xmlns='%s' node='%s' action='execute' sessionid='%s'>%s</command>"
                              % (COMMANDS, GET_PENDING, command.get("sessionid"), answer)))
        asked = fields(owner.wait_message(is_form))
        self.assertEqual((asked["pubsub#subid"], asked["pusub#subscriber_jid"]), (subid, bob.jid))

    def test_somebody_else_sees_no_pending_requests(self):
        self.pending("private")
        carol = self.client("carol")
        answer = form(AUTHORISE, [("pubsub#node", self.node)])
        self.refused(carol.iq("set", "<command xmlns='%s' node='%s' action='execute' sessionid='x'>%s</command>"
                              % (COMMANDS, GET_PENDING, answer)), "forbidden")


class Collections(ServerTest):
    def collection(self, owner, name, **config):
        self.succeed(self.create(owner, name, node_type="collection", **config))

    def test_an_item_of_a_leaf_reaches_the_subscribers_of_its_collection(self):
        owner, bob = self.client("owner"), self.device("bob", "leaf")
        self.collection(owner, self.node)
        leaf = self.node + "/leaf"
        self.succeed(self.create(owner, leaf, collection=self.node))
        self.succeed(self.subscribe(bob))
        self.publish(owner, "1", "one", node=leaf)
        found = self.take(bob, node=leaf)[0]
        self.assertEqual((found.node, found.id, found.text), (leaf, "one", "1"))

    def test_what_comes_through_a_collection_is_kept_and_acknowledged_under_the_leaf(self):
        owner, bob = self.client("owner"), self.device("bob", "kept")
        self.collection(owner, self.node)
        leaf = self.node + "/leaf"
        self.succeed(self.create(owner, leaf, collection=self.node))
        self.succeed(self.subscribe(bob, jid=bob.bare))
        self.publish(owner, "1", "one", node=leaf)
        self.publish(owner, "2", "two", node=leaf)
        self.take(bob, 2, node=leaf)
        self.ack(bob, "one", node=leaf)
        bob.sync()
        bob.kill()
        bob = self.device("bob", "kept")
        self.assertEqual(self.texts(bob, 1, node=leaf), ["2"])

    def test_a_subscriber_of_leaf_and_collection_gets_one_copy(self):
        owner, bob = self.client("owner"), self.device("bob", "both")
        self.collection(owner, self.node)
        leaf = self.node + "/leaf"
        self.succeed(self.create(owner, leaf, collection=self.node))
        self.succeed(self.subscribe(bob))
        self.succeed(self.subscribe(bob, node=leaf))
        self.publish(owner, "1", node=leaf)
        self.take(bob, node=leaf)
        self.assert_quiet(bob, node=leaf)

    def test_collections_nest_and_a_ring_of_them_ends(self):
        owner, bob = self.client("owner"), self.device("bob", "nest")
        top, middle, leaf = self.node, self.node + "/middle", self.node + "/leaf"
        self.collection(owner, top)
        self.collection(owner, middle, collection=top)
        self.succeed(self.create(owner, leaf, collection=middle))
        change = "<configure node='%s'>%s</configure>" % (top, form(CONFIG, [("pubsub#collection", middle)]))
        self.succeed(self.pubsub(owner, change, namespace=OWNER))
        self.succeed(self.subscribe(bob))
        self.publish(owner, "1", node=leaf)
        self.assertEqual(self.texts(bob, 1, node=leaf), ["1"])
        self.assert_quiet(bob, node=leaf)

    def test_a_leaf_is_not_put_into_what_is_missing_or_no_collection(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        self.refused(self.create(owner, self.node + "/a", collection="/missing"), "item-not-found")
        self.refused(self.create(owner, self.node + "/b", collection=self.node), "item-not-found")

    def test_a_collection_takes_no_nodes_of_others_unless_its_owner_allows_it(self):
        owner, bob = self.client("owner"), self.client("bob")
        self.collection(owner, self.node)
        self.refused(self.create(bob, self.node + "/a", collection=self.node), "forbidden")
        self.collection(owner, self.node + "/open", children_association_policy="all")
        self.succeed(self.create(bob, self.node + "/b", collection=self.node + "/open"))

    def test_a_name_made_anew_by_somebody_else_hands_nothing_out(self):
        owner, bob = self.client("owner"), self.device("bob", "heir")
        self.collection(owner, self.node)
        leaf = self.node + "/leaf"
        self.succeed(self.create(owner, leaf, collection=self.node))
        self.succeed(self.delete(owner))
        self.collection(bob, self.node)
        self.succeed(self.subscribe(bob))
        self.publish(owner, "secret", node=leaf)
        self.assert_quiet(bob, node=leaf)

    def test_deleting_a_collection_leaves_its_leaves(self):
        owner, bob = self.client("owner"), self.device("bob", "left")
        self.collection(owner, self.node)
        leaf = self.node + "/leaf"
        self.succeed(self.create(owner, leaf, collection=self.node))
        self.succeed(self.delete(owner))
        self.succeed(self.subscribe(bob, node=leaf))
        self.publish(owner, "1", node=leaf)
        self.assertEqual(self.texts(bob, 1, node=leaf), ["1"])
