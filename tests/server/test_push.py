# SPDX-License-Identifier: GPL-3.0-only
"""Messages of web push: their bytes, how long they are kept, and their topics."""
import os
import socket

from pushtest import PushTest, webpush
from xmppclient import DEVICE

MONTH = 30 * 86400


class Bodies(PushTest):
    def test_any_bytes_reach_the_device_as_they_were_sent(self):
        owner, key = self.endpoint()
        every = bytes(range(256)) * 4
        for body in (every, b"\xff\xfe", b"a\x00b", b"\x1b[0m", b"\xed\xa0\x80", b"\xef\xbf\xbf", b"half \xe2\x82", os.urandom(4096)):
            self.publish_http(key, body)
            found = self.next_item(owner)
            self.assertEqual((found.content, found.encoding), (body, "base64"))
            self.ack(owner, found.id)

    def test_what_is_text_for_xml_goes_as_text(self):
        owner, key = self.endpoint()
        for body in ("plain", "grüße <&> ]]> \U0001f600\t\r\nend", "\ufffd"):
            self.publish_http(key, body)
            found = self.next_item(owner)
            self.assertEqual((found.content, found.encoding), (body.encode(), None))
            self.ack(owner, found.id)

    def test_an_endpoint_of_web_push_takes_4096_bytes_and_others_what_the_option_says(self):
        owner, key = self.endpoint()
        self.publish_http(key, b"\xff" * 4096)
        self.assertEqual(len(self.next_item(owner).content), 4096)
        answer = self.refusal(self.publish_http(key, b"\xff" * 4097, expected=413), 413, 111)
        self.assertIn("4096", answer.body["error"])
        other = self.node + "/other"
        plain = self.key_node(owner, other)
        self.succeed(self.activate(owner, node=other))
        self.publish_http(plain, b"\xff" * 65536)
        self.assertEqual(len(self.next_item(owner, other).content), 65536)
        self.refusal(self.publish_http(plain, b"\xff" * 65537, expected=413), 413, 111)

    def test_a_message_without_content_is_one_for_web_push_alone(self):
        owner, key = self.endpoint()
        self.publish_http(key, b"")
        self.assertEqual(self.next_item(owner).content, b"")
        plain = self.key_node(owner, self.node + "/other")
        self.refusal(self.publish_http(plain, b"", expected=400), 400, 110)

    def test_an_encrypted_message_over_tls_is_decrypted_by_the_application(self):
        owner, key = self.endpoint()
        application = webpush.Receiver()
        answer = webpush.Sender().push(self.url(key), application.subscription, b"When I grow up", context=self.context())
        self.assertEqual(answer.status, 201)
        self.assertEqual(application.decrypt(self.next_item(owner).content), b"When I grow up")

    def test_ten_encrypted_messages_outlive_an_absent_device_and_a_killed_server_in_their_order(self):
        owner, key = self.endpoint()
        owner.kill()
        self.settle()
        application, sender = webpush.Receiver(), webpush.Sender()
        texts = [b"message %d" % each for each in range(10)]
        for text in texts:
            self.assertEqual(sender.push(self.url(key), application.subscription, text, context=self.context()).status, 201)
        self.instance.kill()
        self.instance.start()
        found = self.contents(self.again(), 10)
        self.assertEqual([application.decrypt(each) for each in found], texts)


