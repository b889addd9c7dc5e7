# SPDX-License-Identifier: GPL-3.0-only
"""Measures the XMPP server: publishing over XMPP and HTTP and delivery to devices, each compared with a reference that
the same run measures.

The references: the same ejabberd with only its own pub-sub engine, which stores nothing on disk; a GET of the HTTP
listener that also accepts the publications; and the same server before items are stored for its devices."""

import contextlib
import json
import os
import pathlib
import re
import subprocess
import sys
import urllib.parse

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "server"))
from xmppclient import PUBSUB, Server, connect  # noqa: E402

RUN = str(ROOT / "ejabberd" / "run")
DEVICE = "urn:zelt:pubsub:device:0"
PASSWORD = "secret"
NODES = 8
KEPT_PER_NODE = 1000
KEPT = 10000
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
    """A server in its own folder; with `engine_alone` it runs without the extension."""

    def __init__(self, folder, binary, engine_alone=False):
        self.folder, self.binary = str(folder), binary
        options = (f"max_kept={KEPT}", f"max_kept_node={KEPT_PER_NODE}", "max_devices=1000")
        self._run("up", self.folder, *(argument for option in options for argument in ("--option", option)))
        if engine_alone:
            self._run("down", self.folder)
            path = pathlib.Path(self.folder, "conf", "ejabberd.yml")
            text = path.read_text(encoding="utf-8")
            text = re.sub(r"  mod_pubsub:.*", ENGINE, text, flags=re.DOTALL)
            path.write_text(re.sub(r"(?m)^    module: pubsub_device_listener$", "    module: ejabberd_http", text),
                            encoding="utf-8")
            self._run("start", self.folder)
        self.where = Server.from_env(self.folder + "/server.env")
        for user in ("owner", "other"):
            self._run("account", self.folder, user, PASSWORD)

    def _run(self, *arguments):
        done = subprocess.run([RUN, *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        if done.returncode != 0:
            sys.exit(f"ejabberd/run {arguments[0]} failed:\n{done.stdout}{done.stderr}")

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

    def absent_device(self, user, resource, nodes):
        """Subscribes a device to the nodes and disconnects it: items of these nodes are then stored on disk for it."""
        device = self.client(user, resource)
        device.send(f"<presence to='{self.where.pubsub}'/>")
        self.ask(device, [f"<pubsub xmlns='{PUBSUB}'><subscribe node='{node}' jid='{device.jid}'/></pubsub>"
                          for node in nodes])
        device.close()

    def endpoint(self, node, resource=None):
        """Creates a key node, whose device then disconnects; returns the HTTP path to publish to."""
        client = self.client("owner", resource or "endpoint")
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

    def _load(self, *arguments):
        done = subprocess.run([str(self.binary), *(str(each) for each in arguments)], capture_output=True, text=True,
                              check=False)
        if done.returncode != 0:
            sys.exit(f"bench_server {arguments[0]} failed: {done.stderr}")
        return json.loads(done.stdout)

    def publish(self, user, nodes, seconds, sessions=8, in_flight=16):
        return self._load("publish", self.where.host, self.where.port, self.where.domain, user, PASSWORD, sessions,
                          in_flight, seconds, *nodes)

    def http(self, method, paths, connections, seconds):
        url = urllib.parse.urlsplit(self.http_url())
        return self._load("http", url.hostname, url.port, method, connections, seconds, *paths)

    def deliver(self, node, devices, in_flight, seconds, acknowledge):
        figures = self._load("deliver", self.where.host, self.where.port, self.where.domain, "owner", PASSWORD, node,
                             devices, in_flight, seconds, "ack" if acknowledge else "noack")
        return figures["deliveries"] / figures["seconds"]


def rate(figures):
    return figures["answered"] / figures["seconds"]


def server_load(folder, binary, table, quick):
    seconds, rounds = (2, 3) if quick else (5, 5)
    nodes = [f"/bench/{each}" for each in range(NODES)]
    with contextlib.ExitStack() as stack:
        ours = BenchServer(pathlib.Path(folder, "ours"), binary)
        stack.callback(ours.close)
        engine = BenchServer(pathlib.Path(folder, "engine"), binary, engine_alone=True)
        stack.callback(engine.close)
        for server in (ours, engine):
            server.create("owner", nodes)
            server.create("owner", ["/deliver/1", "/deliver/200"])
        ours.absent_device("other", "away", nodes)
        publishing(ours, engine, nodes, table, seconds, rounds)
        over_http(ours, table, seconds, rounds)
        full_device(ours, table, seconds, rounds, 1000 if quick else 10000)
        delivering(ours, engine, table, seconds, rounds)


def publishing(ours, engine, nodes, table, seconds, rounds):
    print("publishing over XMPP", flush=True)
    for held in ("few items", f"{KEPT_PER_NODE:,} items"):
        if held != "few items":
            fill(lambda: ours.publish("owner", nodes, seconds), KEPT_PER_NODE * len(nodes))
        pairs = [(rate(ours.publish("owner", nodes, seconds)), rate(engine.publish("owner", nodes, seconds)))
                 for _ in range(rounds)]
        table.add(f"XMPP, durable, 8 sessions x 16 in flight, nodes with {held}", "items/s", "engine alone", pairs,
                  at_least=0.8)


def fill(publish, count):
    """Publishes until the server has accepted `count` items."""
    accepted = 0
    while accepted < count:
        answered = publish()["answered"]
        if not answered:
            sys.exit("the server accepted no item in a whole round")
        accepted += answered


def over_http(server, table, seconds, rounds):
    print("publishing over HTTP", flush=True)
    paths = [server.endpoint(f"/owner/http/app/{each}") for each in range(64)]
    push = urllib.parse.urlsplit(server.http_url()).path
    for connections in (16, 64):
        pairs, tails = [], []
        for _ in range(rounds):
            figures = server.http("POST", paths[:connections], connections, seconds)
            pairs.append((rate(figures), rate(server.http("GET", [push + "/none"], connections, seconds))))
            tails.append((figures["p99"], figures["p50"]))
        table.add(f"HTTP, durable, {connections} connections", "items/s", "GET", pairs, at_least=0.2)
        table.add(f"HTTP p99, {connections} connections", "us", "p50", tails, at_most=4)
    one = server.endpoint("/owner/http/app/full")
    fill(lambda: server.http("POST", [one], 16, seconds), KEPT_PER_NODE)
    pairs = [(rate(server.http("POST", [one], 16, seconds)), rate(server.http("POST", paths[:1], 16, seconds)))
             for _ in range(rounds)]
    table.add("HTTP, one full node, 16 connections", "items/s", "one emptier node", pairs, at_least=0.9)


def full_device(server, table, seconds, rounds, count):
    print(f"publishing to a device whose store is full, on {count} nodes", flush=True)
    many = [f"/full/{each}" for each in range(count)]
    server.create("owner", many + ["/full", "/empty"])
    server.absent_device("other", "full", many + ["/full"])
    server.absent_device("other", "empty", ["/empty"])
    fill(lambda: server.publish("owner", many, seconds), KEPT)
    pairs = [tuple(rate(server.publish("owner", [node], seconds, 1)) for node in ("/full", "/empty"))
             for _ in range(rounds)]
    table.add("XMPP to a full device, 1 session x 16", "items/s", "to an empty one", pairs, at_least=0.8)


def delivering(ours, engine, table, seconds, rounds):
    print("delivering", flush=True)
    for devices, in_flight in ((1, 16), (200, 2)):
        pairs = []
        for _ in range(rounds):
            pairs.append((ours.deliver(f"/deliver/{devices}", devices, in_flight, seconds, True),
                          engine.deliver(f"/deliver/{devices}", devices, in_flight, seconds, False)))
        table.add(f"deliveries to {devices} devices, acknowledged", "items/s", "engine alone, without", pairs,
                  at_least=0.7)
