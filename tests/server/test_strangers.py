# SPDX-License-Identifier: GPL-3.0-only
"""What another account may not do: take names, subscribe others, and learn of other accounts' nodes."""
import xmppclient
from harness import ServerTest
from xmppclient import CONFIG, DATA, OWNER, PUBSUB, STANZAS, condition, form

COMMANDS = "http://jabber.org/protocol/commands"
GET_PENDING = "http://jabber.org/protocol/pubsub#get-pending"
AUTHORISE = "http://jabber.org/protocol/pubsub#subscribe_authorization"
INFO = "http://jabber.org/protocol/disco#info"
ITEMS = "http://jabber.org/protocol/disco#items"
RULE = "/U/R/..."


def text(answer):
    return answer.findtext(".//%stext" % STANZAS) or ""


class Names(ServerTest):
    options = ('open_prefixes=["/shared", "/open/room/"]',)

    def configure(self, client, node, collection):
        change = "<configure node='%s'>%s</configure>" % (node, form(CONFIG, [("pubsub#collection", collection)]))
        return self.pubsub(client, change, namespace=OWNER)

    def refused_by_the_rule(self, answer):
        self.refused(answer, "forbidden")
        self.assertIn(RULE, text(answer))

    def test_a_name_of_three_segments_is_made_by_its_account_alone(self):
        bob, owner = self.client("bob"), self.client("owner")
        for name in ("/owner/d/names", "/owner/d/com.example/names/deep"):
            self.refused_by_the_rule(self.create(bob, name))
            self.refused_by_the_rule(self.ext(bob, "<create-key-node node='%s'/>" % name))
            self.succeed(self.create(owner, name))
        self.key_node(owner, "/owner/d/names/key")

    def test_the_name_of_an_account_that_is_not_there_yet_is_nobodys(self):
        for client in (self.client("bob"), self.client("owner")):
            self.refused_by_the_rule(self.create(client, "/later/d/names"))
        self.instance.register("later")
        self.succeed(self.create(self.client("later"), "/later/d/names"))

    def test_the_refusal_is_the_same_whether_the_name_is_in_use_or_not(self):
        bob, owner = self.client("bob"), self.client("owner")
        self.key_node(owner, "/owner/d/used")
        for request in ("<create-key-node node='%s'/>", "<activate node='%s'/>"):
            used, free = (self.ext(bob, request % name) for name in ("/owner/d/used", "/owner/d/free"))
            self.assertEqual((condition(used), text(used)), (condition(free), text(free)))
            self.refused(used, "forbidden")
        used, free = (self.ext(bob, "<key node='%s'/>" % name, "get") for name in ("/owner/d/used", "/owner/d/free"))
        self.assertEqual((condition(used), condition(free)), ("forbidden", "forbidden"))
        used, free = (self.create(bob, name) for name in ("/owner/d/used", "/owner/d/free"))
        self.assertEqual((condition(used), text(used)), (condition(free), text(free)))

    def test_every_spelling_of_a_name_has_the_same_owner(self):
        bob, owner = self.client("bob"), self.client("owner")
        for name in ("/Owner/D/spelt", "/OWNER/d/spelt", "//owner/d", "//owner/d/x", "/owner//d", "/owner/d/",
                     "/owner/d//", "owner/d/spelt", "/\uff4f\uff57\uff4e\uff45\uff52/d/spelt"):
            self.refused_by_the_rule(self.create(bob, name))
            self.assertEqual((name, condition(self.create(owner, name))), (name, None))

    def test_a_name_whose_first_segment_is_no_account_is_nobodys(self):
        for client in (self.client("bob"), self.client("owner")):
            for name in ("///", "////", "/@/d/x", "/own er/d/x", "/owner@localhost/d/x", "/\u00ad/d/x", "/\"/d/x"):
                self.refused_by_the_rule(self.create(client, name))

    def test_shorter_names_are_free_to_all(self):
        bob = self.client("bob")
        for name in ("/owner/short", "owner/short", "owner", "/owner", "//short", "/", "/owner2/"):
            self.assertEqual((name, condition(self.create(bob, name))), (name, None))

    def test_the_operator_opens_names_by_whole_segments(self):
        bob = self.client("bob")
        for name in ("/shared/a/b", "/shared/a/b/c", "/open/room/a"):
            self.succeed(self.create(bob, name))
        for name in ("/sharedx/a/b", "/Shared/a/b", "/open/rooms/a", "//shared/a/b"):
            self.refused_by_the_rule(self.create(bob, name))

    def test_a_name_has_a_bound(self):
        owner = self.client("owner")
        self.succeed(self.create(owner, "/owner/d/" + "n" * 1015))
        self.refused(self.create(owner, "/owner/d/" + "n" * 1016), "not-acceptable")
        self.refused(self.ext(owner, "<create-key-node node='/owner/d/%s'/>" % ("k" * 1016)), "not-acceptable")

    def test_publishing_makes_no_name(self):
        self.refused(self.client("bob").iq("set", self.publish_stanza("x", node="/owner/d/auto")), "item-not-found")
        self.succeed(self.create(self.client("owner"), "/owner/d/auto"))

    def test_nobody_puts_a_node_under_somebody_elses_collection(self):
        owner, bob = self.client("owner"), self.client("bob")
        self.succeed(self.create(owner, "/owner/d/coll", node_type="collection"))
        self.succeed(self.create(bob, "/bobs"))
        for collection in ("/owner/d/coll", "/owner/d/none"):
            self.refused(self.create(bob, "/bobs/leaf", collection=collection), "forbidden")
            self.refused(self.configure(bob, "/bobs", collection), "forbidden")
        self.succeed(self.create(owner, "/owner/d/all", node_type="collection", children_association_policy="all"))
        self.succeed(self.create(bob, "/bobs/leaf", collection="/owner/d/all"))

    def test_who_was_named_an_owner_lends_no_collection(self):
        """A stranger's node counts as the stranger's, whoever else was named its owner."""
        owner, bob, carol = self.client("owner"), self.client("bob"), self.device("carol", "lent")
        self.succeed(self.create(owner, "/lent", node_type="collection"))
        self.succeed(self.subscribe(carol, node="/lent"))
        self.succeed(self.create(bob, "/lent/leaf"))
        self.succeed(self.subscribe(owner, node="/lent/leaf"))
        self.succeed(self.pubsub(bob, "<affiliations node='/lent/leaf'><affiliation jid='owner@localhost' "
                                      "affiliation='owner'/></affiliations>", namespace=OWNER))
        self.refused(self.configure(bob, "/lent/leaf", "/lent"), "forbidden")
        self.publish(bob, "forged", node="/lent/leaf")
        self.assert_quiet(carol, node="/lent/leaf")


