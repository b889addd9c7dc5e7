# SPDX-License-Identifier: GPL-3.0-only
"""Endpoints for one application server: how they are made, and whose messages they take."""
import base64
import random
import socket
import time

from pushtest import PushTest, webpush
from webpush import Sender, b64
from xmppclient import DEVICE

HOUR = 3600


class VapidTest(PushTest):
    def setUp(self):
        super().setUp()
        self.sender = Sender()

    def ready(self, more="web-push='true'"):
        """The device, the key, and the address for which tokens are made."""
        owner, key = self.endpoint(more="%s vapid='%s'" % (more, self.sender.key))
        return owner, key, self.url(key)

    def push_with(self, key, authorization):
        """One message with this field; None for none."""
        fields = {} if authorization is None else {"Authorization": authorization}
        return webpush.request(self.url(key, secure=False), "POST", b"x", fields)

    def vapid(self, token, key=None):
        return "vapid t=%s, k=%s" % (token, key or self.sender.key)


class Nodes(VapidTest):
    def test_the_properties_belong_to_the_node(self):
        owner = self.client("owner")
        more = "web-push='true' vapid='%s'" % self.sender.key
        first = self.succeed(self.make(owner, more)).find("{%s}key" % DEVICE)
        again = self.succeed(self.make(owner, more)).find("{%s}key" % DEVICE)
        self.assertEqual((again.text, again.get("status")), (first.text, "exists"))
        self.assertEqual(again.get("url"), self.url(first.text))
        got = self.succeed(self.ext(owner, "<key node='%s'/>" % self.node, "get")).find("{%s}key" % DEVICE)
        self.assertEqual((got.text, got.get("url")), (first.text, self.url(first.text)))
        for other in ("", "web-push='true'", "vapid='%s'" % self.sender.key, "web-push='true' vapid='%s'" % Sender().key):
            answer = self.refused(self.make(owner, other), "conflict")
            self.assertIn("delete it first", "".join(answer.itertext()))
        self.succeed(self.delete(owner))
        self.assertIsNone(self.succeed(self.make(owner)).find("{%s}key" % DEVICE).get("status"))
        self.refused(self.make(owner, more), "conflict")

    def test_they_outlive_a_restart(self):
        owner, key, url = self.ready()
        more = "web-push='true' vapid='%s'" % self.sender.key
        self.instance.kill()
        self.instance.start()
        self.assertEqual(self.push_with(key, None).status, 401)
        self.assertEqual(self.push_with(key, self.sender.authorization(self.url(key))).status, 201)
        self.assertEqual(self.succeed(self.make(self.client("owner", "push"), more)).findtext("{%s}key" % DEVICE), key)

    def test_what_is_no_key_is_refused_and_leaves_no_node(self):
        owner = self.client("owner")
        point = webpush.unb64(self.sender.key)
        off = point[:64] + bytes([point[64] ^ 1])
        for vapid in ("", "x", self.sender.key[:-1], self.sender.key + "=", self.sender.key[:-1] + "!",
                      base64.b64encode(point).decode(), b64(b"\2" + point[1:33]), b64(b"\6" + point[1:]), b64(off),
                      b64(b"\4" + b"\0" * 64), b64(b"\4" + b"\xff" * 64), "A" * 87, "A" * 100000):
            self.refused(self.make(owner, "vapid='%s'" % vapid), "bad-request")
        for value in ("yes", "TRUE", "2"):
            self.refused(self.make(owner, "web-push='%s'" % value), "bad-request")
        self.refused(self.ext(owner, "<key node='%s'/>" % self.node, "get"), "item-not-found")

    def test_a_key_without_web_push_is_possible(self):
        owner, key, url = self.ready(more="")
        self.refusal(self.push_with(key, None), 401, 119)
        self.assertEqual(self.push_with(key, self.sender.authorization(url)).status, 201)
        self.assertEqual(self.next_item(owner).attributes, {})


