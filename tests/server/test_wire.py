# SPDX-License-Identifier: GPL-3.0-only
"""What arrives unchanged, and what is refused because a device's parser could not handle it.

PUBSUB_DOCUMENTS sets the number of random documents, PUBSUB_FUZZ_SEED their seed.
"""
import os
import random
import xml.etree.ElementTree as ET

import xmppclient
from harness import ServerTest
from xmppclient import DEVICE, EVENT, OWNER, PUBSUB, STANZAS, condition

DOCUMENTS = int(os.environ.get("PUBSUB_DOCUMENTS", "2000"))
SEED = int(os.environ.get("PUBSUB_FUZZ_SEED", "1"))
BATCH = 100
STREAMS = "http://etherx.jabber.org/streams"
ENDING = (
    "<stream:stream/>", "<stream:stream>x</stream:stream>", "<payload><stream:stream/></payload>",
    "<payload>text<a><b><stream:stream a='1'>x</stream:stream></b></a></payload>",
    "<stream:a><stream/></stream:a>", "<payload><stream:a><stream>x</stream></stream:a></payload>",
    "<stream:error/>", "<stream:features/>", "<payload><stream:stream xmlns='%s'/></payload>" % STREAMS,
    "<payload><x:a xmlns:x='urn:x'><stream:stream/></x:a></payload>")
HARMLESS = (
    "<payload><stream/></payload>", "<payload><stream xmlns='%s'>x</stream></payload>" % STREAMS,
    "<payload><s:stream xmlns:s='%s'/></payload>" % STREAMS, "<payload><s:a xmlns:s='urn:x'><stream/></s:a></payload>",
    "<payload><stream:a xmlns:stream='urn:other'><stream/></stream:a></payload>", "<payload stream='stream:stream'/>",
    "<payload>&lt;stream:stream&gt;</payload>", "<payload><streams/></payload>", "<payload><xml/></payload>")


def escaped(text, in_attribute=False):
    for char, reference in (("&", "&amp;"), ("<", "&lt;"), (">", "&gt;"), ("\r", "&#13;")):
        text = text.replace(char, reference)
    if in_attribute:
        for char, reference in (("'", "&apos;"), ("\t", "&#9;"), ("\n", "&#10;")):
            text = text.replace(char, reference)
    return text


class Refusals(ServerTest):
    def test_an_element_of_the_stream_is_refused_on_every_road_and_its_sender_stays(self):
        owner, bob, stranger = self.device("owner", "wire"), self.device("bob", "wire"), self.client("carol")
        key = self.key_node(owner, "/owner/wire/key")
        self.succeed(self.activate(owner, node="/owner/wire/key"))
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        bob.trace = []
        for content in ENDING:
            item = "<item id='evil'>%s</item>" % content
            for request in ("<pubsub xmlns='%s'><publish node='%s'>%s</publish></pubsub>" % (PUBSUB, self.node, item),
                            "<publish xmlns='%s' key='%s'>%s</publish>" % (DEVICE, key, item),
                            "<pubsub xmlns='%s'><create node='/other'/>%s</pubsub>" % (PUBSUB, content),
                            "<pubsub xmlns='%s'><configure node='%s'>%s</configure></pubsub>"
                            % (OWNER, self.node, content)):
                answer = self.refused(owner.iq("set", request), "not-acceptable")
                self.assertIn("prefix of the stream", answer.findtext(".//%stext" % STANZAS))
            for to in (bob.jid, bob.bare):
                self.refused(stranger.iq("get", content, to=to), "not-acceptable")
                stranger.send("<message to='%s' id='m'>%s</message>" % (to, content))
                refused = stranger.wait_message(lambda each: each.get("type") == "error")
                self.assertEqual(condition(refused), "not-acceptable")
            stranger.send("<presence to='%s'>%s</presence>" % (bob.jid, content))
            stranger.send("<iq to='%s' id='m' type='result'>%s</iq>" % (bob.jid, content))
            stranger.send("<message to='%s' id='m' type='error'>%s</message>" % (bob.jid, content))
        stranger.send("<presence to='%s'><harmless/></presence>" % bob.jid)
        bob.wait_presence()
        self.assertEqual([xmppclient.xml(each) for each in bob.trace if each.tag.endswith("}iq")
                          and not each.get("id").startswith("t") or "etherx" in xmppclient.xml(each)
                          or each.tag.endswith("}message")], [])
        self.assert_quiet(bob)
        self.assert_quiet(owner, node="/owner/wire/key")

    def test_what_only_looks_like_it_passes(self):
        owner, bob = self.client("owner"), self.device("bob", "looks")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        for number, content in enumerate(HARMLESS):
            self.succeed(self.pubsub(owner, "<publish node='%s'><item id='%d'>%s</item></publish>"
                                     % (self.node, number, content)))
            self.assertEqual(self.take(bob)[0].id, str(number))

    def test_a_stanza_nested_too_deep_ends_the_stream_that_sent_it_alone(self):
        owner, bob = self.client("owner"), self.device("bob", "deep")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        deep = "<payload>%s%s</payload>"
        publish = ("<iq type='set' id='x' to='%s'><pubsub xmlns='%s'><publish node='%s'><item>%s</item></publish>"
                   "</pubsub></iq>")
        self.succeed(self.pubsub(owner, "<publish node='%s'><item>%s</item></publish>"
                                 % (self.node, deep % ("<a>" * 200, "</a>" * 200))))
        self.take(bob)
        for depth in (300, 30000):
            nested = deep % ("<a>" * depth, "</a>" * depth)
            for stanza in (publish % (self.server.pubsub, PUBSUB, self.node, nested),
                           "<message to='%s'>%s</message>" % (bob.jid, nested), "<iq>%s</iq>" % nested):
                hostile = self.client("carol")
                hostile.send(stanza)
                hostile.wait_end()
        self.assert_quiet(bob)
        self.assert_alive()


