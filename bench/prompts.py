# SPDX-License-Identifier: GPL-3.0-only
"""Measures how long an item takes from a POST with a key to the application: through the server, the service and the
bus, beside an XMPP session to another one on the engine alone, and beside a message broker."""

import itertools
import os
import pathlib
import subprocess
import sys
import urllib.parse

import device as devices
from broker import Broker
from builds import ROOT
from load import run_load

PROGRAM = ROOT / "build" / "release" / "bin" / "bench_latency"


class Stage:
    """A whole device of a build, with its own server."""

    def __init__(self, folder, build):
        self._folder, self._build, self._numbers = pathlib.Path(folder), build, itertools.count()
        self._device("up")
        self.env = devices.parse_assignments((self._folder / "env").read_text(encoding="utf-8"))

    def _device(self, verb):
        done = subprocess.run([str(self._build.device), verb, str(self._folder)], stdin=subprocess.DEVNULL,
                              env=dict(os.environ, PUBSUB_PRESET="release"), capture_output=True, text=True,
                              check=False)
        if done.returncode:
            sys.exit(f"{self._build.device} {verb} failed:\n{done.stdout}{done.stderr}")

    def close(self):
        self._device("down")

    def prompt(self, count):
        """Each round has an endpoint of its own, since a key has a bound on items at once."""
        url = urllib.parse.urlsplit(self.env["HTTP_URL"])
        return run_load(PROGRAM, "prompt", url.hostname, url.port, url.path, f"bench{next(self._numbers)}", count,
                        env=dict(os.environ, ZELT_APP_ID="com.zelt.bench", ZELT_PUBLIC_BUS=self.env["ZELT_PUBLIC_BUS"]))


def prompts(folder, stack, builds, make_turns, engine, quick):
    """`stack` closes what is started here; `engine` is the server without the extension, None when builds are
    compared."""
    print("an item to an application", flush=True)
    count, rounds = (300, 3) if quick else (800, 5)
    stages = []
    for name, build in zip("ab", builds):
        stages.append(Stage(pathlib.Path(folder, "stage-" + name), build))
        stack.callback(stages[-1].close)
    broker = None
    if engine:
        broker = Broker(pathlib.Path(folder, "broker"))
        stack.callback(broker.close)
        engine.create("owner", ["/latency/node"])
    for stage in stages:
        stage.prompt(20)  # the first requests load code

    def references(_stage):
        return {"stock": engine.latency("owner", "/latency/node", count),
                "broker": run_load(PROGRAM, "mqtt", "127.0.0.1", broker.port, count)}

    turns = make_turns(stages)
    measured = turns.rounds(rounds, lambda stage: stage.prompt(count), references)
    name = "HTTP to an application's prompt"
    if turns.compares:
        for percentile in ("p50", "p99"):
            turns.add(f"{name}, {percentile}", "us", "", measured, lambda each, which=percentile: each[which],
                      better="less")
        return
    for percentile, bound in (("p50", {"at_most": 3}), ("p99", {})):
        turns.add(f"{name}, {percentile}", "us", f"stock XMPP to XMPP, {percentile}",
                  [(ours[percentile], theirs["stock"][percentile]) for ours, theirs in measured], better="less", **bound)
        turns.add(f"{name}, {percentile}, and a broker", "us", f"mosquitto QoS 1, {percentile}",
                  [(ours[percentile], theirs["broker"][percentile]) for ours, theirs in measured], better="less")
    turns.add(f"{name}, p99 beside p50", "us", "p50", measured, lambda each: each["p99"], lambda each: each["p50"],
              better="less", at_most=3)