class Times(PushTest):
    def test_the_answer_grants_the_time_and_the_item_says_it(self):
        owner, key = self.endpoint()
        before = self.now()
        self.assertEqual(self.publish_http(key, "x", {"TTL": "60"}).headers["TTL"], "60")
        found = self.next_item(owner)
        published, expires = int(found.attributes["published"]), int(found.attributes["expires"])
        self.assertLessEqual(before, published)
        self.assertLessEqual(published, self.now())
        self.assertEqual(expires - published, 60)
        self.assertEqual(set(found.attributes), {"published", "expires"})

    def test_no_more_is_granted_than_anything_is_kept(self):
        owner, key = self.endpoint()
        for asked in (str(MONTH + 1), "4294967296", "9" * 300, "0" * 300 + "9" * 300):
            self.assertEqual((asked[:20], self.publish_http(key, "x", {"TTL": asked}).headers["TTL"]),
                             (asked[:20], str(MONTH)))
            found = self.next_item(owner)
            self.assertEqual(int(found.attributes["expires"]) - int(found.attributes["published"]), MONTH)
            self.ack(owner, found.id)
        self.assertEqual(self.publish_http(key, "x", {"TTL": "0060"}).headers["TTL"], "60")

    def test_without_a_time_a_message_of_web_push_has_the_longest_and_another_has_none(self):
        owner, key = self.endpoint()
        self.assertEqual(self.publish_http(key, "x").headers["TTL"], str(MONTH))
        found = self.next_item(owner)
        self.assertEqual(int(found.attributes["expires"]) - int(found.attributes["published"]), MONTH)
        other = self.node + "/other"
        plain = self.key_node(owner, other)
        self.succeed(self.activate(owner, node=other))
        self.publish_http(plain, "x")
        found = self.next_item(owner, other)
        self.assertEqual(found.attributes, {})
        self.ack(owner, found.id, other)
        self.publish_http(plain, "x", {"TTL": "5"})
        self.assertEqual(set(self.next_item(owner, other).attributes), {"published", "expires"})

    def test_what_is_no_time_is_refused(self):
        owner, key = self.endpoint()
        for value in ("", "-1", "+1", "1.5", "1e3", "0x10", "60, 60", "60s", "١", " ", "\xb2"):
            answer = self.publish_http(key, "x", {"TTL": value.encode("utf-8").decode("latin-1")}, 400)
            self.refusal(answer, 400, 112)
        self.assert_quiet(owner)

    def test_a_late_message_is_not_sent(self):
        owner, key = self.endpoint()
        owner.kill()
        self.settle()
        location = self.publish_http(key, "late", {"TTL": "1"}).headers["Location"]
        self.publish_http(key, "in time", {"TTL": "600"})
        self.wait_for(lambda: self.message(location).body["state"] == "taken")
        self.assertEqual(self.contents(self.again(), 1), [b"in time"])

    def test_a_late_message_is_dropped_also_while_nobody_asks_for_it(self):
        owner, key = self.endpoint()
        owner.kill()
        self.settle()
        self.publish_http(key, "late", {"TTL": "1"})
        self.publish_http(key, "stays", {"TTL": "600"})
        carol = self.client("owner", "push")
        waiting = "<waiting><node id='%s'/></waiting>" % self.node
        self.wait_for(lambda: self.succeed(self.ext(carol, waiting, "get")).find(".//{%s}node" % DEVICE).get("count") == "1")

    def test_a_late_message_stays_away_after_a_restart(self):
        owner, key = self.endpoint()
        owner.kill()
        self.settle()
        self.publish_http(key, "late", {"TTL": "1"})
        self.publish_http(key, "in time", {"TTL": "600"})
        end = self.now() + 2
        self.instance.stop()
        self.wait_for(lambda: self.now() > end)
        self.instance.start()
        self.assertEqual(self.contents(self.again(), 1), [b"in time"])

    def test_without_a_time_to_live_only_a_device_that_is_there_gets_it(self):
        owner, key = self.endpoint("here")
        absent = self.client("owner", "absent")
        self.succeed(self.make(absent, "web-push='true'"))
        absent.kill()
        self.settle()
        answer = self.publish_http(key, "now", {"TTL": "0"})
        self.assertEqual(answer.headers["TTL"], "0")
        found = self.next_item(owner)
        self.assertEqual(found.content, b"now")
        self.assertIn("expires", found.attributes)
        self.ack(owner, found.id)
        self.assertEqual(self.contents(self.again("absent"), 0), [])

    def test_without_a_time_to_live_nothing_is_kept_for_an_absent_device_or_an_inactive_node(self):
        owner, key = self.endpoint()
        self.succeed(self.ext(owner, "<deactivate node='%s'/>" % self.node))
        for _ in range(2):
            location = self.publish_http(key, "now", {"TTL": "0"}).headers["Location"]
            self.assertEqual(self.message(location).body["state"], "taken")
            owner.kill()
            self.settle()
        self.assertEqual(self.contents(self.again(), 0), [])

    def test_a_flood_of_short_lived_messages_leaves_room_for_others(self):
        owner, key = self.endpoint()
        owner.kill()
        self.settle()
        for each in range(200):
            self.publish_http(key, str(each), {"TTL": "1"})
        last = self.publish_http(key, "199", {"TTL": "1"}).headers["Location"]
        self.publish_http(key, "stays", {"TTL": "600"})
        self.wait_for(lambda: self.message(last).body["state"] == "taken")
        self.assertEqual(self.contents(self.again(), 1), [b"stays"])


