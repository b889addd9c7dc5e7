# SPDX-License-Identifier: GPL-3.0-only
"""What an operator sees: the metrics, their numbers, and what they must not tell."""
import base64
import glob
import json
import os
import re
import socket
import time
import urllib.error
import urllib.request

import yaml
from exposition import Metrics
from harness import PASSWORD, Instance, ServerTest
from xmppclient import PUBSUB, connect

HOSTILE = 'a"b}\\{c="d"\n# TYPE evil counter\nevil{x="y"} 1'
PREFIX = "pubsub_device_"
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


def fetch(url, data=None, headers=None, method=None):
    """Status, headers and text of a request over HTTP."""
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    try:
        with opener.open(urllib.request.Request(url, data, headers or {}, method=method), timeout=30) as answer:
            return answer.status, answer.headers, answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.headers, error.read().decode()


class MetricsTest(ServerTest):
    def scrape(self, server=None):
        status, headers, text = fetch((server or self.server).env["METRICS_URL"])
        self.assertEqual((status, headers["Content-Type"]), (200, "text/plain; version=0.0.4; charset=utf-8"))
        return Metrics(text)

    def value(self, *key):
        return self.scrape()[(PREFIX + key[0], *key[1:])]

    def assert_counts(self, name, changes, act):
        """The samples of the metric that rise when `act` is called, and how much. Others do not change."""
        before = self.scrape()
        act()
        self.wait_for(lambda: self.scrape().changes(before, PREFIX + name) != {} or not changes)
        self.wait_for(lambda: sum(self.scrape().changes(before, PREFIX + name).values()) >= sum(changes.values()))
        self.assertEqual(self.scrape().changes(before, PREFIX + name), changes)

    def wait_value(self, name, expected):
        self.wait_for(lambda: self.value(name) == expected)

    def away(self, user, resource, *nodes):
        """An absent device that subscribed to the owner's nodes; the owner."""
        owner, device = self.client("owner"), self.device(user, resource)
        for node in nodes:
            self.create(owner, node)
            self.succeed(self.subscribe(device, node=node))
        device.kill()
        return owner

    def command(self, name, **arguments):
        """Status and decoded answer of a command over the server's API."""
        status, _, text = fetch("%s/%s" % (self.server.env["API_URL"], name), json.dumps(arguments).encode(),
                                {"Content-Type": "application/json"})
        return status, json.loads(text)


class Text(MetricsTest):
    member = "127.0.0.1"

    def test_a_label_escapes_what_would_end_it(self):
        escaped = self.instance.evaluate("list_to_binary(pubsub_device_exposition:escaped(\"a\\\"b\\\\c\\nd\"))")
        self.assertEqual(escaped, r'<<"a\\\"b\\\\c\\nd">>')

    def test_every_gauge_and_counter_is_printed_from_the_start(self):
        metrics = self.scrape()
        for name, (kind, text) in metrics.families.items():
            self.assertTrue(name.startswith(PREFIX), name)
            self.assertTrue(text.endswith("."), text)
            self.assertEqual(kind == "counter", name.endswith("_total"), name)
            self.assertTrue([each for each in metrics.samples if each[0].startswith(name)], name)

    def test_the_listener_serves_nothing_else_and_the_one_for_publishers_serves_no_metrics(self):
        base = self.server.env["METRICS_URL"][:-len("/metrics")]
        for path in ("/", "/push/x", "/api/status", "/admin/", "/metrics/x"):
            self.assertEqual((path, fetch(base + path)[0]), (path, 404))
        self.assertEqual(fetch(base + "/metrics", b"x")[0], 405)
        status, _, text = fetch(base + "/metrics", method="HEAD")
        self.assertEqual((status, text), (200, ""))
        for path in ("/metrics", "/push/metrics", "/metrics/"):
            self.assertNotIn(PREFIX, fetch(self.server.env["HTTP_URL"][:-len("/push")] + path)[2])

    def test_the_listener_takes_no_address_that_is_not_written(self):
        """A listener of the server listens on all addresses unless it is told."""
        check = ("Options = [{<<\"port\">>, 1}, {<<\"module\">>, <<\"pubsub_device_metrics_listener\">>} | More], "
                 "try (ejabberd_listener:validator())([Options]) of _ -> taken catch _:_ -> refused end")
        self.assertEqual(self.instance.evaluate("More = [], " + check), "refused")
        self.assertEqual(self.instance.evaluate("More = [{<<\"ip\">>, <<\"::1\">>}], " + check), "taken")

    def test_hostile_names_are_in_no_label(self):
        before = self.scrape()
        names = ["/owner/%s/%d" % (re.sub(r"[\n]", "", HOSTILE), each) for each in range(3)] + [HOSTILE]
        owner, bob = self.device("owner", re.sub(r"[\n]", " ", HOSTILE)), self.device("bob", 'bob"} 1')
        keys = [self.key_node(owner, node) for node in names]
        plain = self.node + HOSTILE.replace("\n", "")
        self.succeed(self.create(owner, plain))
        self.succeed(self.subscribe(bob, node=plain))
        self.publish(owner, HOSTILE, HOSTILE.replace("\n", ""), plain)
        bob.kill()
        self.publish(owner, HOSTILE, "kept", plain)
        for key in keys + [urllib.request.quote(HOSTILE, safe="")]:
            self.post(key, HOSTILE)
            self.ext(owner, "<publish key='%s'><item><payload/></item></publish>" % key)
        self.create(bob if not bob.ended else self.client("bob"), names[0])
        self.wait_for(lambda: self.value("publications_total", ("way", "http")) >= 4)
        after = self.scrape()
        self.assertEqual(set(after.samples), set(before.samples))
        text = fetch(self.server.env["METRICS_URL"])[2]
        for word in keys + ["evil", "owner", "bob", "localhost", "kept\""]:
            self.assertNotIn(word, text)


