#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
"""Measures requests, item delivery and the idle service, each compared with a reference that the same run measures;
with --server, publishing to and delivery by the XMPP server."""

import argparse
import contextlib
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "bench"), str(ROOT / "scripts")]
import device as devices  # noqa: E402
import processes  # noqa: E402
from device import BIN  # noqa: E402
from item_server import ItemServer  # noqa: E402
from server_load import server_load  # noqa: E402

NODE = "/bench/node"
PAYLOAD = "x" * 100
SYNC_DELAY = 1000  # microseconds; a sync of the flash of a small device takes about so much longer


def wait_until(condition, what, seconds=20):
    if not processes.wait_until(condition, seconds):
        sys.exit(f"not within {seconds} s: {what}")


class Table:
    """Rows of figure, reference, their ratio and its bound."""

    def __init__(self):
        self.rows = []

    def add(self, what, unit, reference, pairs, at_least=None, at_most=None):
        """`pairs` holds (figure, reference) of each round; the ratio is the median of the rounds' own ratios."""
        value, reference_value = (statistics.median(pair[i] for pair in pairs) for i in (0, 1))
        ratio = statistics.median(ours / theirs for ours, theirs in pairs)
        bound = f">= {at_least}" if at_least else f"<= {at_most}"
        kept = ratio >= at_least if at_least else ratio <= at_most
        self.rows.append((what, f"{value:,.1f} {unit}", f"{reference}: {reference_value:,.1f}", f"{ratio:.2f}",
                          bound, "kept" if kept else "MISSED"))

    def add_count(self, what, value, bound, kept):
        self.rows.append((what, value, "", "", bound, "kept" if kept else "MISSED"))

    def print(self):
        print("| Figure | Measured | Reference of the same run | Ratio | Bound | |\n|---|---|---|---|---|---|")
        for row in self.rows:
            print("| " + " | ".join(row) + " |")

    def all_kept(self):
        return all(row[-1] == "kept" for row in self.rows)


