#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
"""What a publication and a delivery cost a cluster of 1, 2 and 3 members, as CPU time for each operation: of all
members together, and of the database. Rates would say nothing, since the members share this machine.

    bench/server_members.py [mnesia|postgresql]... [--seconds S] [--rounds N]

The load is the same for each number of members: the sessions, connections and nodes are shared out evenly. The members
take turns by rounds, so that other load on the machine affects all of them."""

import argparse
import concurrent.futures
import json
import os
import pathlib
import statistics
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "bench"), str(ROOT / "scripts")]
from builds import Build  # noqa: E402
from server_load import BenchServer  # noqa: E402

STORAGES = ("mnesia", "postgresql")
COUNTS = (1, 2, 3)
SESSIONS, IN_FLIGHT, NODES, CONNECTIONS, DEVICES = 6, 16, 24, 24, 6
USERS = ("owner", "other", "third")  # one publishes at each member
TICKS = os.sysconf("SC_CLK_TCK")


class Member(BenchServer):
    """One member; the first one also owns the database."""

    def __init__(self, folder, number, storage, first):
        self._up = ["--member", f"127.0.0.{60 + number}"]
        if first:
            self._up += ["--join", first.folder]
        elif storage == "postgresql":
            self._up += ["--database", storage]
        super().__init__(folder, Build(ROOT))

    def _run(self, *arguments):
        if arguments[0] == "up":
            arguments = (*arguments, *self._up)
        if arguments[0] != "account" or "--join" not in self._up:
            super()._run(*arguments)

    def cpu(self):
        return cpu_of(int(self.where.env["SERVER_PID"]), descendants=False)

    def database_cpu(self):
        record = pathlib.Path(self.folder, "log", "database.pid")
        return cpu_of(int(record.read_text(encoding="utf-8").split()[0])) if record.exists() else 0.0


def cpu_of(pid, descendants=True):
    """Seconds of a process, and of its children, those that have ended included."""
    times = stat_of(pid)
    if times is None:
        return 0.0
    ticks = sum(times[11:13])
    if descendants:
        ticks += sum(times[13:15])
        children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii").split()
        return ticks / TICKS + sum(cpu_of(int(child), descendants=False) for child in children)
    return ticks / TICKS


def stat_of(pid):
    """The numbers of /proc/PID/stat after the state, from the third field on; None when the process is gone."""
    try:
        text = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii")
    except FileNotFoundError:
        return None
    return [int(field) if field.lstrip("-").isdigit() else 0 for field in text.rpartition(")")[2].split()]


class Cluster:
    def __init__(self, folder, storage, count):
        self.count, self.members = count, []
        folder.mkdir()
        for each in (folder, folder.parent):
            each.chmod(0o755)  # root's database runs as another user
        for number in range(count):
            self.members.append(Member(folder / str(number), number, storage, self.members[0] if number else None))
        first = self.members[0]
        self.nodes = [[f"/members-{user}/{number}" for number in range(NODES // count)] for user in USERS[:count]]
        for user, nodes in zip(USERS, self.nodes):
            first.create(user, nodes)
            first.absent_device("other", "away-" + user, nodes)
        self.keys = [first.endpoint(f"/owner/endpoint/app/{number}", "endpoint") for number in range(CONNECTIONS)]
        self.delivered = [f"/delivered-{user}" for user in USERS[:count]]
        for user, node in zip(USERS, self.delivered):
            first.create(user, [node])

    def close(self):
        for member in reversed(self.members):
            member.close()

    def cost(self, operation):
        """Microseconds of the members and of the database for each operation; operation(member, number) returns how
        many it made."""
        members, database = [member.cpu() for member in self.members], self.members[0].database_cpu()
        with concurrent.futures.ThreadPoolExecutor(self.count) as threads:
            made = list(threads.map(operation, self.members, range(self.count)))
        used = sum(member.cpu() for member in self.members) - sum(members)
        return (1e6 * used / sum(made), 1e6 * (self.members[0].database_cpu() - database) / sum(made))

    def publish(self, seconds):
        return self.cost(lambda member, number: member.publish(
            USERS[number], self.nodes[number], seconds, SESSIONS // self.count, IN_FLIGHT)["answered"])

    def http(self, seconds):
        return self.cost(lambda member, number: member.http(
            "POST", self.keys[number::self.count], CONNECTIONS // self.count, seconds)["answered"])

    def deliver(self, seconds):
        return self.cost(lambda member, number: int(seconds * member.deliver(
            self.delivered[number], DEVICES // self.count, IN_FLIGHT, seconds, True, USERS[number])))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("storage", nargs="*", metavar="STORAGE", help="mnesia, postgresql; both without")
    parser.add_argument("--seconds", type=float, default=5)
    parser.add_argument("--rounds", type=int, default=3)
    args = parser.parse_args()
    unknown = [storage for storage in args.storage if storage not in STORAGES]
    if unknown:
        parser.error(f"the storages are mnesia and postgresql, not {', '.join(unknown)}")
    rows = []
    with tempfile.TemporaryDirectory(prefix="members-") as folder:
        for storage in args.storage or STORAGES:
            clusters = []
            try:
                for count in COUNTS:
                    print(f"{storage}, {count} members", flush=True)
                    clusters.append(Cluster(pathlib.Path(folder, f"{storage}-{count}"), storage, count))
                for what in ("publish", "http", "deliver"):
                    rounds = [[getattr(cluster, what)(args.seconds) for cluster in clusters]
                              for _ in range(args.rounds)]
                    for place, count in enumerate(COUNTS):
                        members = [each[place][0] for each in rounds]
                        rows.append({"storage": storage, "what": what, "members": count,
                                     "cpu us": round(statistics.median(members)),
                                     "of one member": round(statistics.median(
                                         each[place][0] / each[0][0] for each in rounds), 2),
                                     "database us": round(statistics.median(each[place][1] for each in rounds))})
                        print(json.dumps(rows[-1]), flush=True)
            finally:
                for cluster in clusters:
                    cluster.close()
    print(json.dumps(rows, indent=1))


if __name__ == "__main__":
    main()