class Names(MetricsTest):
    """What stands in files, beside what the server prints."""

    def read(self, name):
        with open(os.path.join(ROOT, name), encoding="utf-8") as file:
            return file.read()

    def test_the_alerts_ask_for_metrics_and_labels_that_are_printed(self):
        metrics = self.scrape()
        names = {key[0] for key in metrics.samples}
        values = {(key[0], *label) for key in metrics.samples for label in key[1:]}
        groups = yaml.safe_load(self.read("packaging/pubsub-device.alerts.yml"))["groups"]
        rules = [rule for group in groups for rule in group["rules"]]
        self.assertGreaterEqual(len(rules), 5)
        self.assertEqual(len({rule["alert"] for rule in rules}), len(rules))
        used = set()
        for rule in rules:
            with self.subTest(rule["alert"]):
                self.assertLessEqual(set(rule), {"alert", "expr", "for", "labels", "annotations"})
                self.assertRegex(rule.get("for", "1m"), r"^\d+[smh]$")
                self.assertIn(rule["labels"]["severity"], ("info", "warning", "critical"))
                self.assertEqual(set(rule["annotations"]), {"summary", "description"})
                text = rule["expr"] + " ".join(rule["annotations"].values())
                asked = set(re.findall(r"\b%s\w+" % PREFIX, rule["expr"]))
                self.assertTrue(asked)
                self.assertEqual(asked - names, set())
                told = set(re.findall(r"\b%s\w+" % PREFIX, text)) - asked - {PREFIX + "metrics_listener", PREFIX + "top"}
                self.assertEqual(told - set(metrics.families), set())
                matched = set(re.findall(r'(%s\w+)\{(\w+)!?="(\w+)"\}' % PREFIX, rule["expr"]))
                self.assertEqual(rule["expr"].count("{"), len(matched))
                self.assertEqual(matched - values, set())
                used |= asked
        for name in ("kept_bytes", "oldest_item_age_seconds", "refusals_total", "commit_seconds_bucket", "writer_backlog"):
            self.assertIn(PREFIX + name, used)

    def test_the_page_lists_every_metric_with_its_kind_and_labels(self):
        """And every reason, in the tables after it."""
        metrics = self.scrape()
        section = self.read("docs/operations.md").split("\n## Metrics\n")[1].split("\n## ")[0]
        rows = [line[2:-2].split(" | ") for line in section.splitlines() if line.startswith("| `" + PREFIX)]
        listed = {name: row[1] for row in rows for name in re.findall(r"`(\w+)`", row[0])}
        self.assertEqual(set(listed), set(metrics.families))
        for name, kind in listed.items():
            labels = {label for key in metrics.samples if key[0] == name for label in key[1:]}
            names = {label for label, _ in labels}
            self.assertEqual((name, kind.split(",")[0]), (name, metrics.families[name][0]))
            self.assertTrue(all("`%s`" % label in kind for label in names), name)
            if names == {"reason"}:
                told = re.split(r"\n\| Reason of a (?:%s)" % {"refusals_total": "refusal", "dropped_total": "drop"}
                                [name[len(PREFIX):]], section)[1].split("\n\n")[0]
                told = {word for line in told.splitlines()[2:] for word in re.findall(r"`(\w+)`", line.split(" | ")[0])}
                self.assertEqual(told, {value for _, value in labels})
            elif names and names != {"status"} and names != {"writer"}:
                self.assertEqual(set(re.findall(r"`(\w+)`", kind)) - names, {value for _, value in labels})
        bounds = [bound for bound, _ in metrics.buckets(PREFIX + "commit_seconds")][:-1]
        told = re.search(r"buckets of all histograms are (.*?) milliseconds, and (.*?) seconds", section, re.DOTALL)
        numbers = [[float(number) for number in re.findall(r"\d+(?:\.\d+)?", part)] for part in told.groups()]
        self.assertEqual([number / 1000 for number in numbers[0]] + numbers[1], bounds)

    def test_every_event_that_the_sources_count_is_in_the_table(self):
        """A name that is not in the table is not counted, and nothing says so."""
        metrics = self.scrape()
        counted = set()
        for name in glob.glob(os.path.join(ROOT, "ejabberd", "*.erl")):
            counted |= set(re.findall(r"pubsub_device_metrics:(?:count|set|observe|timed)\((\{\w+, \w+\}|\w+)",
                                      self.read(name)))
        table = self.read("ejabberd/pubsub_device_metrics.erl")
        names = dict(re.findall(r'#family\{key = (\w+), name = "(\w+)"', table))
        literal = [each for each in counted if not re.search(r"\b[A-Z]", each)]
        self.assertGreater(len(literal), 15)
        for each in literal:
            key, *value = re.findall(r"\w+", each)
            found = [sample for sample in metrics.samples if sample[0].startswith(PREFIX + names.get(key, "?"))
                     and (not value or sample[1][1] == value[0])]
            self.assertTrue(found, each)