class Before(ServerTest):
    """Nodes under other accounts' names from the previous version: created while the operator had opened the names."""

    options = ('open_prefixes=["/"]',)

    def test_a_strangers_node_of_before_goes_on_working(self):
        bob, owner = self.client("bob"), self.device("owner", "old")
        self.succeed(self.create(bob, "/owner/d/old"))
        key = self.key_node(bob, "/owner/d/oldkey")
        self.instance.stop()
        path = self.instance.folder + "/conf/ejabberd.yml"
        with open(path) as file:
            config = file.read()
        self.assertIn('open_prefixes: ["/"]', config)
        with open(path, "w") as file:
            file.write(config.replace('open_prefixes: ["/"]', "open_prefixes: []"))
        self.instance.start()
        bob, owner = self.client("bob"), self.device("owner", "old")
        self.refused(self.create(bob, "/owner/d/new"), "forbidden")
        self.succeed(self.subscribe(owner, node="/owner/d/old"))
        self.publish(bob, "1", node="/owner/d/old")
        self.assertEqual(self.texts(owner, 1, node="/owner/d/old"), ["1"])
        self.succeed(self.pubsub(bob, "<configure node='/owner/d/old'>%s</configure>"
                                 % form(CONFIG, [("pubsub#title", "t")]), namespace=OWNER))
        again = self.ext(bob, "<create-key-node node='/owner/d/oldkey'/>")
        self.assertEqual(again.findtext("{%s}key" % xmppclient.DEVICE), key)
        self.succeed(self.ext(bob, "<publish key='%s'><item><payload>x</payload></item></publish>" % key))
        self.succeed(self.delete(bob, "/owner/d/old"))
        self.refused(self.create(bob, "/owner/d/old"), "forbidden")


