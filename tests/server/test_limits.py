# SPDX-License-Identifier: GPL-3.0-only
"""Publishing over HTTP, bounds, expiry and rates, and malformed input."""
import socket

import xmppclient
from harness import ServerTest
from xmppclient import DEVICE


class Http(ServerTest):
    def ready(self):
        owner = self.client("owner", "http")
        key = self.key_node(owner)
        self.succeed(self.activate(owner))
        return owner, key

    def test_a_posted_text_becomes_an_item_and_the_answer_says_where(self):
        owner, key = self.ready()
        status, headers, body = self.post(key, "grüße <&> ]]> \U0001f600\tend")
        found = self.take(owner)[0]
        self.assertEqual(status, 201)
        self.assertEqual(headers["Content-Type"], "application/json")
        self.assertEqual(headers["Location"], "/push/%s/%d-%s" % (key, found.seq_no, found.id))
        self.assertEqual(body, {"id": found.id, "seqNo": str(found.seq_no)})
        self.assertEqual(found.text, "grüße <&> ]]> \U0001f600\tend")

    def test_an_empty_body_is_refused(self):
        _, key = self.ready()
        status, _, answer = self.post(key, b"")
        self.assertEqual(status, 400)
        self.assertTrue(answer)

    def test_a_body_above_the_limit_is_refused_and_one_at_the_limit_is_taken(self):
        owner, key = self.ready()
        self.assertEqual(self.post(key, "x" * 65536)[0], 201)
        self.assertEqual(len(self.take(owner)[0].text), 65536)
        self.assertEqual(self.post(key, "x" * 65537)[0], 413)

    def test_an_unknown_key_is_not_found(self):
        for key in ("nothing", "%C3%A4", "..", "a/b", "x" * 5000):
            self.assertEqual((key, self.post(key, "x")[0]), (key, 404))

    def test_get_says_what_the_endpoint_is_and_other_methods_are_refused(self):
        _, key = self.ready()
        status, _, answer = self.post(key, None, "GET")
        self.assertEqual(status, 200)
        self.assertIn("POST", answer["about"])
        status, headers, _ = self.post(key, b"x", "PUT")
        self.assertEqual((status, headers["Allow"]), (405, "GET, HEAD, OPTIONS, POST"))

    def test_the_key_stands_in_no_log(self):
        owner, key = self.ready()
        self.post(key, "x")
        self.ext(owner, "<publish key='%s'><item><payload/></item></publish>" % key)
        self.ext(owner, "<publish key='%s'><nonsense/></publish>" % key)
        self.ext(owner, "<nonsense key='%s'/>" % key)
        self.settle(owner)
        for name in ("server.log", "console.log"):
            with open("%s/log/%s" % (self.instance.folder, name), errors="replace") as file:
                self.assertNotIn(key, file.read())


class Rate(ServerTest):
    options = ("key_rate=1", "key_burst=5")

    def test_a_key_above_its_rate_is_told_to_wait_and_other_keys_are_not(self):
        owner = self.client("owner")
        key, other = self.key_node(owner), self.key_node(owner, self.node + "/other")
        answers = [self.post(key, str(each)) for each in range(8)]
        statuses = [status for status, _, _ in answers]
        self.assertEqual(statuses[:5], [201] * 5)
        self.assertIn(429, statuses)
        refused = answers[statuses.index(429)]
        self.assertGreaterEqual(int(refused[1]["Retry-After"]), 1)
        self.assertEqual(self.post(other, "x")[0], 201)
        answer = self.ext(owner, "<publish key='%s'><item><payload/></item></publish>" % key)
        self.refused(answer, "resource-constraint")
        self.wait_for(lambda: self.post(key, "later")[0] == 201)


