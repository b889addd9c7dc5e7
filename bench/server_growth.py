#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
"""What the XMPP server needs for each key node, kept item and connected device, how long it takes to start with them,
and how long another member takes to join: each at three sizes, so that it shows whether the need grows linearly.

    bench/server_growth.py [nodes|items|devices]... [--size N]

N is the largest size, the others are a tenth and a hundredth of it; without it 100,000 nodes, 1,000,000 items and
10,000 devices. Each size has a server of its own. The memory is that of the server's process."""

import argparse
import json
import pathlib
import resource
import subprocess
import sys
import tempfile
import time
import urllib.request

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "bench"), str(ROOT / "scripts")]
from builds import Build  # noqa: E402
from server_load import DEVICE, PASSWORD, BenchServer  # noqa: E402

BINARY = ROOT / "build/release/bin/bench_server"
SIZES = {"nodes": 100_000, "items": 1_000_000, "devices": 10_000}
ITEM_NODES = 100
IDLE = 60  # seconds without anything to do, after which a session has given back what it needed for its login
BOUNDS = ("max_kept=10000000", "max_kept_node=1000000", "max_kept_bytes=100000000000", "max_account_bytes=100000000000",
          "max_store=200000000000", "max_nodes=1000000", "max_keys=1000000", "max_devices=100000")


class GrowthServer(BenchServer):
    """A server that others can join, without the bounds that would stop the growth."""

    def _run(self, *arguments):
        if arguments[0] == "up":
            arguments = (*arguments[:2], "--member", "127.0.0.50",
                         *(word for bound in BOUNDS for word in ("--option", bound)))
        super()._run(*arguments)

    def start_again(self):
        """Seconds until it serves clients again, with its data."""
        self._run("down", self.folder)
        began = time.monotonic()
        self._run("start", self.folder)
        return time.monotonic() - began

    def joined(self):
        """Seconds until another member has joined and serves clients; it leaves again."""
        began, other = time.monotonic(), self.folder + "-joined"
        super()._run("up", other, "--member", "127.0.0.51", "--join", self.folder)
        try:
            return time.monotonic() - began
        finally:
            super()._run("down", other)


def resident(server):
    """Bytes of memory of the server's process, after the garbage of the preparations had time to go."""
    pid = int(pathlib.Path(server.folder, "log", "server.pid").read_text(encoding="utf-8").split()[0])
    lowest = None
    for _ in range(10):
        status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="utf-8")
        now = [int(line.split()[1]) * 1024 for line in status.splitlines() if line.startswith("VmRSS")][0]
        if lowest is not None and now >= lowest:
            return lowest
        lowest = now
        time.sleep(2)
    return lowest


def metric(server, name):
    environment = pathlib.Path(server.folder, "server.env").read_text(encoding="utf-8")
    url = [line.split("=", 1)[1].strip("'") for line in environment.splitlines() if line.startswith("METRICS_URL=")][0]
    with urllib.request.urlopen(url, timeout=30) as answer:
        lines = answer.read().decode().splitlines()
    return [float(line.split()[1]) for line in lines if line.startswith(f"pubsub_device_{name} ")][0]


def make_nodes(server, count):
    client = server.client("owner", "endpoint")
    for first in range(0, count, 5000):
        server.ask(client, [f"<create-key-node xmlns='{DEVICE}' node='/owner/endpoint/app/{number}'/>"
                            for number in range(first, min(count, first + 5000))])
        print(f"  {min(count, first + 5000):,} key nodes", flush=True)
    client.close()


def make_items(server, count):
    nodes = [f"/growth/{number}" for number in range(ITEM_NODES)]
    server.create("owner", nodes)
    server.absent_device("other", "away", nodes)
    while (kept := metric(server, "kept_items")) < count:
        server.publish("owner", nodes, min(10, max(1, (count - kept) / 5000)))
        print(f"  {int(metric(server, 'kept_items')):,} kept items", flush=True)


def hold_devices(server, count):
    """Connects the devices, which then have nothing to do; the process that holds them until its input ends."""
    server.create("owner", ["/growth"])
    load = subprocess.Popen([str(BINARY), "hold", *map(str, server.account("owner")), "/growth", str(count)],
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    if not load.stdout.readline():
        sys.exit("bench_server ended before all devices were connected")
    time.sleep(IDLE)
    return load


def measure(what, count, folder):
    print(f"{count:,} {what}", flush=True)
    server = GrowthServer(folder, Build(ROOT))
    try:
        before, load = resident(server), None
        if what == "nodes":
            make_nodes(server, count)
        elif what == "items":
            make_items(server, count)
        else:
            load = hold_devices(server, count)
        row = {"what": what, "count": count, "bytes each": (resident(server) - before) / count}
        if load:
            load.communicate()
        else:
            row["join seconds"] = server.joined()
            row["start seconds"] = server.start_again()
            row["bytes each after a start"] = (resident(server) - before) / count
            files = [path.stat().st_size for path in pathlib.Path(folder, "spool").glob("*") if path.is_file()]
            row["disk bytes each"] = sum(files) / count
        return row
    finally:
        server.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("what", nargs="*", metavar="WHAT", help="nodes, items, devices; all without")
    parser.add_argument("--size", type=int)
    args = parser.parse_args()
    unknown = [what for what in args.what if what not in SIZES]
    if unknown:
        parser.error(f"nodes, items and devices are measured, not {', '.join(unknown)}")
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    rows = []
    with tempfile.TemporaryDirectory(prefix="growth-") as folder:
        for what in args.what or SIZES:
            largest = args.size or SIZES[what]
            for count in (largest // 100, largest // 10, largest):
                rows.append(measure(what, count, pathlib.Path(folder, f"{what}-{count}")))
                print(json.dumps(rows[-1]), flush=True)
    print(json.dumps(rows, indent=1))


if __name__ == "__main__":
    main()