class Subscriptions(ServerTest):
    def set(self, client, jid, state="subscribed", subid="", node=None):
        one = "<subscription jid='%s' subscription='%%s'%%s/>" % jid
        one %= (state, " subid='%s'" % subid if subid else "")
        return self.pubsub(client, "<subscriptions node='%s'>%s</subscriptions>"
                           % (node or self.node, one), namespace=OWNER)

    def affiliate(self, client, jid, affiliation):
        return self.pubsub(client, "<affiliations node='%s'><affiliation jid='%s' affiliation='%s'/></affiliations>"
                           % (self.node, jid, affiliation), namespace=OWNER)

    def subscribers(self, client):
        listed = self.succeed(self.pubsub(client, "<subscriptions node='%s'/>" % self.node, "get", OWNER))
        return {each.get("jid"): each.get("subscription") for each in listed.iter("{%s}subscription" % OWNER)}

    def test_nobody_is_subscribed_who_did_not_ask(self):
        owner, bob = self.client("owner"), self.device("bob", "victim")
        self.succeed(self.create(owner))
        for jid in (bob.jid, bob.bare, "bob@localhost/never", "nobody@localhost", "far@example.org"):
            for state in ("subscribed", "pending", "unconfigured"):
                self.refused(self.set(owner, jid, state), "forbidden")
        self.publish(owner, "forged")
        self.assert_quiet(bob)
        self.assertEqual(self.subscribers(owner), {})

    def test_of_several_all_or_none_are_set(self):
        owner, bob = self.client("owner", "mine"), self.device("bob", "several")
        self.succeed(self.create(owner))
        answer = self.pubsub(owner, "<subscriptions node='%s'><subscription jid='%s' subscription='subscribed'/>"
                             "<subscription jid='%s' subscription='subscribed'/></subscriptions>"
                             % (self.node, owner.jid, bob.jid), namespace=OWNER)
        self.refused(answer, "forbidden")
        self.assertEqual(self.subscribers(owner), {})
        self.assert_quiet(owner)

    def test_an_owner_subscribes_devices_of_its_own_account(self):
        owner, other = self.client("owner", "mine"), self.device("owner", "other")
        self.succeed(self.create(owner))
        self.succeed(self.set(owner, other.jid))
        self.publish(owner, "1")
        self.assertEqual(self.texts(other, 1), ["1"])
        self.succeed(self.set(owner, other.jid, "none"))
        self.assertEqual(self.subscribers(owner), {})

    def test_an_owner_approves_and_removes_who_asked(self):
        owner, bob = self.client("owner"), self.device("bob", "asked")
        self.succeed(self.create(owner, access_model="authorize"))
        self.succeed(self.subscribe(bob))
        self.refused(self.set(owner, bob.bare), "forbidden")
        self.refused(self.set(owner, bob.jid, subid="wrong"), "not-acceptable")
        self.succeed(self.set(owner, bob.jid))
        self.publish(owner, "1")
        self.assertEqual(self.texts(bob, 1), ["1"])
        self.succeed(self.set(owner, bob.jid, "none"))
        self.assertEqual(self.subscribers(owner), {})
        self.refused(self.set(owner, bob.jid), "forbidden")

    def test_nobody_is_made_an_owner_who_did_not_subscribe(self):
        owner, bob, carol = self.client("owner"), self.device("bob", "made"), self.client("carol")
        self.succeed(self.create(owner, access_model="authorize"))
        self.refused(self.affiliate(owner, bob.bare, "owner"), "forbidden")
        self.succeed(self.subscribe(carol))
        self.succeed(self.pubsub(carol, "<unsubscribe node='%s' jid='%s'/>" % (self.node, carol.jid)))
        self.assert_quiet(bob)
        self.succeed(self.subscribe(bob))
        self.succeed(self.affiliate(owner, bob.bare, "owner"))
        self.succeed(self.subscribe(carol))
        bob.wait_message(lambda each: each.find("{%s}x" % DATA) is not None)

    def test_other_affiliations_stay_the_owners_to_give(self):
        owner, bob = self.client("owner"), self.client("bob")
        self.succeed(self.create(owner, access_model="whitelist"))
        self.succeed(self.affiliate(owner, bob.bare, "publisher"))
        self.publish(bob, "1")
        self.succeed(self.affiliate(owner, bob.bare, "none"))
        self.refused(bob.iq("set", self.publish_stanza("2")), "forbidden")

    def test_a_form_that_answers_no_request_subscribes_nobody(self):
        owner, bob = self.client("owner"), self.device("bob", "form")
        self.succeed(self.create(owner, access_model="authorize"))
        answer = form(AUTHORISE, [("pubsub#subid", "x"), ("pubsub#node", self.node),
                                  ("pubsub#subscriber_jid", bob.jid), ("pubsub#allow", "true")])
        owner.send("<message to='%s' id='f'>%s</message>" % (self.server.pubsub, answer))
        self.assertEqual(condition(owner.wait_message(lambda each: each.get("type") == "error")), "unexpected-request")
        self.assertEqual(self.subscribers(owner), {})

    def test_nobody_subscribes_or_unsubscribes_another(self):
        owner, bob, carol = self.client("owner"), self.device("bob", "own"), self.client("carol")
        self.succeed(self.create(owner))
        self.refused(self.subscribe(carol, jid=bob.jid), "bad-request")
        self.succeed(self.subscribe(bob))
        self.refused(self.pubsub(carol, "<unsubscribe node='%s' jid='%s'/>" % (self.node, bob.jid)), "forbidden")
        self.assertEqual(self.subscribers(owner), {bob.jid: "subscribed"})

    def test_nobody_reads_or_sets_the_options_of_another(self):
        owner, bob, carol = self.client("owner"), self.client("bob"), self.client("carol")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        options = form("http://jabber.org/protocol/pubsub#subscribe_options", [("pubsub#deliver", "0")])
        for client in (carol, owner):
            for kind, content in (("set", options), ("get", "")):
                request = "<options node='%s' jid='%s'>%s</options>" % (self.node, bob.jid, content)
                self.refused(self.pubsub(client, request, kind), "forbidden")

    def test_configuring_a_node_subscribes_nobody(self):
        owner, bob = self.client("owner"), self.device("bob", "config")
        fields = {"contact": bob.bare, "roster_groups_allowed": "friends", "access_model": "roster",
                  "send_last_published_item": "on_sub_and_presence", "itemreply": "owner"}
        self.succeed(self.create(owner, **fields))
        self.publish(owner, "1")
        owner.send("<presence to='%s' type='subscribe'/><presence to='%s' type='subscribed'/>" % (bob.bare, bob.bare))
        bob.send("<presence/>")
        self.assertEqual(self.subscribers(owner), {})
        self.assert_quiet(bob)