class Listening(PushTest):
    """A server that lets the tests change what runs in it."""

    member = "127.0.0.9"

    def test_a_handler_of_the_servers_own_listener_reads_the_same_fields(self):
        owner, key = self.endpoint(more="web-push='true' vapid='%s'" % (sender := webpush.Sender()).key)
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        self.instance.evaluate("ok = ejabberd_listener:add_listener({%d, {127,0,0,1}, tcp}, ejabberd_http, #{request_handlers "
                               "=> [{[<<\"push\">>], pubsub_device_http}]})" % port)
        url = "http://127.0.0.1:%d/push/%s" % (port, key)
        fields = {"TTL": "60", "Topic": "a", "Urgency": "high", "Authorization": sender.authorization(self.url(key))}
        answer = webpush.request(url, "POST", b"\xff", fields)
        self.assertEqual((answer.status, answer.headers["TTL"]), (201, "60"))
        found = self.next_item(owner)
        self.assertEqual((found.content, found.attributes["urgency"]), (b"\xff", "high"))
        for changed, status in ((dict(fields, TTL="x"), 400), (dict(fields, Topic="."), 400), (dict(fields, Urgency="x"), 400),
                                (dict(fields, Authorization="vapid x"), 401)):
            self.assertEqual(webpush.request(url, "POST", b"x", changed).status, status)
        location = "http://127.0.0.1:%d%s" % (port, answer.headers["Location"])
        self.assertEqual(webpush.request(location, "DELETE", headers=fields).status, 204)
        self.assertEqual(webpush.request(url, "OPTIONS").status, 204)

    def test_a_late_message_is_passed_over_before_it_is_dropped(self):
        owner, key = self.endpoint()
        owner.kill()
        self.settle()
        self.instance.evaluate("sys:suspend(pubsub_device_sweep)")
        location = self.publish_http(key, "late", {"TTL": "1"}).headers["Location"]
        self.publish_http(key, "in time", {"TTL": "600"})
        self.wait_for(lambda: self.message(location).body["state"] == "taken")
        self.assertEqual(self.contents(self.again(), 1), [b"in time"])
        self.instance.evaluate("sys:resume(pubsub_device_sweep)")


class Demanded(PushTest):
    options = ["require_ttl=true", "push_url=https://push.example.org:8443"]

    def test_a_time_may_be_demanded_of_web_push(self):
        owner, key = self.endpoint()
        self.refusal(self.publish_http(key, "x", expected=400), 400, 113)
        self.publish_http(key, "x", {"TTL": "5"})
        self.publish_http(self.key_node(owner, self.node + "/other"), "x")

    def test_the_address_is_the_operators(self):
        found = self.succeed(self.make(self.client("owner"), "web-push='true'")).find("{%s}key" % DEVICE)
        self.assertEqual(found.get("url"), "https://push.example.org:8443/push/" + found.text)