class Characters(ServerTest):
    TEXT = "a\rb\r\nc\nd\te&#13;<&>'\""

    def test_carriage_returns_of_every_road_reach_every_subscriber(self):
        """Devices, present and absent, by subscription and by ownership; a client that is none, and one that fetches."""
        owner, bob, plain = self.device("owner", "cr"), self.device("bob", "cr"), self.client("carol", presence="")
        away = self.device("bob", "away")
        key = self.key_node(owner)
        self.succeed(self.activate(owner))
        for client in (bob, plain, away):
            self.succeed(self.subscribe(client))
        away.kill()
        self.succeed(self.pubsub(owner, "<publish node='%s'><item id='x'><payload>%s</payload></item></publish>"
                                 % (self.node, escaped(self.TEXT))))
        self.assertEqual(self.texts(owner, 1), [self.TEXT])
        self.ack(owner, "x")
        self.assertEqual(self.post(key, self.TEXT)[0], 201)
        self.succeed(self.ext(owner, "<publish key='%s'><item><payload>%s</payload></item></publish>"
                              % (key, escaped(self.TEXT))))
        found = self.take(owner)[0]
        self.assertEqual(found.text, self.TEXT)
        self.ack(owner, found.id)
        self.assertEqual(self.texts(owner, 1), [self.TEXT])
        for client in (bob, plain, self.device("bob", "away")):
            self.assertEqual(self.texts(client, 3), [self.TEXT] * 3)
        stored = self.node + "/stored"
        self.succeed(self.create(owner, stored, persist_items="1"))
        self.succeed(self.subscribe(bob, node=stored))
        self.succeed(self.pubsub(owner, "<publish node='%s'><item id='x'><payload>%s</payload></item></publish>"
                                 % (stored, escaped(self.TEXT))))
        self.assertEqual(self.texts(bob, 1, stored), [self.TEXT])
        fetched = self.succeed(self.pubsub(owner, "<items node='%s'/>" % stored, "get"))
        self.assertEqual([each[0].text for each in fetched.iter("{%s}item" % PUBSUB)], [self.TEXT])

    def test_an_id_with_blanks_of_every_kind_is_delivered_and_acknowledged(self):
        owner, bob = self.client("owner"), self.device("bob", "blanks")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        ids = ["a\tb", "a\nb", "a\rb", "a\r\nb", "\t", " a  b "]
        for item_id in ids:
            self.succeed(self.pubsub(owner, "<publish node='%s'><item id='%s'><payload>x</payload></item></publish>"
                                     % (self.node, escaped(item_id, True))))
        self.assertEqual([each.id for each in self.take(bob, len(ids))], ids)
        for item_id in ids:
            bob.send("<message to='%s'><ack xmlns='%s' node='%s' id='%s'/></message>"
                     % (self.server.pubsub, DEVICE, self.node, escaped(item_id, True)))
        self.settle(bob)
        bob.kill()
        self.assert_quiet(self.device("bob", "blanks"))

    def test_texts_of_the_service_keep_their_carriage_returns(self):
        owner = self.client("owner")
        config = xmppclient.form(xmppclient.CONFIG, [("pubsub#title", "a\rb")]).replace("\r", "&#13;")
        self.succeed(self.pubsub(owner, "<create node='%s'/><configure>%s</configure>" % (self.node, config)))
        answer = self.succeed(self.pubsub(owner, "<configure node='%s'/>" % self.node, "get", OWNER))
        self.assertIn("a\rb", [each.text for each in answer.iter("{jabber:x:data}value")])


