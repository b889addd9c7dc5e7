# SPDX-License-Identifier: GPL-3.0-only
"""Traces: the stations that a marked item has passed, told to the accounts that it concerns."""
import secrets

from pushtest import PushTest
from xmppclient import DEVICE

LATE = 600 * 1000000


class Trace(PushTest):
    options = ["key_rate=100000", "key_burst=100000"]
    member = "127.0.0.1"

    def setUp(self):
        super().setUp()
        self.mark = secrets.token_hex(12)
        self.item_id = "trace-" + self.mark

    def stations(self, client, item_id=None):
        """[(name, resource or None)] in the order of time, which does not run ahead of the server's."""
        item_id = item_id or self.item_id
        trace = self.succeed(self.ext(client, "<trace id='%s'/>" % item_id, "get")).find("{%s}trace" % DEVICE)
        self.assertEqual(trace.get("id"), item_id)
        found = trace.findall("{%s}station" % DEVICE)
        times = [int(each.get("at")) for each in found] + [int(trace.get("now"))]
        self.assertEqual(times, sorted(times))
        return [(each.get("name"), each.get("resource")) for each in found]

    def complete(self, client, count, item_id=None):
        self.wait_for(lambda: len(self.stations(client, item_id)) >= count)
        return self.stations(client, item_id)

    def test_an_item_over_http_until_it_is_acknowledged(self):
        owner, key = self.endpoint()
        self.assertEqual(self.stations(owner), [])
        answer = self.publish_http(key, "x", {"Trace": self.mark})
        self.assertEqual(answer.body["id"], self.item_id)
        self.assertEqual(self.next_item(owner).id, self.item_id)
        # A device does not wait for the disk, so it may have the item first.
        self.assertEqual(sorted(self.complete(owner, 3)), [("accepted", None), ("committed", None), ("sent", "push")])
        self.ack(owner, self.item_id)
        self.assertEqual(self.complete(owner, 4)[3], ("acknowledged", "push"))

    def test_an_item_for_an_absent_device_is_accepted_and_committed_until_the_device_comes(self):
        owner, key = self.endpoint()
        owner.kill()
        self.settle()
        self.publish_http(key, "x", {"Trace": self.mark})
        other = self.client("owner", "looks")
        self.assertEqual(self.stations(other), [("accepted", None), ("committed", None)])
        self.again()
        self.assertEqual(self.complete(other, 3)[2], ("sent", "push"))

    def test_an_item_over_xmpp_each_account_sees_its_own_stations(self):
        owner, other = self.device("owner", "one"), self.device("bob", "two")
        self.create(owner, access_model="open")
        self.succeed(self.subscribe(owner))
        self.succeed(self.subscribe(other))
        self.publish(owner, "x", self.item_id)
        for device in (owner, other):
            self.assertEqual(self.next_item(device).id, self.item_id)
        self.assertEqual(sorted(self.complete(owner, 3)), [("accepted", None), ("committed", None), ("sent", "one")])
        self.assertEqual(self.complete(other, 1), [("sent", "two")])
        self.ack(other, self.item_id)
        self.assertEqual(self.complete(other, 2)[1], ("acknowledged", "two"))
        self.assertEqual(len(self.stations(owner)), 3)

    def test_an_item_with_a_key_over_xmpp(self):
        owner, key = self.endpoint()
        sender = self.client("bob", "sends")
        self.succeed(self.ext(sender, "<publish key='%s'><item id='trace-%s'><payload>x</payload></item></publish>"
                              % (key, self.mark)))
        self.assertEqual(self.complete(owner, 3)[0], ("accepted", None))
        self.assertEqual(self.stations(sender), [])

    def test_ordinary_items_and_long_ids_are_not_recorded(self):
        owner, key = self.endpoint()
        ordinary = self.publish_http(key, "x").body["id"]
        long_id = "trace-" + "a" * 75
        self.create(owner, node="/another")
        self.publish(owner, "x", long_id, node="/another")
        self.assertEqual(self.stations(owner, ordinary), [])
        self.assertEqual(self.stations(owner, long_id), [])

    def test_a_malformed_mark_is_refused_and_nothing_published(self):
        owner, key = self.endpoint()
        for mark in ("", "a" * 15, "a" * 33, "a" * 15 + "!", "a" * 15 + "/"):
            self.refusal(self.publish_http(key, "x", {"Trace": mark}, expected=400), 400, 131)
        self.publish_http(key, "last")
        self.assertEqual(self.contents(owner, 1), [b"last"])

    def test_an_account_has_so_many_stations_and_its_oldest_go_first(self):
        owner, key = self.endpoint()
        owner.kill()
        self.settle()
        other = self.client("bob", "sends")
        self.create(other, node="/of/another")
        self.publish(other, "x", self.item_id, node="/of/another")
        for number in range(34):
            self.publish_http(key, "x", {"Trace": "%s%02d" % (self.mark, number)})
        looks = self.client("owner", "looks")
        seen = [len(self.stations(looks, "trace-%s%02d" % (self.mark, number))) for number in range(34)]
        self.assertEqual(seen, [0] * 2 + [2] * 32)
        self.assertEqual(len(self.stations(other)), 2)

    def test_they_are_forgotten_after_some_minutes(self):
        owner, key = self.endpoint()
        self.publish_http(key, "x", {"Trace": self.mark})
        self.complete(owner, 3)
        self.instance.evaluate("pubsub_device_trace:sweep()")
        self.assertEqual(len(self.stations(owner)), 3)
        self.instance.evaluate("[ets:insert(pubsub_device_traces, {{A, T - %d, N}, I, S, R}) || "
                               "{{A, T, N} = K, I, S, R} <- ets:tab2list(pubsub_device_traces), "
                               "ets:delete(pubsub_device_traces, K)]" % LATE)
        self.assertEqual(len(self.stations(owner)), 3)
        self.instance.evaluate("pubsub_device_trace:sweep()")
        self.assertEqual(self.stations(owner), [])
