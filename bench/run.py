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
import report  # noqa: E402
from builds import Build, Missing, Turns  # noqa: E402
from item_server import ItemServer  # noqa: E402
from kept import measure_kept  # noqa: E402
from results import Results, Unreadable  # noqa: E402
from server_load import server_load  # noqa: E402

NODE = "/bench/node"
PAYLOAD = "x" * 100
SYNC_DELAY = 1000  # microseconds; a sync of the flash of a small device takes about so much longer
BIN = ROOT / "build" / "release" / "bin"  # of the load generators and references

PROGRAMS = ("pubsubservice", "zelt-host", "pubsubctl", "bench_echo", "bench_load", "bench_sink", "bench_parts",
            "bench_server", "bench_latency", "bench_receiver", "bench_kept_parts")


def wait_until(condition, what, seconds=20):
    if not processes.wait_until(condition, seconds):
        sys.exit(f"not within {seconds} s: {what}")


class Device:
    """A private and a public bus, the host services, the service, and the scripted server, in one folder. The host
    services and the service are those of the build."""

    def __init__(self, folder, build):
        self.folder, self.build = pathlib.Path(folder), build
        self.folder.mkdir(exist_ok=True)
        self.service = self.echo = None
        self.items = 0  # that were sent so far
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
        environment = {"ZELT_APP_ID_FROM_ENVIRONMENT": "1"}
        if sync_delay:
            shim = str(self.folder / "slowdisk.so")
            subprocess.run(["cc", "-shared", "-fPIC", f"-DDELAY_US={sync_delay}", "-o", shim,
                            str(ROOT / "tests" / "e2e" / "slowdisk.c"), "-ldl"], check=True)
            environment["LD_PRELOAD"] = shim
        self.start("host", self.build.bin / "zelt-host")
        self.service = self.start("service", self.build.bin / "pubsubservice", **environment)
        self.server.login()

    def output(self, *command, **environment):
        return subprocess.run([str(part) for part in command], env=dict(self.environment, **environment), check=True,
                              capture_output=True, text=True).stdout

    def close(self):
        for process in reversed(self.processes):
            process.kill()
            process.wait()


def load(device, name, process, in_flight, calls):
    """Calls per second, and CPU time per call in us."""
    fields = device.output(BIN / "bench_load", name, "getJabberId", process.pid, in_flight, calls).split()
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