class Documents(ServerTest):
    """Random well-formed documents through the server: the device gets each unchanged, or the sender is refused."""

    NAMES = ("a", "b", "item", "items", "event", "message", "payload", "stream", "error", "xml-x", "x.y", "_",
             "\u00e9t\u00e9")
    PREFIXES = ("", "", "", "p:", "q:", "stream:", "xml-:")
    TEXTS = ("", " ", "x", "\n", "\r", "\t", "&", "<", ">", "]]>", "'", "\"", "<!-- -->", "<![CDATA[", "&#13;",
             "\u20ac", "\U0001f600", "</stream:stream>", "<stream:stream>", "<?xml version='1.0'?>")

    def element(self, depth):
        prefix, name = self.random.choice(self.PREFIXES), self.random.choice(self.NAMES)
        words = "" if prefix in ("", "stream:") else " xmlns:%s='urn:%s'" % (prefix[:-1], self.random.choice("uvw"))
        if self.random.random() < 0.2:
            words += " xmlns='%s'" % self.random.choice(("urn:u", "jabber:client", STREAMS, EVENT))
        for each in self.random.sample(("a", "id", "stream", "xml:lang", "node"), self.random.randrange(3)):
            words += " %s='%s'" % (each, escaped(self.text(), True))
        inside = "".join(self.element(depth + 1) if self.random.random() < 0.4 and depth < 6 else escaped(self.text())
                         for _ in range(self.random.randrange(4)))
        name = prefix + name
        return "<%s%s>%s</%s>" % (name, words, inside, name) if inside or self.random.random() < 0.5 else \
            "<%s%s/>" % (name, words)

    def text(self):
        return "".join(self.random.choice(self.TEXTS) for _ in range(self.random.randrange(4)))

    @staticmethod
    def meaning(element):
        """A document's content, independent of its spelling. Its namespace is the publisher's or the notification's."""
        return (element.tag.replace("{%s}" % PUBSUB, "{%s}" % EVENT), sorted(element.attrib.items()),
                element.text or "", element.tail or "", [Documents.meaning(each) for each in element])

    def test_each_document_arrives_as_it_was_or_is_refused_and_the_streams_stay(self):
        self.random = random.Random(SEED)
        owner, bob = self.client("owner"), self.device("bob", "documents")
        self.succeed(self.create(owner, max_items="1"))
        self.succeed(self.subscribe(bob))
        taken = refused = 0
        for start in range(0, DOCUMENTS, BATCH):
            sent = {}
            for number in range(start, min(start + BATCH, DOCUMENTS)):
                content = "<payload>%s</payload>" % self.element(0)
                request = ("<pubsub xmlns='%s'><publish node='%s'><item id='%d'>%s</item></publish></pubsub>"
                           % (PUBSUB, self.node, number, content))
                sent[str(number)] = (content, owner.send_iq("set", request))
            for item_id, (content, request) in sent.items():
                answer = owner.wait_iq(request, 60)
                self.assertEqual(condition(answer), "not-acceptable" if "<stream:" in content else None, content)
                if answer.get("type") == "error":
                    refused += 1
                    continue
                taken += 1
                message = bob.wait_message(lambda each: xmppclient.item(each) is not None)
                self.assertEqual(xmppclient.item(message).id, item_id)
                whole = ET.fromstring("<item xmlns='%s'>%s</item>" % (EVENT, content))
                came = message.find(".//{%s}item" % EVENT)
                self.assertEqual(self.meaning(came[0][0])[1:], self.meaning(whole[0][0])[1:], content)
                self.ack(bob, item_id)
        self.assertGreater(taken, refused)
        self.assertGreater(refused, 0)
        bob.sync()
        owner.sync()