class Tokens(VapidTest):
    def test_only_the_holder_of_the_key_publishes(self):
        owner, key, url = self.ready()
        for form in ("vapid t=%s, k=%s", "VAPID t=%s,k=%s", "vapid  t=\"%s\" ,\tk=\"%s\"", "vapid T=%s, K=%s",
                     "vapid x=y, t=%s, k=%s"):
            token = self.sender.token(self.sender.claims(url))
            self.assertEqual((form, self.push_with(key, form % (token, self.sender.key)).status), (form, 201))
            self.ack(owner, self.next_item(owner).id)
        other = Sender()
        self.refusal(self.push_with(key, other.authorization(url)), 403, 121)
        forged = other.token(other.claims(url))
        self.refusal(self.push_with(key, self.vapid(forged)), 403, 122)
        self.assert_quiet(owner)

    def test_over_xmpp_nobody_publishes_who_cannot_sign(self):
        owner, key, _ = self.ready()
        stanza = "<publish key='%s'><item><payload>x</payload></item></publish>" % key
        self.refused(self.ext(self.client("bob"), stanza), "forbidden")
        self.assert_quiet(owner)

    def test_an_endpoint_for_all_does_not_look_at_tokens(self):
        owner, key = self.endpoint()
        for authorization in ("vapid nonsense", "Basic eDp5", Sender().authorization(self.url(key))):
            self.assertEqual(self.push_with(key, authorization).status, 201)

    def test_what_is_missing_or_malformed_is_told_so(self):
        owner, key, url = self.ready()
        token = self.sender.token(self.sender.claims(url))
        header, claims, signature = token.split(".")
        answer = self.refusal(self.push_with(key, None), 401, 119)
        self.assertEqual(answer.headers["WWW-Authenticate"], "vapid")
        for scheme in ("Basic eDp5", "Bearer " + token, "WebPush " + token):
            self.refusal(self.push_with(key, scheme), 401, 119)
        for field in ("vapid", "vapid ", "vapid " + token, "vapid t=" + token, "vapid k=" + self.sender.key,
                      "vapid t=%s t=%s, k=%s" % (token, token, self.sender.key),
                      "vapid t=%s, t=%s, k=%s" % (token, token, self.sender.key), "vapid t=, k=" + self.sender.key,
                      "vapid t=\"%s, k=%s" % (token, self.sender.key), "vapid \xe4", "vapid t=\xff, k=\xff",
                      self.vapid("x" * 3000), self.vapid("x" * 15000)):
            self.refusal(self.push_with(key, field), 401, 120)
        nested = b64(b"[" * 600 + b"]" * 600)
        for wrong in (header, "%s.%s" % (header, claims), token + ".x", "..", "%s..%s" % (header, signature),
                      "%s.%s.%s=" % (header, claims, signature), "!.%s.%s" % (claims, signature),
                      "%s.%s.%s" % (b64(b"no JSON"), claims, signature), "%s.%s.%s" % (nested, claims, signature),
                      "%s.%s.%s" % (b64(b"\"text\""), claims, signature), "%s.%s.%s" % (header, b64(b"[]"), signature)):
            self.refusal(self.push_with(key, self.vapid(wrong)), 401, 120)
        self.assert_quiet(owner)

    def test_two_fields_are_refused(self):
        owner, key, url = self.ready()
        field = "Authorization: %s\r\n" % self.sender.authorization(url)
        self.assertEqual(self.raw(key, field), 201)
        self.assertEqual(self.raw(key, field + field), 401)

    def raw(self, key, fields):
        """The status of a message with these lines in its head."""
        host, port = self.server.env["HTTP_URL"].split("/")[2].split(":")
        with socket.create_connection((host, int(port)), 15) as link:
            link.sendall(("POST /push/%s HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\nConnection: close\r\n%s\r\nx"
                          % (key, fields)).encode())
            data = b""
            while b"\r\n" not in data:
                data += link.recv(4096)
        return int(data.split(b" ")[1])

    def test_only_es256_counts_and_nothing_in_the_header_changes_the_key(self):
        owner, key, url = self.ready()
        other = Sender()
        claims = self.sender.claims(url)
        numbers = webpush.unb64(other.key)
        jwk = {"kty": "EC", "crv": "P-256", "x": b64(numbers[1:33]), "y": b64(numbers[33:])}
        for header in ({"alg": "none"}, {"alg": "None"}, {"alg": "HS256"}, {"alg": "ES384"}, {"alg": "RS256"},
                       {"alg": "es256"}, {}, {"alg": ["ES256"]}, {"alg": None}, {"alg": "ES256", "crit": ["b64"]},
                       {"alg": "ES256", "b64": False}, {"alg": "ES256", "zip": "DEF"}):
            self.refusal(self.push_with(key, self.vapid(self.sender.token(claims, header))), 403, 122)
        for header in ({"alg": "ES256", "jwk": jwk}, {"alg": "ES256", "kid": "../../etc/passwd"},
                       {"alg": "ES256", "kid": self.sender.key}, {"alg": "ES256", "jku": "http://127.0.0.1/keys"},
                       {"alg": "ES256", "x5u": "http://127.0.0.1/cert"}):
            self.refusal(self.push_with(key, self.vapid(other.token(claims, header))), 403, 122)
            self.assertEqual(self.push_with(key, self.vapid(self.sender.token(claims, header))).status, 201)
        unsigned = webpush.signing_input({"alg": "none"}, claims) + "."
        self.assertIn(self.push_with(key, self.vapid(unsigned)).status, (401, 403))

    def test_a_signature_is_64_bytes_of_this_key_over_this_token(self):
        owner, key, url = self.ready()
        header, claims, signature = self.sender.token(self.sender.claims(url)).split(".")
        raw = webpush.unb64(signature)
        for wrong in (b"", raw[:63], raw + b"\0", b"\0" * 64, b"\xff" * 64, raw[32:] + raw[:32]):
            self.assertEqual(self.push_with(key, self.vapid("%s.%s.%s" % (header, claims, b64(wrong)))).status, 403)
        later = b64(webpush.compact(self.sender.claims(url, 13 * HOUR)))
        self.refusal(self.push_with(key, self.vapid("%s.%s.%s" % (header, later, signature))), 403, 122)

    def test_a_token_is_for_this_origin(self):
        owner, key, url = self.ready()
        origin = webpush.origin(url)
        port = origin.rsplit(":", 1)[1]
        for audience in ("https://push.example.org", "https://localhost", "http://localhost:" + port, origin + "0",
                         origin + "/", url, "localhost:" + port, "", "null", None, 1, [], {}, ["https://localhost"],
                         "https://localhost:%s@evil.example" % port, "https://x@localhost:" + port, origin + "?x", "\0"):
            self.refusal(self.push_with(key, self.sender.authorization(url, aud=audience)), 403, 122)
        for audience in (origin, origin.replace("localhost", "LOCALHOST"), [origin], ["https://a.example", origin]):
            self.assertEqual(self.push_with(key, self.sender.authorization(url, aud=audience)).status, 201)

    def test_a_token_is_valid_for_a_day_at_most(self):
        owner, key, url = self.ready()
        now = int(time.time())
        for expires in (now - 1, 0, -1, now + 25 * HOUR, 10 ** 30, 1e300, None, "soon", str(now + HOUR), True, [now + HOUR]):
            self.refusal(self.push_with(key, self.sender.authorization(url, exp=expires)), 403, 122)
        for expires in (now + 30, now + 24 * HOUR - 30, now + HOUR + 0.5):
            self.assertEqual(self.push_with(key, self.sender.authorization(url, exp=expires)).status, 201)

    def test_the_size_of_a_token_is_bounded(self):
        owner, key, url = self.ready()
        small, large = (self.sender.authorization(url, sub="mailto:" + "x" * size) for size in (500, 3000))
        self.assertEqual(self.push_with(key, small).status, 201)
        self.refusal(self.push_with(key, large), 401, 120)

    def test_no_change_of_a_token_is_taken(self):
        owner, key, url = self.ready()
        token = self.sender.token(self.sender.claims(url))
        chance = random.Random(8292)
        for _ in range(400):
            changed = bytearray(token.encode())
            for _ in range(chance.choice((1, 1, 2, 10))):
                place = chance.randrange(len(changed))
                kind = chance.randrange(3)
                if kind == 0:
                    changed[place] = chance.choice(b"ABCxyz0189-_.=\",\x80 ")
                elif kind == 1:
                    del changed[place]
                else:
                    changed.insert(place, chance.choice(b"Aa0-_.=\xff"))
            if changed != token.encode():
                answer = self.push_with(key, self.vapid(changed.decode("latin-1")))
                self.assertIn(answer.status, (401, 403), changed)
        self.assert_quiet(owner)

    def test_a_message_is_its_senders_alone(self):
        owner, key, url = self.ready()
        answer = self.push_with(key, self.sender.authorization(url))
        location = answer.headers["Location"]
        for method in ("GET", "DELETE"):
            self.refusal(self.message(location, method), 401, 119)
            self.refusal(self.message(location, method, {"Authorization": Sender().authorization(url)}), 403, 121)
        self.assertEqual(self.message(location, "DELETE", {"Authorization": self.sender.authorization(url)}).status, 204)

    def test_forged_tokens_cost_the_holder_of_the_key_nothing_of_its_rate(self):
        owner, key, url = self.ready()
        other = Sender()
        forged = self.vapid(other.token(other.claims(url)))
        for _ in range(1200):
            if self.push_with(key, forged).status != 403:
                self.fail("a forged token was not refused as such")
        self.assertEqual(self.push_with(key, self.sender.authorization(url)).status, 201)


class Unset(VapidTest):
    options = ['push_url=""']

    def test_without_an_address_of_the_server_no_token_can_be_checked(self):
        owner = self.client("owner")
        answer = self.refused(self.make(owner, "vapid='%s'" % self.sender.key), "feature-not-implemented")
        self.assertIn("push_url", "".join(answer.itertext()))
        found = self.succeed(self.make(owner, "web-push='true'")).find("{%s}key" % DEVICE)
        self.assertEqual(found.attrib, {"node": self.node})
