# SPDX-License-Identifier: GPL-3.0-only
"""The metrics of a server: a reader of the text format of Prometheus, version 0.0.4, that refuses whatever the format
does not allow, and the tests' base class.

`Metrics(text)[name, (label, value), ...]` is the number of a sample; `families` has the kind and help of each metric.
"""
import json
import re
import urllib.error
import urllib.request

from harness import ServerTest

PREFIX = "pubsub_device_"

NAME = r"[a-zA-Z_:][a-zA-Z0-9_:]*"
LABEL = r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\\n]|\\\\|\\"|\\n)*)"'
SAMPLE = re.compile(r"(?P<name>%s)(?:\{(?P<labels>%s(?:,%s)*)\})? (?P<value>\S+)" % (NAME, LABEL, LABEL))
SUFFIXES = {"counter": ("",), "gauge": ("",), "histogram": ("_bucket", "_sum", "_count")}


class Malformed(Exception):
    """The text is not in the format."""


def unescaped(value):
    return re.sub(r'\\(["\\n])', lambda found: "\n" if found.group(1) == "n" else found.group(1), value)


class Metrics:
    def __init__(self, text):
        self.samples = {}
        self.families = {}  # name -> (kind, help)
        if not text.endswith("\n"):
            raise Malformed("the last line has no end")
        helps, current = {}, None
        for line in text[:-1].split("\n"):
            if line.startswith("# HELP "):
                name, text = line[7:].split(" ", 1)
                if helps.setdefault(name, text) is not text:
                    self.fail("twice: " + line)
            elif line.startswith("# TYPE "):
                current, kind = line[7:].split(" ")
                if current in self.families or current not in helps or kind not in SUFFIXES:
                    self.fail(line)
                self.families[current] = (kind, helps[current])
            else:
                self._sample(line, current)
        for name, (kind, _) in self.families.items():
            if kind == "histogram":
                self._histogram(name)

    @staticmethod
    def fail(line):
        raise Malformed(line)

    def _sample(self, line, family):
        found = SAMPLE.fullmatch(line)
        if not found or family is None:
            self.fail(line)
        labels = [(name, unescaped(value)) for name, value in re.findall(LABEL, found["labels"] or "")]
        if found["name"] not in [family + suffix for suffix in SUFFIXES[self.families[family][0]]]:
            self.fail("not after the TYPE of its metric: " + line)
        key = (found["name"], *sorted(labels))
        if key in self.samples or len(dict(labels)) < len(labels):
            self.fail("twice: " + line)
        self.samples[key] = float(found["value"])

    def buckets(self, name):
        """The bounds and counts of a histogram, as they are printed."""
        return [(float(label[1]), number) for (sample, *labels), number in self.samples.items()
                if sample == name + "_bucket" for label in labels if label[0] == "le"]

    def _histogram(self, name):
        bounds, counts = zip(*self.buckets(name))
        if list(bounds) != sorted(set(bounds)) or bounds[-1] != float("inf") or list(counts) != sorted(counts):
            self.fail("the buckets of %s do not ascend to +Inf: %s" % (name, list(zip(bounds, counts))))
        if counts[-1] != self[name + "_count"] or self[name + "_sum"] < 0:
            self.fail("the sum and count of %s do not match its buckets" % name)

    def __getitem__(self, key):
        return self.samples[(key,) if isinstance(key, str) else key]

    def changes(self, before, name):
        """How much the samples of a metric rose, by the value of their label."""
        return {labels[0][1] if labels else "": number - before.samples.get((sample, *labels), 0)
                for (sample, *labels), number in self.samples.items()
                if sample == name and number != before.samples.get((sample, *labels), 0)}


def fetch(url, data=None, headers=None, method=None):
    """Status, headers and text of a request over HTTP."""
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    try:
        with opener.open(urllib.request.Request(url, data, headers or {}, method=method), timeout=30) as answer:
            return answer.status, answer.headers, answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.headers, error.read().decode()


class MetricsTest(ServerTest):
    def setUp(self):
        super().setUp()
        # The devices of the test before have closed their connections, which the server may not have noticed yet.
        self.wait_value("sessions", 0)

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
