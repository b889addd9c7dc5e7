# SPDX-License-Identifier: GPL-3.0-only
"""Measures the delivery of items that are kept until they are taken, beside the sum of its parts."""

import contextlib
import os
import pathlib
import statistics
import subprocess
import sys

from item_server import AckServer

BIN = pathlib.Path(__file__).resolve().parent.parent / "build" / "release" / "bin"
APP_ID, NODE = "com.example.bench", "/bench/kept"
HANDOUT = "com.zelt.bench.handout"
WAYS = (("a receiver, 1 endpoint", 1), ("a receiver, 64 endpoints", 64), ("a confirming handler", 0))


@contextlib.contextmanager
def program(device, *command):
    """Runs a program that says when it is ready; the block gets a function that waits for the figures it prints."""
    with subprocess.Popen([str(part) for part in command], env=dict(device.environment, ZELT_APP_ID=APP_ID),
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True) as process:
        if process.stdout.readline().strip() != "ready":
            sys.exit(f"{command[0].name} {command[1]} did not start")
        try:
            yield lambda: [line.split() for line in process.stdout]
        finally:
            process.kill()


@contextlib.contextmanager
def one_core(devices):
    """Pins everything to one core: of a single item only one process has work at any time, and how long it takes to
    wake the next one says more of the machine than of the delivery. With several cores the parts could also be done
    at the same time, and would have to be weighed."""
    threads = [int(task) for task in os.listdir("/proc/self/task")]
    threads += [process.pid for device in devices for process in device.processes]
    allowed = os.sched_getaffinity(0)
    for thread in threads:
        os.sched_setaffinity(thread, {max(allowed)})
    try:
        yield
    finally:
        for thread in threads:
            os.sched_setaffinity(thread, allowed)


class Kept:
    """One way of taking items: over `endpoints`, or, with none, by a confirming handler."""

    def __init__(self, endpoints, payload, count):
        self.endpoints, self.payload, self.count = endpoints, payload, count

    def _receiver(self, device, service):
        if self.endpoints:
            return program(device, BIN / "bench_receiver", "receive", service, self.endpoints, self.count)
        return program(device, BIN / "bench_receiver", "confirm", NODE if service else "", self.count)

    def rate(self, device):
        """Items a second, from the server until they are taken."""
        nodes = [f"/device/bench/{APP_ID}/e{number}" for number in range(self.endpoints)] or [NODE]
        with self._receiver(device, "com.zelt.pubsubservice") as finished:
            start = device.server.push_kept(nodes, device.items + 1, self.count)
            end = float(finished()[0][0])
        device.items += self.count
        return self.count / (end - start)

    def parts(self, device):
        """The microseconds of each part of an item, in a program that does nothing else."""
        server = AckServer()
        with contextlib.ExitStack() as running:
            if not self.endpoints:  # the handler is there before it is called
                running.enter_context(self._receiver(device, ""))
            road = running.enter_context(program(device, BIN / "bench_kept_parts", server.port, self.endpoints,
                                                 self.count))
            if self.endpoints:
                running.enter_context(self._receiver(device, HANDOUT))
            server.run(self.count, self.payload)
            return {name: float(figure) for name, figure in road()}


def measure_kept(turns, where, payload, count):
    """The last measurement of its devices: their servers send kept items alone from here on."""
    for device in turns.subjects:
        device.server.keep_items(payload)
    with one_core(turns.subjects):
        for name, endpoints in WAYS:
            way = Kept(endpoints, payload, count)
            for device in turns.subjects:
                way.rate(device)  # the first run lets the store's log file grow to its size
            rounds = turns.rounds(5, way.rate, way.parts)
            title = f"items to {name}, store on {where}"
            if turns.compares:
                turns.add(title, "items/s", "", rounds)
                continue
            parts = [each for _, each in rounds]
            turns.add(title, "items/s", "sum of the parts", [(rate, 1e6 / sum(each.values())) for rate, each in rounds],
                      at_least=0.8)
            print(f"parts of {name} on {where}, us an item: " +
                  ", ".join(f"{step} {statistics.median(each[step] for each in parts):.1f}" for step in parts[0]),
                  flush=True)