class Device:
    """A private and a public bus, the host services, the service, and the scripted server, in one folder."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        device = devices.Device(folder)
        self.processes = [device.start_bus(bus) for bus in ("private", "public")]
        self.server = ItemServer()
        for name in ("state/cache", "prefs", "host"):
            (self.folder / name).mkdir(parents=True)
        (self.folder / "prefs").chmod(0o700)
        (self.folder / "host" / "host.conf").write_text("[network]\nloopback-is-internet=true\n")
        (self.folder / "machine-id").write_text("0123456789abcdef" * 2)
        credentials = self.folder / "state" / "pubsub.conf"
        credentials.touch(mode=0o600)
        credentials.write_text("\n".join(
            ["device@localhost", "secret", "127.0.0.1", str(self.server.port), "pubsub.localhost", "bench"]) + "\n")
        (self.folder / "state" / "pubsubhandlers.conf").write_bytes(
            f'{{"node":"{NODE}","endpoint":"zelt://com.zelt.bench.sink/item","app":false}}\0\n'.encode())
        self.environment = dict(device.environment(), xmpp_config="plain", PUBSUB_CA_FILE="/dev/null")

    def start(self, name, *command, ready=False, **environment):
        log = open(self.folder / f"{name}.log", "ab")
        process = subprocess.Popen([str(part) for part in command], env=dict(self.environment, **environment),
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE if ready else log, stderr=log,
                                   text=ready)
        self.processes.append(process)
        if ready and process.stdout.readline().strip() != "ready":
            sys.exit(f"{name} did not start")
        return process

    def connect_service(self, sync_delay=0):
        """Starts the service; each of its syncs takes `sync_delay` microseconds longer."""
        environment = {}
        if sync_delay:
            shim = str(self.folder / "slowdisk.so")
            subprocess.run(["cc", "-shared", "-fPIC", f"-DDELAY_US={sync_delay}", "-o", shim,
                            str(ROOT / "tests" / "e2e" / "slowdisk.c"), "-ldl"], check=True)
            environment["LD_PRELOAD"] = shim
        self.start("host", BIN / "zelt-host")
        service = self.start("service", BIN / "pubsubservice", **environment)
        self.server.login()
        return service

    def output(self, *command, **environment):
        return subprocess.run([str(part) for part in command], env=dict(self.environment, **environment), check=True,
                              capture_output=True, text=True).stdout

    def close(self):
        for process in reversed(self.processes):
            process.kill()
            process.wait()


def load(device, service, pid, in_flight, calls):
    fields = device.output(BIN / "bench_load", service, "getJabberId", str(pid), str(in_flight), str(calls)).split()
    return float(fields[0]), float(fields[1])


@contextlib.contextmanager
def pinned(processes, measured, measured_core, other_core):
    """Pins the measured processes to one core, and the others and every process started in the block to another or
    the same core. Without this, the same program takes 7 or 22 us a call, depending on the cores on which it, the bus
    daemon and the caller run."""
    allowed = os.sched_getaffinity(0)
    pids = {0: other_core} | {process.pid: other_core for process in processes}
    pids |= {process.pid: measured_core for process in measured}
    for pid, core in pids.items():
        os.sched_setaffinity(pid, {core})
    try:
        yield
    finally:
        for pid in pids:
            os.sched_setaffinity(pid, allowed)


def request_rounds(device, service, echo, in_flight, calls):
    """For each round, pairs of the service's and the echo's: first their rates, then the CPU time per call in us."""
    rounds = []
    for _ in range(9):  # alternating, so that other load on the machine affects both
        rounds.append((load(device, "com.zelt.pubsubservice", service.pid, in_flight, calls),
                       load(device, "com.zelt.bench.echo", echo.pid, in_flight, calls)))
    return [[(ours[i], theirs[i]) for ours, theirs in rounds] for i in (0, 1)]


def measure_requests(device, service, table, scale):
    echo = device.start("echo", BIN / "bench_echo", ready=True)
    cores = sorted(os.sched_getaffinity(0))
    # With one call at a time one core is enough: only one of the processes has work at any time.
    for where, core in (("all on one core", cores[-1]), ("on its own core", cores[0])):
        if core == cores[-1] and where == "on its own core":
            continue  # the machine has only one core
        with pinned(device.processes, (service, echo), core, cores[-1]):
            rates, cpu = request_rounds(device, service, echo, 1, 20000 // scale)
        table.add(f"getJabberId, 1 in flight, {where}", "calls/s", "sd-bus echo", rates, at_least=0.9)
        table.add(f"CPU a call, 1 in flight, {where}", "us", "sd-bus echo", cpu, at_most=1.25)
    rates, cpu = request_rounds(device, service, echo, 64, 100000 // scale)
    table.add("getJabberId, 64 in flight", "calls/s", "sd-bus echo", rates, at_least=0.9)
    table.add("CPU a call, 64 in flight", "us", "sd-bus echo", cpu, at_most=1.25)


def append_and_sync(folder, count):
    """The microseconds that appending a record with an fdatasync takes."""
    path = pathlib.Path(folder) / "append"
    record = b'{ "seqNo": "1234567890123456" }' + b" " * 97
    descriptor = os.open(path, os.O_CREAT | os.O_WRONLY | os.O_APPEND, 0o600)
    start = time.monotonic()
    for _ in range(count):
        os.write(descriptor, record)
        os.fdatasync(descriptor)
    seconds = time.monotonic() - start
    os.close(descriptor)
    return seconds * 1e6 / count


def parts_alone(device, count, **environment):
    """Each part of the delivery of an item and the microseconds that it takes alone."""
    sink = device.start("sink", BIN / "bench_sink", str(count), ready=True)
    alone = device.output(BIN / "bench_parts", str(count), NODE, PAYLOAD, **environment)
    sink.kill()
    return {line.split()[0]: float(line.split()[1]) for line in alone.splitlines()}


def parts_and_sync(device, count, tmpfs, sync_delay):
    """The microseconds of all parts, with a store that costs no sync, and of a sync."""
    with tempfile.TemporaryDirectory(prefix="bench-", dir=tmpfs) as prefs:
        parts = parts_alone(device, count, ZELT_PREFS_DIR=prefs)
    return sum(parts.values()) + append_and_sync(device.folder, count) + sync_delay


def measure_items(device, table, where, count, tmpfs=None, sync_delay=0):
    """Items sent as fast as the service reads them, beside the sum of their parts; with `tmpfs`, which is a folder
    on one, beside the parts and a sync for each item."""
    what = f"items to the handler, store on {where}"
    number, parts, beside_parts, beside_sync = 1, [], [], []

    def push(items):
        nonlocal number
        sink = device.start("sink", BIN / "bench_sink", str(items), ready=True)
        start, _ = device.server.push(NODE, number, items, PAYLOAD)
        number += items
        end = float(sink.stdout.readline())
        sink.wait()
        return items / (end - start)

    push(count // 5 + 1)  # the first run lets the store's log file grow to its size
    for _ in range(5):
        rate = push(count)
        if tmpfs:
            beside_sync.append((rate, 1e6 / parts_and_sync(device, count, tmpfs, sync_delay)))
        if not sync_delay:
            parts.append(parts_alone(device, count))
            beside_parts.append((rate, 1e6 / sum(parts[-1].values())))
    if tmpfs:
        # Items that arrive together share a sync, which shows where a sync takes long.
        table.add(what, "items/s", "1 / (parts + sync)", beside_sync, at_least=2 if sync_delay else 0.9)
    if sync_delay:
        return
    table.add(what, "items/s", "sum of the parts", beside_parts, at_least=0.8)
    print(f"parts on {where}, us an item: " +
          ", ".join(f"{name} {statistics.median(part[name] for part in parts):.1f}" for name in parts[0]), flush=True)


def measure_slow_disk(arguments, table, scale):
    where = f"disk, {SYNC_DELAY / 1000:g} ms more a sync"
    print(f"items, store on {where}", flush=True)
    with tempfile.TemporaryDirectory(prefix="bench-", dir=arguments.disk) as folder:
        device = Device(folder)
        try:
            device.connect_service(SYNC_DELAY)
            measure_items(device, table, where, 5000 // scale, arguments.tmpfs, SYNC_DELAY)
        finally:
            device.close()


def switches(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return sum(int(line.split()[1]) for line in status if "ctxt_switches" in line)


def measure_idle(service, table, seconds):
    pid = service.pid
    wait_until(lambda: len(os.listdir(f"/proc/{pid}/task")) == 1, "one thread alone", 60)
    time.sleep(1)  # lets the service finish the work of the load
    before = switches(pid)
    time.sleep(seconds)
    woken = switches(pid) - before
    table.add_count(f"context switches in {seconds} s at rest", str(woken), "0", woken == 0)
    if shutil.which("strace"):
        traced = subprocess.run(["timeout", "--signal=INT", str(seconds), "strace", "-f", "-p", str(pid)],
                                capture_output=True, text=True, check=False).stderr
        # strace also shows the call in which the process is blocked; that one is not counted.
        calls = sum(1 for line in traced.splitlines() if "(" in line and "strace:" not in line) - 1
        table.add_count(f"system calls in {seconds} s at rest", str(max(calls, 0)), "0", calls <= 0)
    threads = len(os.listdir(f"/proc/{pid}/task"))
    table.add_count("threads at rest", str(threads), "1", threads == 1)
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        # Only dirty pages: the code of a library counts as private when no other process has it mapped.
        private = sum(int(line.split()[1]) for line in rollup if line.startswith("Private_Dirty"))
    table.add_count("private memory", f"{private / 1024:.1f} MB", "< 6 MB", private < 6 * 1024)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--quick", action="store_true", help="a tenth of the work, for a first look")
    parser.add_argument("--disk", default=str(ROOT / "build"), help="folder on the disk to measure (default: build)")
    parser.add_argument("--tmpfs", default="/dev/shm", help="folder on a tmpfs (default: /dev/shm)")
    parser.add_argument("--counts", action="store_true",
                        help="only what does not depend on the machine's speed: the service at rest")
    parser.add_argument("--server", action="store_true", help="measure the XMPP server instead of the device")
    arguments = parser.parse_args()
    scale = 10 if arguments.quick else 1
    table = Table()
    pathlib.Path(arguments.disk).mkdir(exist_ok=True)
    if arguments.server:
        with tempfile.TemporaryDirectory(prefix="bench-", dir=arguments.disk) as folder:
            server_load(folder, BIN / "bench_server", table, arguments.quick)
        table.print()
        return 0
    for where, base in (("tmpfs", arguments.tmpfs), ("disk", arguments.disk)):
        if arguments.counts and where == "disk":
            continue
        with tempfile.TemporaryDirectory(prefix="bench-", dir=base) as folder:
            device = Device(folder)
            try:
                service = device.connect_service()
                if not arguments.counts:
                    if where == "tmpfs":
                        print("requests", flush=True)
                        measure_requests(device, service, table, scale)
                    print(f"items, store on {where}", flush=True)
                    count = (20000 if where == "tmpfs" else 5000) // scale
                    measure_items(device, table, where, count, arguments.tmpfs if where == "disk" else None)
                if where == "tmpfs":
                    print("at rest", flush=True)
                    measure_idle(service, table, 10)
            finally:
                device.close()
    if not arguments.counts:
        measure_slow_disk(arguments, table, scale)
    table.print()
    return 0 if table.all_kept() or not arguments.counts else 1


if __name__ == "__main__":
    sys.exit(main())
