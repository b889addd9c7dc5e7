# SPDX-License-Identifier: GPL-3.0-only
"""Measures the XMPP server: publishing over XMPP and HTTP and delivery to devices, each compared with a reference that
the same run measures.

The references: the same ejabberd with only its own pub-sub engine, which stores nothing on disk; a GET of the HTTP
listener that also accepts the publications; and the same server before items are stored for its devices. Items are
stored for absent devices, one for every few nodes, so that the bound of a node is reached before that of a device."""

import contextlib
import itertools
import os
import pathlib
import re
import subprocess
import sys
import urllib.parse

from builds import ROOT, Build, Turns
from load import run_load, started_load
from prompts import prompts

sys.path.insert(0, str(ROOT / "tests" / "server"))
from xmppclient import OWNER, PUBSUB, Server, connect  # noqa: E402

LOAD = ROOT / "build" / "release" / "bin" / "bench_server"
LATENCY = ROOT / "build" / "release" / "bin" / "bench_latency"
DEVICE = "urn:zelt:pubsub:device:0"
PASSWORD = "secret"
KEPT_PER_NODE = 1000
KEPT = 10000
NODES_OF_A_DEVICE = 8
OPTIONS = {"max_kept": KEPT, "max_kept_node": KEPT_PER_NODE, "max_devices": 1000,
           "key_rate": 1000000, "key_burst": 1000000}  # a key's limit is not what is measured
ENGINE = """\
  mod_pubsub:
    hosts: ["pubsub.localhost"]
    access_createnode: all
    last_item_cache: false
    default_node_config:
      notification_type: headline
      persist_items: false
      send_last_published_item: never
  mod_roster: {}
"""


