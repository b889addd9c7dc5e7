# SPDX-License-Identifier: GPL-3.0-only
"""Random requests, made of the protocol's elements: each gets an answer, and the extension logs no error.

PUBSUB_FUZZ_SEED and PUBSUB_FUZZ_ROUNDS set the seed and the length.
"""
import os
import random
import re
import sys

from harness import ServerTest
from xmppclient import DEVICE

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from fuzz import AUTHORIZATION, COMMANDS, GET_PENDING, NODE_CONFIG, PUBSUB, PUBSUB_OWNER, Fuzz  # noqa: E402

SEED = int(os.environ.get("PUBSUB_FUZZ_SEED", "1"))
ROUNDS = int(os.environ.get("PUBSUB_FUZZ_ROUNDS", "100"))
REQUESTS, OTHERS = 20, 5  # in a round


class Everything(ServerTest):
    def setUp(self):
        super().setUp()
        self.random = random.Random(SEED)
        self.fuzz = Fuzz(self.random)
        self.devices = [self.device(user, "d%d" % i) for i, user in enumerate(("owner", "bob", "carol", "owner"))]
        names = ["/k/%d" % i for i in range(3)]
        self.keys = [self.key_node(self.devices[0], name) for name in names]
        self.fuzz.nodes += names

    def attribute(self, *fitting):
        return self.random.choice(fitting + (self.fuzz.attribute(),))

    def inside(self, *fitting):
        return self.random.choice(fitting + ("", self.fuzz.form(self.random.choice((NODE_CONFIG, AUTHORIZATION))),
                                             self.fuzz.element(3)))

    def on_node(self):
        """The attribute that names a node."""
        return "node='%s'" % (self.fuzz.attribute() if self.random.random() < 0.3 else
                              self.random.choice(self.fuzz.nodes))

    def standard(self, client):
        jid = self.attribute(client.jid, client.bare)
        name = self.random.choice(("delete", "purge", "configure", "affiliations", "subscriptions"))
        owner = "<%s %s>%s</%s>" % (name, self.on_node(), self.inside(), name)
        inside = self.random.choice((
            "<create %s/><configure>%s</configure>" % (self.on_node(), self.inside()),
            "<create %s/>" % self.on_node(),
            "<publish %s><item id='%s'>%s</item></publish>" % (
                self.on_node(), self.attribute("one"), self.inside("<payload/>", "<payload>x</payload>")),
            "<subscribe %s jid='%s'/>" % (self.on_node(), jid),
            "<unsubscribe %s jid='%s' subid='%s'/>" % (self.on_node(), jid, self.attribute()),
            "<retract %s notify='1'><item id='%s'/></retract>" % (self.on_node(), self.attribute("one")),
            owner, owner))
        return "<pubsub xmlns='%s'>%s</pubsub>" % (PUBSUB_OWNER if inside is owner else PUBSUB, inside)

    def extension(self):
        bulk = self.random.choice(("activate-nodes", "delete-nodes"))
        limit = self.random.choice(("", "", " limit='1'", " limit='%s'" % self.attribute("2")))
        nodes = "".join(self.random.choice(("<node id='%s'%s/>" % (self.attribute("/k/1"), limit), "<node/>",
                                            self.inside())) for _ in range(self.random.randrange(6)))
        number = self.random.choice(("", "0", "5", "-1", "x", "9" * 20, "9" * 21))
        content = self.random.choice((
            "<create-key-node %s>%s</create-key-node>" % (self.on_node(), self.inside()),
            "<key %s/>" % self.on_node(),
            "<activate %s seqNo='%s'%s/>" % (self.on_node(), number, limit),
            "<deactivate %s/>" % self.on_node(),
            "<waiting>%s</waiting>" % nodes,
            "<%s>%s</%s>" % (bulk, nodes, bulk),
            "<publish key='%s'>%s</publish>" % (
                self.attribute(*self.keys), self.inside("<item><payload>x</payload></item>", "<item/>"))))
        return re.sub(r"^<([a-z-]+)", r"<\1 xmlns='%s'" % DEVICE, content)

    def request(self, client):
        choice = self.random.random()
        if choice < 0.1:
            return "<command xmlns='%s' action='%s' node='%s' sessionid='%s'>%s</command>" % (
                COMMANDS, self.attribute("execute"), GET_PENDING, self.attribute(), self.inside())
        return self.standard(client) if choice < 0.5 else self.extension()

    def other(self):
        """A message or a presence."""
        service = self.server.pubsub
        return self.random.choice((
            "<message to='%s'><ack xmlns='%s' %s id='%s' seqNo='%s'/></message>" % (
                service, DEVICE, self.on_node(), self.attribute("one"), self.attribute("", "5")),
            "<message to='%s' id='%s'>%s</message>" % (service, self.attribute(), self.inside()),
            "<presence to='%s'>%s</presence>" % (service, self.inside()),
            "<presence to='%s' type='%s'/>" % (service, self.random.choice(("unavailable", "subscribe", "probe")))))

    def test_every_request_is_answered_and_nothing_breaks(self):
        for _ in range(ROUNDS):
            client = self.random.choice(self.devices)
            numbers = [client.send_iq(self.random.choice(("set", "set", "set", "get")), self.request(client))
                       for _ in range(REQUESTS)]
            for _ in range(OTHERS):
                client.send(self.other())
            for number in numbers:
                self.assertIn(client.wait_iq(number).get("type"), ("result", "error"))
            client.messages()
        self.assertEqual(re.findall(r".*\[(?:error|critical)\].*", self.instance.log()), [])