class Hidden(ServerTest):
    def disco(self, client, space, node=""):
        return client.iq("get", "<query xmlns='%s'%s/>" % (space, " node='%s'" % node if node else ""))

    def listed(self, client):
        answer = self.succeed(self.disco(client, ITEMS))
        return {each.get("node") for each in answer.iter("{%s}item" % ITEMS)}

    def test_the_list_of_nodes_names_key_nodes_to_their_owner_alone(self):
        owner, bob = self.client("owner"), self.client("bob")
        keys = ["/owner/d/listed/%03d" % each for each in range(150)]
        for name in keys:
            self.key_node(owner, name)
        self.succeed(self.create(owner, "/news", title="News"))
        self.assertEqual(self.listed(bob), {"/news"})
        self.assertLessEqual(len(self.listed(owner)), 100)
        for name in keys[1:]:
            self.succeed(self.delete(owner, name))
        self.assertEqual(self.listed(owner) & set(keys + ["/news"]), {"/news", keys[0]})

    def test_a_question_for_what_is_no_name_has_an_answer(self):
        bob = self.client("bob")
        for name in ("!", "!!", "a!b!c"):
            for space in (INFO, ITEMS):
                self.refused(self.disco(bob, space, name), "item-not-found")
        self.assertNotIn("[error]", self.instance.log())

    def test_every_request_on_a_closed_key_node_is_answered_as_if_there_were_none(self):
        owner, bob = self.client("owner"), self.client("bob")
        config = form(CONFIG, [("pubsub#access_model", "whitelist")])
        here, gone = "/owner/d/closed", "/owner/d/absent"
        self.succeed(self.ext(owner, "<create-key-node node='%s'>%s</create-key-node>" % (here, config)))
        self.publish(owner, "1", "one", node=here)

        def ask(node):
            item = "<item id='one'><payload>x</payload></item>"
            jid = "jid='%s'" % bob.jid
            yield self.disco(bob, INFO, node)
            yield self.disco(bob, ITEMS, node)
            yield self.disco(bob, ITEMS, node + "!one")
            for kind, content in (("get", "<items node='%s'/>"), ("set", "<subscribe node='%%s' %s/>" % jid),
                                  ("set", "<publish node='%%s'>%s</publish>" % item),
                                  ("set", "<retract node='%s'><item id='one'/></retract>"),
                                  ("set", "<unsubscribe node='%%s' %s/>" % jid),
                                  ("get", "<options node='%%s' %s/>" % jid)):
                yield self.pubsub(bob, content % node, kind)
            for kind, content in (("get", "<configure node='%s'/>"), ("set", "<delete node='%s'/>"),
                                  ("set", "<purge node='%s'/>"), ("get", "<subscriptions node='%s'/>"),
                                  ("get", "<affiliations node='%s'/>"),
                                  ("set", "<configure node='%%s'>%s</configure>" % config)):
                yield self.pubsub(bob, content % node, kind, OWNER)
            yield bob.iq("set", "<command xmlns='%s' node='%s' action='execute' sessionid='x'>%s</command>"
                         % (COMMANDS, GET_PENDING, form(AUTHORISE, [("pubsub#node", node)])))
            yield self.ext(bob, "<delete-nodes><node id='%s'/></delete-nodes>" % node)
            bob.send("<message to='%s' id='m'>%s</message>" % (self.server.pubsub, form(AUTHORISE, [
                ("pubsub#subid", "x"), ("pubsub#node", node), ("pubsub#subscriber_jid", bob.jid),
                ("pubsub#allow", "1")])))
            yield bob.wait_message(lambda each: each.get("type") == "error")

        def seen(answer, node):
            error = answer.find(xmppclient.CLIENT + "error")
            if error is None:
                return answer.get("type"), "".join(xmppclient.xml(each) for each in answer).replace(node, "NODE")
            return answer.get("type"), error.get("type"), condition(answer)

        for on_here, on_gone in zip(ask(here), ask(gone)):
            self.assertEqual(seen(on_here, here), seen(on_gone, gone),
                             "%s\n%s" % (xmppclient.xml(on_here), xmppclient.xml(on_gone)))
        self.succeed(self.pubsub(owner, "<items node='%s'/>" % here, "get"))

    def test_a_key_node_that_its_owner_opened_takes_subscribers(self):
        owner, bob = self.client("owner"), self.device("bob", "open")
        self.key_node(owner, "/owner/d/opened")
        self.succeed(self.subscribe(bob, node="/owner/d/opened"))
        self.publish(owner, "1", node="/owner/d/opened")
        self.assertEqual(self.texts(bob, 1, node="/owner/d/opened"), ["1"])

    def test_who_was_let_in_sees_a_closed_key_node(self):
        owner, bob = self.client("owner"), self.client("bob")
        config = form(CONFIG, [("pubsub#access_model", "whitelist")])
        self.succeed(self.ext(owner, "<create-key-node node='/owner/d/member'>%s</create-key-node>" % config))
        self.succeed(self.pubsub(owner, "<affiliations node='/owner/d/member'><affiliation jid='%s' "
                                        "affiliation='member'/></affiliations>" % bob.bare, namespace=OWNER))
        self.succeed(self.subscribe(bob, node="/owner/d/member"))
        self.succeed(self.disco(bob, INFO, "/owner/d/member"))

    def test_the_answer_to_a_publication_with_a_key_names_nobody(self):
        owner, bob = self.client("owner", "hiddenresource"), self.client("bob")
        key = self.key_node(owner, "/owner/hiddenresource/secretname")
        request = "<publish key='%s'><item id='i'><payload>x</payload></item></publish>" % key
        by_xmpp = self.succeed(self.ext(bob, request))
        status, headers, body = self.post(key, "x")
        self.assertEqual(status, 201)
        for answer in (xmppclient.xml(by_xmpp), "%s %s" % (headers, body)):
            for word in ("owner", "hiddenresource", "secretname"):
                self.assertNotIn(word, answer)
        self.assertEqual(set(by_xmpp[0].keys()), {"id", "seqNo"})
