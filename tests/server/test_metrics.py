# SPDX-License-Identifier: GPL-3.0-only
"""The metrics: their text, what they must not tell, the counters, and the files that name them."""
import glob
import os
import re
import socket
import time
import urllib.request

import yaml
from exposition import PREFIX, MetricsTest, fetch
from harness import PASSWORD, Instance
from pushtest import webpush
from xmppclient import DEVICE, PUBSUB, connect

HOSTILE = 'a"b}\\{c="d"\n# TYPE evil counter\nevil{x="y"} 1'
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


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
            elif names and not names & {"status", "writer", "sender"}:
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
        sender = webpush.Sender()
        signed = self.succeed(self.ext(owner, "<create-key-node node='%s/signed' vapid='%s'/>" % (self.node, sender.key)))
        signed = signed.findtext("{%s}key" % DEVICE)
        stranger = "<affiliations node='%s'><affiliation jid='bob@localhost' affiliation='owner'/></affiliations>"
        acts = [
            ("unknown_key", lambda: self.post("nothing", "x")),
            ("unknown_key", lambda: self.ext(owner, by_key % ("nothing", "<payload/>"))),
            ("payload", lambda: self.post(key, "x", headers={"TTL": "x"})),
            ("vapid", lambda: self.post(signed, "x")),
            ("vapid", lambda: self.post(signed, "x", headers={"Authorization": "vapid t=x, k=" + sender.key})),
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

        def rise(name):
            return after[PREFIX + name] - before[PREFIX + name]

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

        def alone():
            return self.scrape(self.second.server).samples

        self.wait_for(lambda: alone().get((PREFIX + "kept_items",)) == 3)
        self.wait_for(lambda: (PREFIX + "oldest_item_age_seconds",) in alone())
        self.assertEqual(alone()[PREFIX + "members",], 1)
