# SPDX-License-Identifier: GPL-3.0-only
"""The standard requests, as devices send them, and the refusals."""
import xmppclient
from harness import ServerTest
from xmppclient import CONFIG, DATA, DEVICE, OWNER, PUBSUB, form

OPTIONS = "http://jabber.org/protocol/pubsub#subscribe_options"


class StandardRequests(ServerTest):
    def test_the_service_tells_of_the_extension_and_not_of_creation_by_publishing(self):
        answer = self.client("bob").iq("get", "<query xmlns='http://jabber.org/protocol/disco#info'/>")
        features = [each.get("var") for each in answer.iter("{http://jabber.org/protocol/disco#info}feature")]
        self.assertIn(DEVICE, features)
        self.assertIn(PUBSUB, features)
        self.assertNotIn(PUBSUB + "#auto-create", features)

    def test_a_node_is_created_with_its_configuration_in_one_request(self):
        owner = self.client("owner")
        self.succeed(self.create(owner, title="My node", access_model="whitelist"))
        answer = self.succeed(self.pubsub(owner, "<configure node='%s'/>" % self.node, "get", OWNER))
        values = {each.get("var"): each.findtext("{%s}value" % DATA) for each in answer.iter("{%s}field" % DATA)}
        self.assertEqual((values["pubsub#title"], values["pubsub#access_model"]), ("My node", "whitelist"))

    def test_the_owner_changes_the_configuration(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        change = "<configure node='%s'>%s</configure>" % (self.node, form(CONFIG, [("pubsub#title", "Changed")]))
        self.succeed(self.pubsub(owner, change, namespace=OWNER))
        answer = self.pubsub(owner, "<configure node='%s'/>" % self.node, "get", OWNER)
        self.assertIn("Changed", xmppclient.xml(answer))

    def test_a_second_node_of_the_name_conflicts(self):
        self.succeed(self.create(self.client("owner")))
        self.refused(self.create(self.client("bob")), "conflict")

    def test_only_the_owner_deletes_a_node(self):
        owner, bob = self.client("owner"), self.client("bob")
        self.succeed(self.create(owner))
        self.refused(self.delete(bob), "forbidden")
        self.succeed(self.delete(owner))
        self.refused(self.delete(owner), "item-not-found")

    def test_publishing_to_a_missing_node_fails_and_makes_none(self):
        owner = self.client("owner")
        self.refused(owner.iq("set", self.publish_stanza("x")), "item-not-found")
        self.refused(self.delete(owner), "item-not-found")

    def test_a_stranger_does_not_publish(self):
        self.succeed(self.create(self.client("owner")))
        self.refused(self.client("bob").iq("set", self.publish_stanza("x")), "forbidden")

    def test_a_subscription_has_an_id_under_which_it_ends(self):
        owner, bob = self.client("owner"), self.client("bob")
        self.succeed(self.create(owner))
        answer = self.succeed(self.subscribe(bob))
        subid = answer.find(".//{%s}subscription" % PUBSUB).get("subid")
        self.assertTrue(subid)
        self.succeed(self.pubsub(bob, "<unsubscribe node='%s' jid='%s' subid='%s'/>" % (self.node, bob.jid, subid)))
        self.publish(owner, "after")
        self.assert_quiet(bob)

    def test_a_subscription_takes_the_options_of_depth_and_type(self):
        owner, bob = self.client("owner"), self.client("bob")
        self.succeed(self.create(owner))
        options = form(OPTIONS, [("pubsub#subscription_depth", "all"), ("pubsub#subscription_type", "items")])
        self.succeed(self.subscribe(bob, more="<options>%s</options>" % options))
        self.publish(owner, "seen")
        self.assertEqual(self.texts(bob, 1), ["seen"])

    def test_a_whitelist_refuses_strangers(self):
        self.succeed(self.create(self.client("owner"), access_model="whitelist"))
        self.refused(self.subscribe(self.client("bob")), "not-allowed")

    def test_nobody_subscribes_somebody_else(self):
        owner, bob = self.client("owner"), self.client("bob")
        self.succeed(self.create(owner))
        self.refused(self.subscribe(bob, jid=owner.jid), "bad-request")

    def test_an_unknown_request_of_the_extension_is_refused(self):
        self.refused(self.ext(self.client("bob"), "<frobnicate node='/n'/>"), "bad-request")
        self.refused(self.ext(self.client("bob"), "<activate node='/n' seqNo='0'/>", "get"), "bad-request")

    def test_presence_to_the_service_is_taken_without_an_answer(self):
        bob = self.client("bob")
        for kind in ("", " type='unavailable'", " type='subscribe'", " type='probe'"):
            bob.send("<presence to='%s'%s/>" % (self.server.pubsub, kind))
        bob.sync()
        with self.assertRaises(AssertionError):
            bob.wait_presence(deadline=0)