def measure_requests(turns, scale):
    every = [process for device in turns.subjects for process in device.processes]
    measured = [device.service for device in turns.subjects]
    if not turns.compares:
        for device in turns.subjects:
            device.echo = device.start("echo", BIN / "bench_echo", ready=True)
            measured.append(device.echo)

    def measure(how, in_flight, calls):
        rounds = turns.rounds(
            9, lambda device: load(device, "com.zelt.pubsubservice", device.service, in_flight, calls),
            lambda device: load(device, "com.zelt.bench.echo", device.echo, in_flight, calls))
        turns.add(f"getJabberId, {how}", "calls/s", "sd-bus echo", rounds, lambda each: each[0], at_least=0.9)
        turns.add(f"CPU a call, {how}", "us", "sd-bus echo", rounds, lambda each: each[1], better="less", at_most=1.25)

    cores = sorted(os.sched_getaffinity(0))
    # With one call at a time one core is enough: only one of the processes has work at any time.
    for where, core in (("all on one core", cores[-1]), ("on its own core", cores[0])):
        if core == cores[-1] and where == "on its own core":
            continue  # the machine has only one core
        with pinned(every, measured, core, cores[-1]):
            measure(f"1 in flight, {where}", 1, 20000 // scale)
    measure("64 in flight", 64, 100000 // scale)


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


def push(device, items):
    """Items per second from the server to the handler."""
    sink = device.start("sink", BIN / "bench_sink", items, ready=True)
    start, _ = device.server.push(NODE, device.items + 1, items, PAYLOAD)
    device.items += items
    end = float(sink.stdout.readline())
    sink.wait()
    return items / (end - start)


def parts_alone(device, count, **environment):
    """Each part of the delivery of an item and the microseconds that it takes alone."""
    sink = device.start("sink", BIN / "bench_sink", count, ready=True)
    alone = device.output(BIN / "bench_parts", count, NODE, PAYLOAD, **environment)
    sink.kill()
    return {line.split()[0]: float(line.split()[1]) for line in alone.splitlines()}


def parts_and_sync(device, count, tmpfs, sync_delay):
    """The microseconds of all parts, with a store that costs no sync, and of a sync."""
    with tempfile.TemporaryDirectory(prefix="bench-", dir=tmpfs) as prefs:
        parts = parts_alone(device, count, ZELT_PREFS_DIR=prefs)
    return sum(parts.values()) + append_and_sync(device.folder, count) + sync_delay


def measure_items(turns, where, count, tmpfs=None, sync_delay=0):
    """Items sent as fast as the service reads them, beside the sum of their parts; with `tmpfs`, which is a folder
    on one, beside the parts and a sync for each item."""
    for device in turns.subjects:
        push(device, count // 5 + 1)  # the first run lets the store's log file grow to its size
    name = f"items to the handler, store on {where}"
    rounds = turns.rounds(5, lambda device: push(device, count), lambda device: (
        parts_and_sync(device, count, tmpfs, sync_delay) if tmpfs else None,
        None if sync_delay else parts_alone(device, count)))
    if turns.compares:
        turns.add(name, "items/s", "", rounds)
        return
    if tmpfs:
        # Items that arrive together share a sync, which shows where a sync takes long.
        turns.add(name, "items/s", "1 / (parts + sync)",
                  [(rate, 1e6 / each) for rate, (each, _) in rounds], at_least=2 if sync_delay else 0.9)
    if sync_delay:
        return
    parts = [each for _, (_, each) in rounds]
    turns.add(name, "items/s", "sum of the parts",
              [(rate, 1e6 / sum(part.values())) for (rate, _), part in zip(rounds, parts)], at_least=0.8)
    print(f"parts on {where}, us an item: " +
          ", ".join(f"{step} {statistics.median(part[step] for part in parts):.1f}" for step in parts[0]), flush=True)


def switches(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return sum(int(line.split()[1]) for line in status if "ctxt_switches" in line)


def at_rest(device, seconds):
    """What the service does while nothing happens, and what it is: counts, and its memory in MB."""
    pid, found = device.service.pid, {}
    wait_until(lambda: len(os.listdir(f"/proc/{pid}/task")) == 1, "one thread alone", 60)
    time.sleep(1)  # lets the service finish the work of the load
    before = switches(pid)
    time.sleep(seconds)
    found[f"context switches in {seconds} s at rest"] = switches(pid) - before
    if shutil.which("strace"):
        traced = subprocess.run(["timeout", "--signal=INT", str(seconds), "strace", "-f", "-p", str(pid)],
                                capture_output=True, text=True, check=False).stderr
        # strace also shows the call in which the process is blocked; that one is not counted.
        calls = sum(1 for line in traced.splitlines() if "(" in line and "strace:" not in line) - 1
        found[f"system calls in {seconds} s at rest"] = max(calls, 0)
    found["threads at rest"] = len(os.listdir(f"/proc/{pid}/task"))
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        # Only dirty pages: the code of a library counts as private when no other process has it mapped.
        private = sum(int(line.split()[1]) for line in rollup if line.startswith("Private_Dirty"))
    found["private memory"] = private / 1024
    return found


def measure_idle(turns, seconds):
    bounds = {"threads at rest": ("", "<=", 1), "private memory": ("MB", "<", 6)}
    rounds = turns.rounds(1, lambda device: at_rest(device, seconds))
    for name in rounds[0][0]:
        unit, sign, bound = bounds.get(name, ("", "<=", 0))
        turns.add_value(name, unit, [(ours[name], theirs and theirs[name]) for ours, theirs in rounds], sign, bound)


@contextlib.contextmanager
def connected(base, builds, results, sync_delay=0):
    """A device of each build, connected, in a folder below `base`; the block gets their turns."""
    with tempfile.TemporaryDirectory(prefix="bench-", dir=base) as folder, contextlib.ExitStack() as stack:
        turns = Turns(results, [])
        for name, build in zip("ab", builds):
            device = Device(pathlib.Path(folder, name), build)
            turns.subjects.append(device)
            stack.callback(device.close)
            device.connect_service(sync_delay)
        yield turns


def measure_device(arguments, builds, results):
    scale = 10 if arguments.quick else 1
    with connected(arguments.tmpfs, builds, results) as turns:
        if not arguments.counts:
            print("requests", flush=True)
            measure_requests(turns, scale)
            print("items, store on tmpfs", flush=True)
            measure_items(turns, "tmpfs", 20000 // scale)
            measure_kept(turns, "tmpfs", PAYLOAD, 5000 // scale)
        print("at rest", flush=True)
        measure_idle(turns, 10)
    if arguments.counts:
        return
    for where, delay in (("disk", 0), (f"disk, {SYNC_DELAY / 1000:g} ms more a sync", SYNC_DELAY)):
        print(f"items, store on {where}", flush=True)
        with connected(arguments.disk, builds, results, delay) as turns:
            measure_items(turns, where, 5000 // scale, arguments.tmpfs, delay)
            if not delay:
                measure_kept(turns, where, PAYLOAD, 2000 // scale)


def measure(arguments):
    """Runs, and writes the results and the report; returns the exit status."""
    builds = [Build(folder) for folder in arguments.compare or [ROOT]]
    for build in builds if arguments.compare else []:
        build.check()
    for command in (["install-packages"], ["build", "release", *PROGRAMS]):
        if subprocess.run([ROOT / "scripts" / command[0], *command[1:]], check=False).returncode:
            return 1  # it has said why
    kind = "server" if arguments.server else "device"
    results = Results(kind, arguments.quick, [str(build.root) for build in builds] if arguments.compare else ())
    pathlib.Path(arguments.disk).mkdir(exist_ok=True)
    if arguments.server:
        with tempfile.TemporaryDirectory(prefix="bench-", dir=arguments.disk) as folder:
            server_load(folder, builds, results, arguments.quick)
    else:
        measure_device(arguments, builds, results)
    results.print_table()
    folder = pathlib.Path(arguments.output or ROOT / "build" / "bench" / time.strftime("%Y-%m-%d-%H%M%S"))
    results.write(folder / (f"compare-{kind}.json" if arguments.compare else f"{kind}.json"))
    report.write(sorted(folder.glob("*.json")), folder / "report.html")
    print(folder / "report.html")
    return 0 if results.all_kept() or not arguments.counts else 1


def draw(arguments):
    target = pathlib.Path(arguments.output or pathlib.Path(arguments.report[0]).parent) / "report.html"
    report.write(arguments.report, target)
    print(target)
    return 0


def main():
    parser = argparse.ArgumentParser(prog="bench.sh", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="a tenth of the work, for a first look")
    parser.add_argument("--disk", default=str(ROOT / "build"), help="folder on the disk to measure (default: build)")
    parser.add_argument("--tmpfs", default="/dev/shm", help="folder on a tmpfs (default: /dev/shm)")
    parser.add_argument("--counts", action="store_true",
                        help="only what does not depend on the machine's speed: the service at rest")
    parser.add_argument("--server", action="store_true", help="measure the XMPP server instead of the device")
    parser.add_argument("--output", metavar="DIR",
                        help="folder of the results and of report.html (default: build/bench/DATE)")
    parser.add_argument("--compare", nargs=2, metavar=("A", "B"),
                        help="measure two checkouts with a release build in turns; each ratio is B / A")
    parser.add_argument("--report", nargs="+", metavar="FILE",
                        help="measure nothing: write report.html from the results of runs")
    arguments = parser.parse_args()
    try:
        return draw(arguments) if arguments.report else measure(arguments)
    except (Missing, Unreadable) as error:
        print(error, file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