class Counters(MetricsTest):
    member = "127.0.0.1"

    def test_publications_count_by_the_way_that_they_came(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        key = self.key_node(owner, self.node + "/key")
        by_key = "<publish key='%s'><item><payload>x</payload></item></publish>" % key
        self.assert_counts("publications_total", {"xmpp": 2}, lambda: [self.publish(owner, "x") for _ in range(2)])
        self.assert_counts("publications_total", {"key": 3},
                           lambda: [self.succeed(self.ext(owner, by_key)) for _ in range(3)])
        self.assert_counts("publications_total", {"http": 4}, lambda: [self.post(key, "x") for _ in range(4)])
        call = ("{result, _} = mod_pubsub:publish_item(<<\"%s\">>, <<\"%s\">>, <<\"%s\">>, jid:decode(<<\"%s\">>), <<>>, "
                "[{xmlel, <<\"payload\">>, [], []}]), ok"
                % (self.server.pubsub, self.server.domain, self.node, owner.jid))
        self.assert_counts("publications_total", {"server": 1}, lambda: self.instance.evaluate(call))

    def test_refusals_count_by_their_reason(self):
        owner, bob = self.client("owner"), self.client("bob")
        self.succeed(self.create(owner))
        key = self.key_node(owner, self.node + "/key")
        by_key = "<publish key='%s'><item>%s</item></publish>"
        stranger = "<affiliations node='%s'><affiliation jid='bob@localhost' affiliation='owner'/></affiliations>"
        acts = [
            ("unknown_key", lambda: self.post("nothing", "x")),
            ("unknown_key", lambda: self.ext(owner, by_key % ("nothing", "<payload/>"))),
            ("payload", lambda: self.post(key, b"\xff")),
            ("payload", lambda: self.post(key, b"")),
            ("payload", lambda: self.ext(owner, by_key % (key, "<other/>"))),
            ("max_payload", lambda: self.post(key, "x" * 65537)),
            ("engine", lambda: owner.iq("set", self.publish_stanza("x", node=self.node + "/missing"))),
            ("engine", lambda: bob.iq("set", self.publish_stanza("x"))),
            ("foreign", lambda: self.create(bob, "/owner/x/y")),
            ("foreign", lambda: self.ext(bob, "<create-key-node node='/owner/x/y'/>")),
            ("foreign", lambda: self.pubsub(owner, stranger % self.node, namespace=PUBSUB + "#owner")),
            ("stream_element", lambda: bob.iq("set", "<stream:a/>")),
            ("depth", lambda: self.client("carol").send("<message>%s%s</message>" % ("<a>" * 300, "</a>" * 300))),
        ]
        for reason, act in acts:
            with self.subTest(reason):
                self.assert_counts("refusals_total", {reason: 1}, act)
        self.assert_counts("refusals_total", {}, lambda: [self.publish(owner, "x"), self.post(key, "x")])

    def test_items_that_are_sent_and_acknowledged_count_with_their_times(self):
        owner, bob = self.client("owner"), self.device("bob", "times")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        before = self.scrape()
        began = time.monotonic()
        for number in range(5):
            self.publish(owner, str(number), "id%d" % number)
        found = self.take(bob, 5)
        sent = time.monotonic()
        time.sleep(0.3)  # not for luck: it is what is measured
        for each in found:
            self.ack(bob, each.id)
        self.settle(bob)
        acknowledged = time.monotonic()
        after = self.scrape()
        rise = lambda name: after[PREFIX + name] - before[PREFIX + name]
        self.assertEqual(after.changes(before, PREFIX + "sent_total"), {"first": 5})
        self.assertEqual(rise("acknowledged_total"), 5)
        self.assertEqual(rise("delivery_seconds_count"), 5)
        self.assertLessEqual(rise("delivery_seconds_sum"), 5 * (sent - began))
        self.assertGreater(rise("delivery_seconds_sum"), 0)
        self.assertEqual(rise("acknowledgement_seconds_count"), 5)
        self.assertGreaterEqual(rise("acknowledgement_seconds_sum"), 5 * 0.3)
        self.assertLessEqual(rise("acknowledgement_seconds_sum"), 5 * (acknowledged - began))
        for bound, count in after.buckets(PREFIX + "acknowledgement_seconds"):
            if bound < 0.3:
                self.assertEqual(count, dict(before.buckets(PREFIX + "acknowledgement_seconds"))[bound])
        self.assertGreaterEqual(rise("commit_seconds_count"), 1)
        self.assertLessEqual(rise("commit_seconds_sum"), acknowledged - began)

    def test_what_waited_for_an_absent_device_is_no_delivery_time_and_a_repetition_counts_as_one(self):
        owner = self.away("bob", "late", self.node)
        for number in range(3):
            self.publish(owner, str(number))
        before = self.scrape()
        bob = self.device("bob", "late")
        self.take(bob, 3)
        self.announce(bob)
        self.take(bob, 3)
        after = self.scrape()
        self.assertEqual(after.changes(before, PREFIX + "sent_total"), {"first": 3, "repeated": 3})
        self.assertEqual(after.changes(before, PREFIX + "delivery_seconds_count"), {})

    def test_answers_and_connections_over_http_count(self):
        owner = self.client("owner")
        key = self.key_node(owner)
        self.wait_value("http_connections", 0)
        self.assert_counts("http_responses_total", {"201": 2, "404": 1, "405": 1, "413": 1},
                           lambda: [self.post(key, "x"), self.post(key, "x"), self.post("nothing", "x"),
                                    self.post(key, b"x", "PUT"), self.post(key, "x" * 65537)])
        self.assert_counts("http_request_seconds_count", {"": 2}, lambda: [self.post(key, "x") for _ in range(2)])
        self.wait_value("http_connections", 0)
        port = int(self.server.env["HTTP_URL"].split("/")[2].split(":")[1])
        links = [self.link(port) for _ in range(3)]
        self.wait_value("http_connections", 3)
        links[0].close()
        self.wait_value("http_connections", 2)
        self.assert_counts("http_connections_total", {"served": 1}, lambda: self.link(port))

    def link(self, port):
        link = socket.create_connection(("127.0.0.1", port), 10)
        self.addCleanup(link.close)
        return link

    def test_many_processes_at_once_lose_no_count(self):
        before = self.value("acknowledged_total")
        self.instance.evaluate(
            "Me = self(), [spawn(fun() -> [pubsub_device_metrics:count(acknowledged) || _ <- lists:seq(1, 10000)], "
            "Me ! done end) || _ <- lists:seq(1, 8)], [receive done -> ok end || _ <- lists:seq(1, 8)]")
        self.assertEqual(self.value("acknowledged_total") - before, 80000)

    def test_counting_what_is_not_in_the_table_ends_nothing(self):
        self.assertEqual(self.instance.evaluate("pubsub_device_metrics:count({refused, nonsense})"), "ok")

    def test_the_numbers_do_not_fall_when_the_module_is_started_again(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        self.publish(owner, "x")
        before = self.value("publications_total", ("way", "xmpp"))
        self.assertGreater(before, 0)
        self.instance.evaluate("gen_mod:stop_modules(<<\"localhost\">>), gen_mod:start_modules(<<\"localhost\">>)")
        self.assertEqual(self.value("publications_total", ("way", "xmpp")), before)
        self.assertEqual(self.command("pubsub_device_top")[0], 200)
        self.publish(self.client("owner"), "x")
        self.assertEqual(self.value("publications_total", ("way", "xmpp")), before + 1)


class Gauges(MetricsTest):
    member = "127.0.0.1"

    def test_sessions_devices_and_nodes_are_what_there_is(self):
        before = self.scrape()
        rise = lambda name: self.value(name) - before[PREFIX + name]
        owner = self.device("owner", "gauges")
        self.wait_for(lambda: (rise("sessions"), rise("devices")) == (1, 1))
        self.succeed(self.create(owner))
        self.key_node(owner, self.node + "/key")
        self.assertEqual((rise("nodes"), rise("key_nodes")), (2, 1))
        self.succeed(self.delete(owner, self.node + "/key"))
        self.assertEqual((rise("nodes"), rise("key_nodes")), (1, 0))
        owner.kill()
        self.wait_for(lambda: (rise("sessions"), rise("devices")) == (0, 1))
        self.assertEqual(self.value("members"), 1)

    def test_kept_items_and_bytes_rise_and_fall_with_what_is_kept(self):
        self.wait_value("kept_items", 0)
        owner = self.away("bob", "kept", self.node)
        for _ in range(3):
            self.publish(owner, "x" * 1000)
        self.assertEqual(self.value("kept_items"), 3)
        self.wait_for(lambda: 6000 <= self.value("kept_bytes") <= 7000)
        self.assertEqual(self.value("kept_limit_bytes"), 1000000000)
        self.empty("bob", "kept", 3)
        self.wait_value("kept_items", 0)
        self.wait_value("kept_bytes", 0)

    def empty(self, user, resource, count):
        """The device takes and acknowledges everything."""
        device = self.device(user, resource)
        for each in self.take(device, count):
            self.ack(device, each.id)
        self.settle(device)

    def test_the_age_is_that_of_the_oldest_item_of_all(self):
        self.wait_value("oldest_item_age_seconds", 0)
        owner = self.away("bob", "old", self.node)
        self.away("carol", "young", self.node + "/young")
        began = time.monotonic()
        self.publish(owner, "old", "old")
        self.wait_for(lambda: time.monotonic() - began > 2.5)
        self.publish(owner, "young", "young", self.node + "/young")
        # The walk over devices and accounts is made every second.
        self.wait_for(lambda: time.monotonic() - began > 4)
        self.assertGreaterEqual(self.value("oldest_item_age_seconds"), 3)
        self.assertLessEqual(self.value("oldest_item_age_seconds"), time.monotonic() - began + 1)
        began = time.monotonic()
        self.empty("bob", "old", 1)
        self.wait_for(lambda: self.value("oldest_item_age_seconds") < 3 + time.monotonic() - began)
        carol = self.device("carol", "young")
        self.ack(carol, self.take(carol, 1, self.node + "/young")[0].id, self.node + "/young")
        self.wait_value("oldest_item_age_seconds", 0)

    def test_the_backlog_of_a_writer_is_what_waits_for_it(self):
        writer = self.instance.evaluate("element(1, pubsub_device_writer:locate({<<\"%s\">>, <<\"%s\">>}))"
                                        % (self.server.pubsub, self.node))
        shard = ("writer", writer.rsplit("_", 1)[1])
        self.instance.evaluate("sys:suspend(%s)" % writer)
        try:
            self.instance.evaluate("[%s ! nothing || _ <- lists:seq(1, 7)], ok" % writer)
            after = self.scrape()
            self.assertEqual({key[1]: number for key, number in after.samples.items()
                              if key[0] == PREFIX + "writer_backlog" and number}, {shard: 7})
        finally:
            self.instance.evaluate("sys:resume(%s)" % writer)
        self.wait_for(lambda: self.value("writer_backlog", shard) == 0)
        self.assertEqual(self.value("writer_backlog_limit"), 5000)

    def test_a_scrape_costs_the_same_however_much_is_kept(self):
        cost = ("Cost = fun() -> {_, Before} = process_info(self(), reductions), "
                "iolist_size(pubsub_device_exposition:text()), {_, After} = process_info(self(), reductions), "
                "After - Before end, Cost(), lists:min([Cost() || _ <- lists:seq(1, 5)])")
        owner = self.away("bob", "cost", self.node)
        before = int(self.instance.evaluate(cost))
        for number in [owner.send_iq("set", self.publish_stanza("x")) for _ in range(1000)]:
            self.succeed(owner.wait_iq(number, 60))
        self.assertGreaterEqual(self.value("kept_items"), 1000)
        self.assertLess(int(self.instance.evaluate(cost)), 1.2 * before)
        self.empty("bob", "cost", 1000)

    def test_a_walk_over_many_devices_goes_on_where_it_stopped(self):
        """A round over more devices than one step takes finds the oldest and the largest all the same."""
        fill = ("Service = <<\"%s\">>, [pubsub_device_store:keep({Service, <<\"/walk\">>}, {<<\"bob\">>, <<\"localhost\">>, "
                "integer_to_binary(Each)}, Each * 1000000 + Each, <<\"x\">>, subscription, {xmlel, <<\"item\">>, [], "
                "[{xmlcdata, binary:copy(<<\"x\">>, case Each of 2500 -> 5000; _ -> 10 end)}]}) "
                "|| Each <- lists:seq(1, 3000)], ok" % self.server.pubsub)
        self.instance.evaluate(fill)
        try:
            self.wait_for(lambda: self.value("oldest_item_age_seconds") > time.time() - 100)
            self.wait_for(lambda: [each["jid"] for each in self.command("pubsub_device_top")[1]][:1]
                          == ["bob@localhost/2500"])
            self.assertEqual(len(self.command("pubsub_device_top")[1]), 20)
        finally:
            self.instance.evaluate("[pubsub_device_store:drop({<<\"%s\">>, <<\"/walk\">>}, {<<\"bob\">>, <<\"localhost\">>, "
                                   "integer_to_binary(Each)}, Each * 1000000 + Each) || Each <- lists:seq(1, 3000)], ok"
                                   % self.server.pubsub)


class Bounds(MetricsTest):
    options = ("max_kept=6", "max_kept_node=4", "max_kept_bytes=30000", "max_account_bytes=45000", "max_devices=3",
               "max_nodes=8", "max_keys=2", "key_rate=1", "key_burst=3")

    def test_drops_count_by_the_bound_and_refusals_by_the_option(self):
        first, second, big = (self.node + each for each in ("/1", "/2", "/3"))
        owner = self.away("bob", "a", first, second)
        publish = lambda node, count, size=1: [self.publish(owner, "x" * size, node=node) for _ in range(count)]
        self.assert_counts("dropped_total", {"node": 1}, lambda: publish(first, 5))
        self.assert_counts("dropped_total", {"device": 1}, lambda: publish(second, 3))
        for resource in ("a", "b", "c"):
            self.away("carol", resource, big)
        self.assert_counts("dropped_total", {"account": 1}, lambda: publish(big, 1, 20000))
        self.assert_counts("dropped_total", {"size": 3}, lambda: publish(big, 1, 40000))
        self.device("carol", "d")  # instead of "a", whose item was dropped
        self.assert_counts("dropped_total", {"forgotten": 1}, lambda: self.device("carol", "e"))
        self.assert_counts("dropped_total", {"forgotten": 1}, lambda: self.device("carol", "f"))
        self.assert_counts("refusals_total", {"max_devices": 1}, lambda: self.announce(self.client("carol", "g")))
        key = self.key_node(owner, self.node + "/key")
        self.key_node(owner, self.node + "/key2")
        self.assert_counts("refusals_total", {"max_keys": 1},
                           lambda: self.ext(owner, "<create-key-node node='%s/key3'/>" % self.node))
        for each in range(3):
            self.succeed(self.create(owner, "%s/more%d" % (self.node, each)))
        self.assert_counts("refusals_total", {"max_nodes": 1}, lambda: self.create(owner, self.node + "/9"))
        by_key = "<publish key='%s'><item><payload/></item></publish>" % key
        self.assert_counts("refusals_total", {"key_rate": 2},
                           lambda: [self.post(key, "x") for _ in range(4)] + [self.ext(owner, by_key)])


class Ages(MetricsTest):
    options = ("max_age=1", "sweep_interval=1", "max_store=500000")

    def test_items_that_are_too_old_count_as_such(self):
        owner = self.away("bob", "age", self.node)
        self.assert_counts("dropped_total", {"age": 2}, lambda: [self.publish(owner, "x") for _ in range(2)])


class Full(MetricsTest):
    options = ("max_store=500000",)

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.instance.register("dave")

    def test_a_full_store_counts_those_that_it_refuses_and_what_it_drops(self):
        for user in ("bob", "carol", "dave"):
            owner = self.away(user, "full", self.node)
        key = self.key_node(owner, self.node + "/key")
        refused = dict.fromkeys(("xmpp", "http"), 0)

        def fill():
            refused["xmpp"] += owner.iq("set", self.publish_stanza("x" * 20000)).get("type") == "error"
            refused["http"] += self.post(key, "x")[0] == 503
            return all(refused.values())

        self.wait_for(fill)
        self.wait_for(lambda: self.value("dropped_total", ("reason", "store")) > 0)
        self.assertEqual(self.value("refusals_total", ("reason", "full")), sum(refused.values()))


class Commands(MetricsTest):
    member = "127.0.0.1"

    def test_the_devices_of_an_account_are_listed_with_what_is_kept(self):
        other = self.node + "/other"
        owner = self.away("bob", "one", self.node, other)
        self.device("bob", "two")
        for each in range(2):
            self.publish(owner, "x" * 100)
        self.publish(owner, "x", node=other)
        status, devices = self.command("pubsub_device_list", user="bob", host="localhost")
        self.assertEqual((status, [(each["resource"], each["state"], each["items"]) for each in devices]),
                         (200, [("one", "absent", 3), ("two", "connected", 0)]))
        self.assertGreater(devices[0]["bytes"], 3200)
        for text in (devices[0]["seen"], devices[0]["oldest"]):
            self.assertRegex(text, r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        self.assertEqual((devices[1]["bytes"], devices[1]["oldest"]), (0, ""))
        status, nodes = self.command("pubsub_device_show", user="bob", host="localhost", resource="one")
        self.assertEqual((status, [(each["service"], each["node"], each["items"]) for each in nodes]),
                         (200, [("pubsub.localhost", self.node, 2), ("pubsub.localhost", other, 1)]))
        self.wait_for(lambda: self.command("pubsub_device_top")[1][:1]
                      == [{"jid": "bob@localhost/one", "state": "absent", "items": 3, "bytes": devices[0]["bytes"]}])

    def test_what_is_not_there_is_said(self):
        for name, arguments, text in (
                ("list", {"user": "bob", "host": "elsewhere"}, "does not serve this host"),
                ("list", {"user": "a@b", "host": "localhost"}, "no account"),
                ("show", {"user": "bob", "host": "localhost", "resource": "none"}, "no such device")):
            status, answer = self.command("pubsub_device_" + name, **arguments)
            self.assertGreaterEqual(status, 400)
            self.assertIn(text, str(answer))
        self.assertEqual(self.command("pubsub_device_list", user="nobody", host="localhost"), (200, []))

    def test_the_command_prints_what_the_listener_prints(self):
        status, listed = self.command("pubsub_device_metrics")
        printed = self.scrape().samples
        self.assertEqual(status, 200)
        self.assertEqual([(each["name"], *[tuple(label.split("=")) for label in each["labels"].split(",") if label])
                          for each in listed], list(printed))

    def test_every_command_is_described_in_the_registry(self):
        described = self.instance.evaluate(
            "[begin Each = ejabberd_commands:get_command_definition(Name), {Name, element(4, Each) /= \"\", "
            "length(element(11, Each)), case element(17, Each) of none -> 0; Texts -> length(Texts) end, "
            "is_list(element(18, Each))} end || Name <- [pubsub_device_metrics, pubsub_device_list, "
            "pubsub_device_show, pubsub_device_top]]")
        self.assertEqual(described.replace(" ", ""),
                         "[{pubsub_device_metrics,true,0,0,true},{pubsub_device_list,true,2,2,true},"
                         "{pubsub_device_show,true,3,3,true},{pubsub_device_top,true,0,0,true}]")

    def test_no_command_and_no_page_prints_a_key(self):
        owner = self.device("owner", "keys")
        key = self.key_node(owner, self.node + "/key")
        owner.kill()
        self.assertEqual(self.post(key, "x")[0], 201)
        texts = [self.command("pubsub_device_" + name, **arguments)[1] for name, arguments in (
            ("metrics", {}), ("top", {}), ("list", {"user": "owner", "host": "localhost"}),
            ("show", {"user": "owner", "host": "localhost", "resource": "keys"}))]
        self.assertIn(self.node + "/key", str(texts[3]))
        self.assertNotIn(key, str(texts))


class Page(MetricsTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.instance.register("admin")

    def page(self, user=None, path="/pubsub-device/"):
        words = {"Authorization": "Basic " + base64.b64encode(("%s@localhost:%s" % (user, PASSWORD)).encode()).decode()}
        status, _, text = fetch(self.server.env["ADMIN_URL"] + path, headers=words if user else {})
        return status, text

    def test_administrators_see_totals_drops_and_the_devices_that_keep_most(self):
        owner = self.away("bob", "<b>\"'&", self.node)
        self.publish(owner, "x")
        self.wait_for(lambda: "bob@localhost/" in self.page("admin")[1])
        status, text = self.page("admin")
        self.assertEqual(status, 200)
        self.assertNotIn("<b>", text)
        self.assertIn("bob@localhost/&lt;b&gt;", text)
        for words in ("publications_total xmpp</td><td>1<", "dropped_total node</td><td>0<", "kept_items</td><td>1<",
                      "on average"):
            self.assertIn(words, text)
        self.assertIn("pubsub-device/", self.page("admin", "/")[1])

    def test_nobody_else_sees_the_page(self):
        for user in (None, "bob"):
            status, text = self.page(user)
            self.assertEqual(status, 401)
            self.assertNotIn("kept", text)


class Cluster(MetricsTest):
    """Each member counts what it does; what they share is reported by one of them."""

    @classmethod
    def setUpClass(cls):
        cls.instance = Instance((), "127.0.0.1")
        cls.second = Instance((), "127.0.0.2", cls.instance.folder)

    @classmethod
    def tearDownClass(cls):
        cls.second.remove()
        super().tearDownClass()

    def test_the_sum_over_members_counts_everything_once_and_another_member_takes_over(self):
        bob = self.device("bob", "cluster")
        owner, other = self.client("owner"), connect(self.second.server, "owner", PASSWORD)
        self.clients.append(other)
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        bob.kill()
        for client in (owner, owner, other):
            self.publish(client, "x")
        both = [self.scrape(), self.scrape(self.second.server)]
        name = (PREFIX + "publications_total", ("way", "xmpp"))
        self.assertEqual([each[name] for each in both], [2, 1])
        for shared in ("kept_items", "devices", "nodes", "kept_limit_bytes"):
            self.assertEqual([(PREFIX + shared,) in each.samples for each in both], [True, False], shared)
        self.assertEqual(both[0][PREFIX + "kept_items"], 3)
        self.assertEqual([each[PREFIX + "members"] for each in both], [2, 2])
        self.instance.stop()
        alone = lambda: self.scrape(self.second.server).samples
        self.wait_for(lambda: alone().get((PREFIX + "kept_items",)) == 3)
        self.wait_for(lambda: (PREFIX + "oldest_item_age_seconds",) in alone())
        self.assertEqual(alone()[PREFIX + "members",], 1)