class Bounds(ServerTest):
    options = ("max_kept=6", "max_kept_node=4", "max_devices=2")

    def away(self, resource, *nodes):
        """Bob's device, subscribed to the nodes and disconnected; the owner's client."""
        owner, bob = self.client("owner"), self.device("bob", resource)
        for node in nodes:
            self.succeed(self.create(owner, node))
            self.succeed(self.subscribe(bob, node=node))
        bob.kill()
        return owner

    def test_at_the_bound_of_a_node_the_oldest_goes_and_the_log_says_so(self):
        owner = self.away("bound", self.node)
        for each in range(6):
            self.publish(owner, str(each))
        bob = self.device("bob", "bound")
        self.assertEqual(self.texts(bob, 4), ["2", "3", "4", "5"])
        self.assert_quiet(bob)
        self.wait_for(lambda: "Dropped the oldest kept item of device bob@localhost/bound: node " + self.node
                      in self.instance.log())

    def test_at_the_bound_of_a_device_its_oldest_goes_whatever_its_node(self):
        first, second = self.node + "/1", self.node + "/2"
        owner = self.away("total", first, second)
        for each in range(4):
            self.publish(owner, "first %d" % each, node=first)
        for each in range(4):
            self.publish(owner, "second %d" % each, node=second)
        for node in (first, second):
            self.settle(node=node)
        bob = self.device("bob", "total")
        self.assertEqual(self.texts(bob, 2, node=first), ["first 2", "first 3"])
        self.assertEqual(self.texts(bob, 4, node=second), ["second %d" % each for each in range(4)])
        self.assert_quiet(bob)

    def test_one_absent_device_does_not_hold_the_others_back(self):
        owner = self.away("gone", self.node)
        carol = self.device("carol", "here")
        self.succeed(self.subscribe(carol))
        for each in range(10):
            self.publish(owner, str(each), str(each))
            self.assertEqual(self.texts(carol, 1), [str(each)])
            self.ack(carol, str(each))

    def test_the_longest_absent_device_makes_room_for_a_new_one(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        for resource in ("one", "two", "three"):
            carol = self.device("carol", resource)
            if resource == "one":
                self.succeed(self.subscribe(carol, jid=carol.bare))
            carol.kill()
            self.settle()
        self.publish(owner, "1")
        self.assertEqual(self.texts(self.device("carol", "three"), 1), ["1"])
        self.assertEqual(self.texts(self.device("carol", "two"), 1), ["1"])
        self.assert_quiet(self.device("carol", "one"))


class Ages(ServerTest):
    options = ("max_age=1", "device_age=6", "sweep_interval=1")

    def test_items_and_then_the_device_age_out(self):
        owner, bob = self.client("owner"), self.device("bob", "old")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        self.publish(owner, "1")
        self.take(bob)
        bob.kill()
        self.wait_for(lambda: "Dropped the oldest kept item of device bob@localhost/old" in self.instance.log())
        self.wait_for(lambda: "Forgot the device bob@localhost/old; it stayed away" in self.instance.log())
        self.publish(owner, "2")
        self.assert_quiet(self.device("bob", "old"))


class Hostile(ServerTest):
    """Whatever one client sends, the server keeps serving the others."""

    def raw(self, data):
        """Sends something on a separate stream and reads until the server ends it."""
        bob = self.client("bob")
        bob.send(data)
        bob.wait_end()
        self.assert_alive()

    def test_what_is_not_well_formed_ends_its_own_stream_alone(self):
        head = "<message to='%s'><ack xmlns='%s' " % (self.server.pubsub, DEVICE)
        for tail in ("node='<'/></message>", "node='\x00'/></message>", "node='&nope;'/></message>",
                     "node='a' node='b'/></message>", "node=a/></message>", "</wrong>"):
            with self.subTest(tail):
                self.raw(head + tail)
        self.raw((head + "node='").encode() + b"\xff\xfe'/></message>")

    def test_a_stanza_above_the_limit_ends_its_own_stream_alone(self):
        self.raw("<message to='%s'><body>%s</body></message>" % (self.server.pubsub, "x" * 300000))

    def test_characters_that_are_escaped_pass_through_names_and_texts(self):
        owner, bob = self.client("owner"), self.device("bob", "odd")
        node, item_id = "/odd <&>\"' \u00e4\U0001f600", "id <&>\"'"
        self.succeed(self.create(owner, node))
        self.succeed(self.subscribe(bob, node=node))
        self.publish(owner, "text <&>\"'", item_id, node)
        found = self.take(bob, node=node)[0]
        self.assertEqual((found.node, found.id, found.text), (node, item_id, "text <&>\"'"))
        self.ack(bob, item_id, node)
        bob.sync()
        bob.kill()
        self.assert_quiet(self.device("bob", "odd"), node=node)

    def test_requests_without_their_parts_are_answered(self):
        bob = self.device("bob")
        for request in ("<activate/>", "<deactivate/>", "<create-key-node/>", "<publish/>", "<publish key=''/>",
                        "<activate-nodes>text</activate-nodes>", "<delete-nodes><node/><other/></delete-nodes>",
                        "<create-key-node node='/x'><x xmlns='jabber:x:data'/></create-key-node>",
                        "<create-key-node node='/y'><x/></create-key-node>"):
            with self.subTest(request):
                self.assertIn(self.ext(bob, request).get("type"), ("result", "error"))
        self.assert_alive()

    def test_messages_without_their_parts_do_no_harm(self):
        owner, bob = self.client("owner"), self.device("bob", "harm")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        to = self.server.pubsub
        for content in ("", "<ack xmlns='%s'/>" % DEVICE, "<ack/>", "<ack xmlns='other' node='x' id='y'/>", "text",
                        "<x xmlns='jabber:x:data'/>", "<x xmlns='jabber:x:data' type='submit'/>",
                        "<event xmlns='http://jabber.org/protocol/pubsub#event'><items node='%s'/></event>" % self.node,
                        xmppclient.form("http://jabber.org/protocol/pubsub#subscribe_authorization",
                                        [("pubsub#node", "/missing"), ("pubsub#subscriber_jid", "@@"),
                                         ("pubsub#allow", "perhaps")])):
            for kind in ("", " type='error'", " type='headline'"):
                bob.send("<message to='%s'%s>%s</message>" % (to, kind, content))
        self.publish(owner, "1")
        self.assertEqual(self.texts(bob, 1), ["1"])

    def test_long_names_and_many_names_are_borne(self):
        bob = self.device("bob")
        name = "n" * 200000
        self.refused(self.activate(bob, node=name), "item-not-found")
        many = "".join("<node id='/%06d'/>" % each for each in range(10000))
        answer = self.succeed(self.ext(bob, "<activate-nodes>%s</activate-nodes>" % many))
        self.assertEqual(len(list(answer.iter("{%s}node" % DEVICE))), 10000)
        self.succeed(self.ext(bob, "<delete-nodes>%s</delete-nodes>" % many))
        self.assert_alive()

    def test_nobody_speaks_in_the_services_name(self):
        bob = self.client("bob")
        bob.send("<message from='%s' to='%s'><body/></message>" % (self.server.pubsub, bob.jid))
        bob.wait_end()
        self.assert_alive()

    def test_a_device_that_announces_without_end_gets_no_more_for_it(self):
        owner, bob = self.client("owner"), self.device("bob", "endless")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        for each in range(20):
            self.publish(owner, str(each))
        bob.send("<presence to='%s'/>" % self.server.pubsub * 200)
        self.settle(bob)
        self.assertEqual(len(bob.messages()), 40)

    def test_http_that_is_none_does_no_harm(self):
        host, port = self.server.env["HTTP_URL"].split("/")[2].split(":")
        for data in (b"POST /push/x HTTP/1.1\r\nHost: x\r\nContent-Length: -5\r\n\r\n",
                     b"POST /push/x HTTP/1.1\r\nHost: x\r\nContent-Length: zzz\r\n\r\nabc",
                     b"\x16\x03\x01\x00\xff\xff", b"POST /push/%ff%fe HTTP/1.1\r\n\r\n",
                     b"GET /push/" + b"a" * 100000 + b" HTTP/1.1\r\n\r\n"):
            with socket.create_connection((host, int(port)), 10) as link:
                try:
                    link.sendall(data)
                    link.shutdown(socket.SHUT_WR)
                    while link.recv(4096):
                        pass
                except OSError:
                    pass  # the server may close before it has read everything
        self.assertEqual(self.post("nothing", "x")[0], 404)
        self.assert_alive()
