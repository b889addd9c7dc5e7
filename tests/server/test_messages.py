# SPDX-License-Identifier: GPL-3.0-only
"""The addresses of messages, what an endpoint says of itself, and the forms of refusals."""
import json
import os
import re
import socket

from pushtest import PushTest, webpush

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


class Messages(PushTest):
    def waiting(self, text="x"):
        """An absent device, the key, and the address of a message that waits."""
        owner, key = self.endpoint()
        owner.kill()
        self.settle()
        return key, self.publish_http(key, text).headers["Location"]

    def test_a_message_waits_until_it_is_taken(self):
        key, location = self.waiting()
        for _ in range(2):
            answer = self.message(location)
            self.assertEqual((answer.status, answer.body["state"]), (200, "waiting"))
        owner = self.again()
        self.ack(owner, self.next_item(owner).id)
        self.wait_for(lambda: self.message(location).body["state"] == "taken")
        self.refusal(self.message(location, "DELETE"), 410, 117)

    def test_a_message_is_taken_back_once(self):
        key, location = self.waiting()
        self.publish_http(key, "stays")
        answer = self.message(location, "DELETE")
        self.assertEqual((answer.status, answer.body, answer.headers.get("Content-Length")), (204, b"", None))
        self.refusal(self.message(location, "DELETE"), 410, 117)
        self.assertEqual(self.message(location).body["state"], "taken")
        self.instance.kill()
        self.instance.start()
        self.assertEqual(self.contents(self.again(), 1), [b"stays"])

    def test_a_message_for_two_devices_waits_for_both_and_is_taken_back_from_both(self):
        key, first = self.waiting("first")
        other = self.device("owner", "second")
        self.succeed(self.activate(other))
        location = self.publish_http(key, "x").headers["Location"]
        found = self.next_item(other)
        self.ack(other, found.id)
        self.settle(other)
        self.assertEqual(self.message(location).body["state"], "waiting")
        self.assertEqual(self.message(location, "DELETE").status, 204)
        self.assertEqual(self.contents(self.again(), 1), [b"first"])

    def test_what_was_sent_and_not_acknowledged_can_be_taken_back(self):
        owner, key = self.endpoint()
        location = self.publish_http(key, "x").headers["Location"]
        found = self.next_item(owner)
        self.assertEqual(self.message(location, "DELETE").status, 204)
        self.ack(owner, found.id)
        self.publish_http(key, "next")
        self.assertEqual(self.contents(owner, 1), [b"next"])

    def test_only_the_message_of_this_key_this_number_and_this_id_is_meant(self):
        key, location = self.waiting()
        other = self.key_node(self.client("owner"), self.node + "/other")
        number, item = location.rsplit("/", 1)[1].split("-")
        for wrong in ("/push/%s/%s-%s" % (other, number, item), "/push/%s/%d-%s" % (key, int(number) + 1, item),
                      "/push/%s/%s-%s" % (key, number, "other"), "/push/%s/1-%s" % (key, item)):
            self.refusal(self.message(wrong, "DELETE"), 410, 117)
            self.assertEqual(self.message(wrong).body["state"], "taken")
        for wrong in ("x", "-", "-1", "%s" % number, "0-x", "x-%s" % item, "9" * 30 + "-x", "%FF-x"):
            answer = self.message("/push/%s/%s" % (key, wrong), "DELETE")
            self.assertIn(answer.status, (400, 404))
        self.refusal(self.message("/push/nothing/%s-%s" % (number, item), "DELETE"), 404, 116)
        self.assertEqual(self.message(location).body["state"], "waiting")

    def test_other_methods_are_refused_with_those_that_there_are(self):
        key, location = self.waiting()
        for method in ("PUT", "PATCH"):
            answer = self.refusal(self.message(location, method), 405, 109)
            self.assertEqual(answer.headers["Allow"], "DELETE, GET, HEAD, OPTIONS")
        self.assertEqual(self.message(location, "HEAD").status, 200)