class BenchServer:
    """A build's server in its own folder; with `engine_alone` it runs without the extension."""

    def __init__(self, folder, build, engine_alone=False):
        self.folder, self._program, self._numbers = str(folder), str(build.server), itertools.count()
        self._run("up", self.folder, *(argument for name, value in OPTIONS.items()
                                       for argument in ("--option", f"{name}={value}")))
        if engine_alone:
            self._run("down", self.folder)
            path = pathlib.Path(self.folder, "conf", "ejabberd.yml")
            text = path.read_text(encoding="utf-8")
            text = re.sub(r"  mod_pubsub:.*", ENGINE, text, flags=re.DOTALL)
            text = re.sub(r"(?m)^    module: pubsub_device(_metrics)?_listener$", "    module: ejabberd_http", text)
            text = re.sub(r"(?m)^    (certfile|keyfile): .*\n", "", text)
            path.write_text(text, encoding="utf-8")
            self._run("start", self.folder)
        self.where = Server.from_env(self.folder + "/server.env")
        for user in ("owner", "other", "third"):
            self._run("account", self.folder, user, PASSWORD)

    def _run(self, *arguments):
        done = subprocess.run([self._program, *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              check=False, env=dict(os.environ, PUBSUB_EBIN_CACHE=str(ROOT / "build" / "ebin")))
        if done.returncode != 0:
            sys.exit(f"{self._program} {arguments[0]} failed:\n{done.stdout}{done.stderr}")

    def close(self):
        self._run("down", self.folder)

    def client(self, user, resource="setup"):
        return connect(self.where, user, PASSWORD, resource)

    @staticmethod
    def ask(client, requests):
        """Sends the requests in batches and waits for the answers of each batch."""
        for first in range(0, len(requests), 200):
            numbers = [client.send_iq("set", each) for each in requests[first:first + 200]]
            for number in numbers:
                if client.wait_iq(number, 120).get("type") != "result":
                    sys.exit("the server refused a request of the setup")

    def create(self, user, nodes):
        client = self.client(user)
        self.ask(client, [f"<pubsub xmlns='{PUBSUB}'><create node='{node}'/></pubsub>" for node in nodes])
        client.close()

    @contextlib.contextmanager
    def fresh(self, count):
        """So many new nodes of the owner, with absent devices that items are stored for; deleted after the block."""
        number = next(self._numbers)
        nodes = [f"/fresh{number}/{each}" for each in range(count)]
        self.create("owner", nodes)
        for first in range(0, count, NODES_OF_A_DEVICE):
            self.absent_device("other", f"away{number}-{first}", nodes[first:first + NODES_OF_A_DEVICE])
        try:
            yield nodes
        finally:
            client = self.client("owner")
            self.ask(client, [f"<pubsub xmlns='{OWNER}'><delete node='{node}'/></pubsub>" for node in nodes])
            client.close()

    def key_nodes(self, count):
        """The HTTP paths of so many new key nodes, whose devices are absent."""
        number = next(self._numbers)
        return [self.endpoint(f"/owner/http/app/{number}-{each}", f"endpoint{number}-{each // NODES_OF_A_DEVICE}")
                for each in range(count)]

    def absent_device(self, user, resource, nodes):
        """Subscribes a device to the nodes and disconnects it: items of these nodes are then stored on disk for it."""
        device = self.client(user, resource)
        device.send(f"<presence to='{self.where.pubsub}'/>")
        self.ask(device, [f"<pubsub xmlns='{PUBSUB}'><subscribe node='{node}' jid='{device.jid}'/></pubsub>"
                          for node in nodes])
        device.close()

    def endpoint(self, node, resource):
        """Creates a key node, whose device then disconnects; returns the HTTP path to publish to."""
        client = self.client("owner", resource)
        client.send(f"<presence to='{self.where.pubsub}'/>")
        answer = client.iq("set", f"<create-key-node xmlns='{DEVICE}' node='{node}'/>")
        key = answer.findtext("{%s}key" % DEVICE)
        client.close()
        if not key:
            sys.exit(f"the server did not create the key node {node}")
        return urllib.parse.urlsplit(self.http_url()).path + "/" + key

    def http_url(self):
        text = pathlib.Path(self.folder, "server.env").read_text(encoding="utf-8")
        return re.search(r"^HTTP_URL='?([^'\n]+)", text, re.MULTILINE).group(1)

    def account(self, user):
        return (self.where.host, self.where.port, self.where.domain, user, PASSWORD)

    def bytes_written(self):
        """What the server has written so far, by the kernel's count of pages."""
        with open(f"/proc/{self.where.env['SERVER_PID']}/io", encoding="ascii") as counts:
            return next(int(line.split()[1]) for line in counts if line.startswith("write_bytes"))

    def publish(self, user, nodes, seconds, sessions=8, in_flight=16):
        return run_load(LOAD, "publish", *self.account(user), sessions, in_flight, seconds, *nodes)

    def publish_beside(self, user, nodes, seconds):
        """As publish() with one session, beside the block, which gets a function that waits for the figures."""
        return started_load(LOAD, "publish", *self.account(user), 1, 16, seconds, *nodes)

    def http(self, method, paths, connections, seconds):
        url = urllib.parse.urlsplit(self.http_url())
        return run_load(LOAD, "http", url.hostname, url.port, method, connections, seconds, *paths)

    def get(self, connections, seconds):
        return self.http("GET", [urllib.parse.urlsplit(self.http_url()).path + "/none"], connections, seconds)

    def deliver(self, node, devices, in_flight, seconds, acknowledge, user="owner"):
        figures = run_load(LOAD, "deliver", *self.account(user), node, devices, in_flight, seconds,
                           "ack" if acknowledge else "noack")
        return figures["deliveries"] / figures["seconds"]

    def latency(self, user, node, count):
        """Of one item from a session to another one."""
        return run_load(LATENCY, "xmpp", *self.account(user), node, count)


def rate(figures):
    return figures["answered"] / figures["seconds"]


class Effort:
    """How much is measured: seconds and number of rounds, nodes, and the nodes of a device that is full."""

    def __init__(self, quick):
        self.quick = quick
        self.seconds, self.rounds, self.nodes = (1.5, 3, 32) if quick else (5, 5, 64)
        self.full_nodes = (10, 1000) if quick else (10, 1000, 10000)


def server_load(folder, builds, results, quick):
    effort = Effort(quick)
    with contextlib.ExitStack() as stack:
        servers = []
        for name, build in zip("ab", builds):
            servers.append(BenchServer(pathlib.Path(folder, "server-" + name), build))
            stack.callback(servers[-1].close)
        turns, engine = Turns(results, servers), None
        if not turns.compares:
            engine = BenchServer(pathlib.Path(folder, "engine"), Build(ROOT), engine_alone=True)
            stack.callback(engine.close)
        publishing(turns, engine, effort)
        over_http(turns, effort)
        full_device(turns, effort)
        delivering(turns, engine, effort)
        prompts(folder, stack, builds, lambda stages: Turns(results, stages), engine, quick)


def publishing(turns, engine, effort):
    print("publishing over XMPP", flush=True)
    plain = [f"/bench/{each}" for each in range(effort.nodes)]
    if engine:
        engine.create("owner", plain)
    points = []
    for held in (0, 300, KEPT_PER_NODE):
        def ours(server, held=held):
            with server.fresh(effort.nodes) as nodes:
                fill(lambda: server.publish("owner", nodes, 0.5), held * effort.nodes)
                before = server.bytes_written()
                figures = server.publish("owner", nodes, effort.seconds)
                return dict(figures, written=(server.bytes_written() - before) / figures["answered"])
        rounds = turns.rounds(effort.rounds, ours, lambda _: engine.publish("owner", plain, effort.seconds))
        points.append((held, rounds))
        if held == 300:
            continue
        what = f"XMPP, durable, 8 sessions x 16 in flight, nodes with {held:,} items"
        turns.add(what, "items/s", "engine alone", rounds, rate, at_least=0.8)
        turns.add_value(f"bytes written for an item of 100, nodes with {held:,} items", "bytes",
                        [(ours["written"], theirs.get("written")) for ours, theirs in rounds], "<", 1000)
    turns.add_series("Publishing over the items that each node holds", "items that each node held at the start", "items/s",
                     "engine alone", points, rate)


def fill(publish, count):
    """Publishes until the server has accepted `count` items."""
    accepted = 0
    while accepted < count:
        answered = publish()["answered"]
        if not answered:
            sys.exit("the server accepted no item in a whole round")
        accepted += answered


def over_http(turns, effort):
    print("publishing over HTTP", flush=True)
    for server in turns.subjects:
        server.paths = server.key_nodes(64)
        server.full = server.key_nodes(1)
        fill(lambda server=server: server.http("POST", server.full, 16, 0.5), KEPT_PER_NODE)
    for connections in (16, 64):
        rounds = turns.rounds(
            effort.rounds, lambda server, count=connections: server.http("POST", server.paths[:count], count, effort.seconds),
            lambda server, count=connections: server.get(count, effort.seconds))
        turns.add(f"HTTP, durable, {connections} connections", "items/s", "GET", rounds, rate, at_least=0.2)
        turns.add(f"HTTP p99, {connections} connections", "us", "p50", rounds, lambda each: each["p99"],
                  lambda each: each["p50"], better="less", at_most=4)
    rounds = turns.rounds(effort.rounds, lambda server: server.http("POST", server.full, 16, effort.seconds),
                          lambda server: server.http("POST", server.key_nodes(16), 16, effort.seconds))
    turns.add("HTTP, one full node, 16 connections", "items/s", "16 empty nodes", rounds, rate, at_least=0.9)


def full_device(turns, effort):
    for server in turns.subjects:
        server.create("owner", ["/empty/node"])
        server.create("third", ["/third/node"])
        server.absent_device("other", "empty", ["/empty/node"])
        server.absent_device("third", "away", ["/third/node"])
    points = []
    for count in effort.full_nodes:
        print(f"publishing to a device whose store is full, on {count:,} nodes", flush=True)
        node = f"/full{count}/node"
        for server in turns.subjects:
            many = [f"/full{count}/{each}" for each in range(count)]
            server.create("owner", many + [node])
            server.absent_device("other", f"full{count}", many + [node])
            fill(lambda server=server, many=many: server.publish("owner", many, 1), KEPT)
        points.append((count, turns.rounds(
            effort.rounds, lambda server, node=node: server.publish("owner", [node], effort.seconds, 1),
            lambda server: server.publish("owner", ["/empty/node"], effort.seconds, 1))))
    turns.add(f"XMPP to a full device with {count:,} nodes, 1 session x 16", "items/s", "to an empty one", points[-1][1],
              rate, at_least=0.8)
    turns.add_series("Publishing to a full device over its nodes", "nodes of the full device", "items/s",
                     "to an empty one", points, rate)

    def another(server, busy):
        """Publishes as another account while the owner publishes to the busy node."""
        with server.publish_beside("owner", [busy], effort.seconds) as finish:
            figures = server.publish("third", ["/third/node"], effort.seconds, 1)
            finish()
            return figures

    rounds = turns.rounds(effort.rounds, lambda server: another(server, node),
                          lambda server: another(server, "/empty/node"))
    turns.add("publisher of another account while one account's device is full", "items/s", "while it is empty", rounds,
              rate, at_least=0.9)


def delivering(turns, engine, effort):
    print("delivering", flush=True)
    points = []
    for devices, in_flight in ((1, 16), (10, 8), (200, 2)):
        node = f"/deliver/{devices}"
        for server in [*turns.subjects, *([engine] if engine else [])]:
            server.create("owner", [node])
        rounds = turns.rounds(
            effort.rounds,
            lambda server, where=(node, devices, in_flight): server.deliver(*where, effort.seconds, True),
            lambda _, where=(node, devices, in_flight): engine.deliver(*where, effort.seconds, False))
        points.append((devices, rounds))
        if devices != 10:
            who = "1 device" if devices == 1 else f"{devices} devices"
            turns.add(f"deliveries to {who}, acknowledged", "items/s", "engine alone, without", rounds, at_least=0.7)
    turns.add_series("Deliveries over the devices of a node", "devices of the node", "items/s", "engine alone, without",
                     points)