class Topics(PushTest):
    def away(self, more="web-push='true'"):
        owner, key = self.endpoint(more=more)
        owner.kill()
        self.settle()
        return key

    def test_a_message_takes_the_place_of_the_one_with_its_topic(self):
        key = self.away()
        first = self.publish_http(key, "a1", {"Topic": "a"}).headers["Location"]
        self.publish_http(key, "b", {"Topic": "b"})
        self.publish_http(key, "none")
        self.publish_http(key, "a2", {"Topic": "a"})
        self.publish_http(key, "a3", {"Topic": "a", "TTL": "60"})
        self.assertEqual(self.message(first).body["state"], "taken")
        self.assertEqual(self.contents(self.again(), 3), [b"b", b"none", b"a3"])

    def test_the_topic_is_not_sent(self):
        owner, key = self.endpoint(more="")
        self.publish_http(key, "x", {"Topic": "a"})
        self.assertEqual(self.next_item(owner).attributes, {})

    def test_a_topic_is_of_its_endpoint_alone(self):
        owner, key = self.endpoint()
        other = self.key_node(owner, self.node + "/other")
        owner.kill()
        self.settle()
        self.publish_http(key, "mine", {"Topic": "a"})
        self.publish_http(other, "theirs", {"Topic": "a"})
        self.assertEqual(self.contents(self.again(), 1), [b"mine"])

    def test_a_topic_outlives_a_restart(self):
        key = self.away()
        self.publish_http(key, "before", {"Topic": "a"})
        self.publish_http(key, "other", {"Topic": "b"})
        self.instance.kill()
        self.instance.start()
        self.publish_http(key, "after", {"Topic": "a"})
        self.assertEqual(self.contents(self.again(), 2), [b"other", b"after"])

    def test_a_message_for_nobody_takes_the_place_too(self):
        key = self.away()
        self.publish_http(key, "old", {"Topic": "a"})
        self.publish_http(key, "now or never", {"Topic": "a", "TTL": "0"})
        self.assertEqual(self.contents(self.again(), 0), [])

    def test_what_was_sent_and_not_acknowledged_is_replaced_as_well(self):
        owner, key = self.endpoint()
        self.publish_http(key, "a1", {"Topic": "a"})
        self.assertEqual(self.next_item(owner).content, b"a1")
        self.publish_http(key, "a2", {"Topic": "a"})
        owner.kill()
        self.settle()
        self.assertEqual(self.contents(self.again(), 1), [b"a2"])

    def test_what_is_no_topic_is_refused(self):
        owner, key = self.endpoint()
        for value in ("", "a b", "a=", "a+b", "a/b", "x" * 33, "a,b", "\xe4"):
            self.refusal(self.publish_http(key, "x", {"Topic": value}, 400), 400, 114)
        self.assert_quiet(owner)
        self.publish_http(key, "x", {"Topic": "-_09azAZ" * 4})

    def test_many_topics_leave_nothing_behind(self):
        owner, key = self.endpoint()
        owner.kill()
        self.settle()
        for each in range(300):
            self.publish_http(key, str(each), {"Topic": "t%d" % each})
        for each in range(300):
            self.publish_http(key, "again %d" % each, {"Topic": "t%d" % each})
        self.assertEqual(self.contents(self.again(), 300), [b"again %d" % each for each in range(300)])


class Small(PushTest):
    options = ["max_payload=100"]

    def test_an_endpoint_of_web_push_takes_4096_bytes_whatever_the_option_says(self):
        owner, key = self.endpoint()
        self.publish_http(key, b"\xff" * 4096)
        self.assertEqual(len(self.next_item(owner).content), 4096)
        plain = self.key_node(owner, self.node + "/other")
        for size in (101, 4096, 5000):
            self.refusal(self.publish_http(plain, b"x" * size, expected=413), 413, 111)