class Discovery(PushTest):
    def test_an_endpoint_says_that_it_is_one_whether_the_key_is_in_use_or_not(self):
        _, key = self.endpoint()
        answers = [self.message("/push/" + each) for each in (key, "nothing")] + [self.message("/push/"), self.message("/push")]
        for each in answers:
            self.assertEqual((each.status, each.body["unifiedpush"]), (200, {"version": 1}))
            self.assertEqual(each.body, answers[0].body)
        self.assertEqual(self.message("/push/nothing", "HEAD").status, 200)

    def test_a_page_of_any_origin_may_publish(self):
        _, key = self.endpoint()
        asked = {"Origin": "https://app.example", "Access-Control-Request-Method": "POST",
                 "Access-Control-Request-Headers": "ttl, urgency, content-encoding, authorization"}
        answer = self.message("/push/" + key, "OPTIONS", asked)
        self.assertEqual((answer.status, answer.body), (204, b""))
        self.assertEqual(answer.headers["Access-Control-Allow-Origin"], "*")
        self.assertEqual(answer.headers["Access-Control-Allow-Methods"], "GET, HEAD, OPTIONS, POST")
        allowed = answer.headers["Access-Control-Allow-Headers"].lower().split(", ")
        self.assertLessEqual({"ttl", "topic", "urgency", "content-encoding", "content-type", "authorization"}, set(allowed))
        for each in (self.publish_http(key, "x"), self.publish_http(key, "x", {"TTL": "x"}, 400)):
            self.assertEqual(each.headers["Access-Control-Allow-Origin"], "*")
            self.assertIn("Location", each.headers["Access-Control-Expose-Headers"])

    def test_every_number_of_a_refusal_is_on_the_page(self):
        with open(os.path.join(ROOT, "ejabberd", "pubsub_device_refusal.erl")) as file:
            numbers = {int(each) for each in re.findall(r"\{(?:\d{3}, )?(1\d\d),", file.read())}
        with open(os.path.join(ROOT, "docs", "push-errors.md")) as file:
            listed = {int(each) for each in re.findall(r"^### (\d+) ", file.read(), re.MULTILINE)}
        self.assertGreater(len(numbers), 25)
        self.assertEqual(listed, numbers)

    def test_a_field_that_comes_a_thousand_times_is_refused(self):
        owner, key = self.endpoint()
        host, port = self.server.env["HTTP_URL"].split("/")[2].split(":")
        for field, errno in ((b"TTL:1\r\n", 112), (b"Topic:a\r\n", 114), (b"Urgency:low\r\n", 115)):
            with socket.create_connection((host, int(port)), 15) as link:
                link.sendall(b"POST /push/%s HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\nConnection: close\r\n%s\r\nx"
                             % (key.encode(), field * 1000))
                data = b""
                while piece := link.recv(65536):
                    data += piece
            self.assertEqual((data.split(b" ")[1], json.loads(data.split(b"\r\n\r\n")[1])["errno"]), (b"400", errno))
        self.assert_quiet(owner)


class MatrixTest(PushTest):
    def notify(self, value, status=200):
        origin = "/".join(self.server.env["HTTP_URL"].split("/")[:3])
        body = value if isinstance(value, bytes) else json.dumps(value).encode()
        answer = webpush.request(origin + "/_matrix/push/v1/notify", "POST", body)
        if status is not None:
            self.assertEqual(answer.status, status, answer.body)
        return answer

    def notification(self, *pushkeys, **more):
        return {"notification": dict({"event_id": "$1", "room_id": "!r:x", "counts": {"unread": 2}}, **more,
                                     devices=[{"app_id": "a", "pushkey": each, "pushkey_ts": 1} for each in pushkeys])}


