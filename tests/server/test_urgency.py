# SPDX-License-Identifier: GPL-3.0-only
"""How urgent a message is, and devices that want only what is urgent enough."""
from xml.sax.saxutils import quoteattr

from pushtest import PushTest
from xmppclient import DEVICE

LEVELS = ("very-low", "low", "normal", "high")


class Urgency(PushTest):
    def bulk(self, client, *attributes, node=None):
        """The conditions of a bulk activation with these attributes for the node, once for each."""
        entries = "".join("<node id=%s %s/>" % (quoteattr(node or self.node), each) for each in attributes)
        answer = self.succeed(self.ext(client, "<activate-nodes>%s</activate-nodes>" % entries))
        return [each.get("error") for each in answer.iter("{%s}node" % DEVICE)]

    def absent(self):
        owner, key = self.endpoint(limit=True)
        owner.kill()
        self.settle()
        return key

    def back(self, urgency):
        """The device with a new session, and its bound of the node set before it announces itself."""
        owner = self.client("owner", "push")
        self.assertEqual(self.bulk(owner, "limit='1' urgency='%s'" % urgency), [])
        self.announce(owner)
        return owner

    def post_all(self, key, *urgencies):
        """Messages whose bodies say how urgent they are; `none` has no urgency."""
        for each in urgencies:
            self.publish_http(key, each, {} if each == "none" else {"Urgency": each})

    def test_the_item_says_what_the_sender_said(self):
        owner, key = self.endpoint(more="")
        for urgency in LEVELS:
            self.publish_http(key, urgency, {"Urgency": urgency})
            found = self.next_item(owner)
            self.assertEqual(found.attributes, {"urgency": urgency})
            self.ack(owner, found.id)
        self.publish_http(key, "none")
        self.assertEqual(self.next_item(owner).attributes, {})

    def test_what_is_no_urgency_is_refused(self):
        owner, key = self.endpoint()
        for value in ("", "High", "urgent", "very low", "high, low", "3", "none", "high;q=1", "\xe4"):
            self.refusal(self.publish_http(key, "x", {"Urgency": value}, 400), 400, 115)
        self.assert_quiet(owner)

    def test_what_is_below_the_bound_waits_and_what_is_not_comes_in_order(self):
        key = self.absent()
        self.post_all(key, "low", "none", "very-low", "high", "normal")
        for urgency, expected in (("high", [b"high"]), ("normal", [b"none", b"normal"]), ("low", [b"low"]),
                                  ("very-low", [b"very-low"])):
            owner = self.back(urgency)
            self.assertEqual((urgency, self.contents(owner, len(expected))), (urgency, expected))
            owner.kill()
            self.settle()

    def test_live_messages_are_held_to_the_bound_too(self):
        key = self.absent()
        owner = self.back("normal")
        self.post_all(key, "low", "high", "very-low", "none")
        self.assertEqual(self.contents(owner, 2), [b"high", b"none"])
        self.post_all(key, "normal")
        self.assertEqual(self.contents(owner, 1), [b"normal"])

    def test_another_bound_counts_from_now_on(self):
        key = self.absent()
        owner = self.back("high")
        self.post_all(key, "low", "normal")
        self.assert_quiet(owner)
        self.assertEqual(self.bulk(owner, "limit='1' urgency='normal'"), [])
        self.assertEqual(self.contents(owner, 1), [b"normal"])
        self.succeed(self.limit(owner, "low"))
        self.assertEqual(self.contents(owner, 1), [b"low"])
        self.succeed(self.limit(owner, "high"))
        self.post_all(key, "normal", "high")
        self.assertEqual(self.contents(owner, 1), [b"high"])
        self.assertEqual(self.bulk(owner, "limit='1'"), [])
        self.assertEqual(self.contents(owner, 1), [b"normal"])

    def test_another_bound_leaves_the_open_item_open(self):
        key = self.absent()
        self.post_all(key, "normal", "high")
        owner = self.back("normal")
        first = self.next_item(owner)
        self.assertEqual(self.bulk(owner, "limit='1' urgency='high'"), [])
        self.assert_quiet(owner)
        self.ack(owner, first.id)
        self.assertEqual(self.contents(owner, 1), [b"high"])

    def test_a_number_with_an_urgency_stands_for_its_item_alone(self):
        key = self.absent()
        self.post_all(key, "low", "high")
        owner = self.back("high")
        number = self.next_item(owner).seq_no
        owner.kill()
        self.settle()
        owner = self.client("owner", "push")
        self.succeed(self.limit(owner, "very-low", number))
        self.announce(owner)
        self.assertEqual(self.contents(owner, 1), [b"low"])

    def test_of_several_bounds_in_a_request_the_highest_counts(self):
        key = self.absent()
        self.post_all(key, "low", "high")
        owner = self.client("owner", "push")
        self.assertEqual(self.bulk(owner, "limit='1' urgency='low'", "limit='1' urgency='high'", "", "limit='1'"), [])
        self.announce(owner)
        self.assertEqual(self.contents(owner, 1), [b"high"])

    def test_an_urgency_needs_a_limit_and_is_one_of_four(self):
        owner, _ = self.endpoint()
        for attributes in ("urgency='high'", "limit='1' urgency=''", "limit='1' urgency='High'", "limit='2' urgency='high'"):
            self.assertEqual((attributes, self.bulk(owner, attributes)), (attributes, ["bad-request"]))
            self.refused(self.ext(owner, "<activate node=%s %s/>" % (quoteattr(self.node), attributes)), "bad-request")

    def test_a_device_without_a_bound_gets_everything(self):
        key = self.absent()
        self.post_all(key, *LEVELS)
        self.assertEqual(self.contents(self.again(), 4), [each.encode() for each in LEVELS])

    def test_an_ordinary_node_has_messages_of_normal_urgency(self):
        owner, bob = self.client("owner"), self.device("bob", "urgent")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        self.assertEqual(self.bulk(bob, "limit='1' urgency='high'"), [])
        self.publish(owner, "text")
        self.assert_quiet(bob)
        self.assertEqual(self.bulk(bob, "limit='1' urgency='normal'"), [])
        self.assertEqual(self.contents(bob, 1), [b"text"])

    def test_an_urgent_message_passes_a_thousand_that_wait(self):
        key = self.absent()
        owner = self.back("high")
        for each in range(900):
            self.publish_http(key, str(each), {"Urgency": "low"})
        self.post_all(key, "high")
        self.assertEqual(self.contents(owner, 1), [b"high"])