class Matrix(MatrixTest):
    def test_the_gateway_says_that_it_is_one(self):
        origin = "/".join(self.server.env["HTTPS_URL"].split("/")[:3])
        answer = webpush.request(origin + "/_matrix/push/v1/notify", context=self.context())
        self.assertEqual((answer.status, answer.body), (200, {"unifiedpush": {"gateway": "matrix"}}))

    def test_the_notification_without_its_devices_reaches_every_endpoint(self):
        owner, key = self.endpoint()
        other = self.node + "/other"
        plain = self.key_node(owner, other)
        self.succeed(self.activate(owner, node=other))
        sent = self.notification(self.url(key), "https://elsewhere.example/push/" + plain, self.url(key), content={"body": "ü"})
        self.assertEqual(self.notify(sent).body, {"rejected": []})
        del sent["notification"]["devices"]
        for node in (self.node, other):
            self.assertEqual(json.loads(self.next_item(owner, node).content), sent)
        self.assert_quiet(owner)

    def test_what_is_gone_is_rejected_and_the_others_get_theirs(self):
        owner, key = self.endpoint()
        gone = [self.url("nothing"), "https://x.example/other/" + key, "no address", "", "mailto:x@example.org",
                self.url(key) + "/x", "https://x.example/%ff", "file:///push/" + key]
        answer = self.notify(self.notification(self.url(key), *gone))
        self.assertEqual(sorted(answer.body["rejected"]), sorted(gone))
        self.assertEqual(len(self.contents(owner, 1)), 1)

    def test_an_endpoint_of_one_application_server_is_not_reached_in_this_way(self):
        owner, key = self.endpoint(more="vapid='%s'" % webpush.Sender().key)
        self.assertEqual(self.notify(self.notification(self.url(key))).body, {"rejected": [self.url(key)]})
        self.assert_quiet(owner)

    def test_one_that_is_too_large_arrives_with_what_finds_the_rest(self):
        owner, key = self.endpoint()
        self.assertEqual(self.notify(self.notification(self.url(key), content={"body": "x" * 5000}, prio="low")).body,
                         {"rejected": []})
        found = self.next_item(owner)
        self.assertEqual(json.loads(found.content), {"notification": {"event_id": "$1", "room_id": "!r:x", "prio": "low",
                                                                      "counts": {"unread": 2}}})
        self.assertEqual(found.attributes["urgency"], "low")

    def test_what_is_no_notification_is_refused(self):
        for value in (b"", b"no JSON", b"[]", b"{}", b"[" * 5000, {"notification": []}, {"notification": {}},
                      {"notification": {"devices": {}}}, {"notification": {"devices": []}},
                      {"notification": {"devices": ["x"]}}, {"notification": {"devices": [{"pushkey": 1}]}}):
            self.refusal(self.notify(value, 400), 400, 129)

    def test_a_request_has_so_many_devices_at_most(self):
        owner, key = self.endpoint()
        self.refusal(self.notify(self.notification(*[self.url(key)] * 101), 413), 413, 130)
        self.notify(json.dumps(self.notification(*[self.url(key)] * 10000)).encode(), 413)
        self.assert_quiet(owner)

    def test_other_methods_are_refused(self):
        origin = "/".join(self.server.env["HTTP_URL"].split("/")[:3])
        answer = webpush.request(origin + "/_matrix/push/v1/notify", "PUT", b"x")
        self.assertEqual((answer.status, answer.headers["Allow"]), (405, "GET, HEAD, POST"))


class Rates(MatrixTest):
    """A key with which hardly anything can be sent."""

    options = ["key_rate=1", "key_burst=5"]

    def exhausted(self):
        _, key = self.endpoint()
        location = None
        while True:
            status, headers, body = self.post(key, "x")
            if status != 201:
                return key, location, webpush.Answer(status, headers, body)
            location = headers["Location"]

    def test_a_refusal_says_how_long_to_wait(self):
        _, _, answer = self.exhausted()
        self.refusal(answer, 429, 123)
        self.assertGreaterEqual(int(answer.headers["Retry-After"]), 1)

    def test_the_rate_of_the_key_holds_for_its_messages(self):
        _, location, _ = self.exhausted()
        for method in ("GET", "DELETE") * 3:
            if self.message(location, method).status == 429:
                break
        else:
            self.fail("a message can be asked for without end")

    def test_a_key_above_its_rate_fails_the_request_so_that_it_is_sent_again(self):
        key, _, _ = self.exhausted()
        answers = [self.notify(self.notification(self.url(key)), None) for _ in range(4)]
        refused = [each for each in answers if each.status != 200]
        self.assertTrue(refused)
        for each in refused:
            self.refusal(each, 429, 123)
            self.assertTrue(each.headers["Retry-After"].isdigit())

