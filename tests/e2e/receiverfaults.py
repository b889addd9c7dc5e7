#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
"""Items for a receiver and a confirming handler while both, the service, the host, the link and the server are killed
at random moments.

    receiverfaults.py [--kills N] [--seed N] [--endpoints N]

Ends with the counts as JSON and with status 1 when a promise was broken. Publishers over HTTP know which items the
server took; the application says of each item that it came, that it acknowledges it, and that this was answered. Every
item that was taken has to be acknowledged, in order for each endpoint. An item may come again while no acknowledgement
of it was answered, and has to when none was sent; nothing else may come before that.

The handler service has nodes of its own, and says of each item that it came and that it confirms it. The same holds for
it, but that nobody answers it: a confirmed item may come again when the handler or the service was killed meanwhile.
"""

import argparse
import collections
import contextlib
import json
import os
import random
import signal
import subprocess
import sys
import threading
import time
from unittest import mock

import dbus.bus

from app import App
from endpoints import Publisher
from faults import Told
from link import Link
from stage import BIN, Stage, is_running, wait_until

USER, PASSWORD = "linked", "a password"
APP_ID = "com.example.receiver"
HOST_NAME = "com.zelt.host"
KINDS = ("receiver", "handler", "service", "link", "server", "host")
PUBLISHERS = 2
PAUSE = 0.04             # seconds between the items of a publisher, in the mean
BETWEEN, AWAY = 0.8, 0.3  # seconds between two kills and from a kill to the next start, in the mean
HOST_SETTINGS = "[connection]\nafter=200ms 2s\nbattery=true\n"


class Taker:
    """The processes of a program that takes items, one after the other, and what they said of each endpoint or node,
    in order: (word, item, time), the time "" when the program tells none."""

    def __init__(self, program, address, names):
        self._program, self._address, self._starts = program, address, 0
        self.said = {name: [] for name in names}
        self.start()

    def start(self):
        self._starts += 1
        self._process = subprocess.Popen(
            ["/usr/bin/python3", os.path.join(os.path.dirname(__file__), self._program), self._address,
             str(self._starts), *self.said],
            env=dict(os.environ, ZELT_APP_ID=APP_ID, PYTHONDONTWRITEBYTECODE="1"), stdout=subprocess.PIPE, text=True)
        self._reader = threading.Thread(target=self._read, args=(self._process.stdout,), daemon=True)
        self._reader.start()

    def _read(self, lines):
        for line in lines:
            word, name, index, *when = line.split()
            self.said[name].append((word, int(index), float(when[0]) if when else ""))

    def kill(self):
        """What it had written is read before the next one starts."""
        self._process.kill()
        self._process.wait()
        self._reader.join()
        self._process.stdout.close()


class ReceiverFaults:
    """One run; `broken` says what went wrong."""

    def __init__(self, stage, kills, seed, endpoints=8):
        self.stage, self.random = stage, random.Random(seed)
        self.told = [Told(f"n{number}") for number in range(endpoints)]
        self.handled = {f"/{USER}/{stage.env['DEVICE_RESOURCE']}/{APP_ID}/h{number}": Told(f"h{number}")
                        for number in range(endpoints // 2)}  # by node
        self.kills, self._wanted = collections.Counter(), kills
        self._ends = []  # when the handler and the service were killed, each as (before, after)
        self.broken = []
        self._over = threading.Event()
        self._private = dbus.bus.BusConnection(stage.env["ZELT_PRIVATE_BUS"])

    def run(self):
        link = self._link_device()
        app = App(self.stage.env["ZELT_PUBLIC_BUS"], APP_ID)
        for told in (*self.told, *self.handled.values()):
            told.key = app.call("createEndpoint", {"endpoint": told.endpoint})["publishKey"]
        app.close()
        receiver = Taker("receiverapp.py", self.stage.env["ZELT_PUBLIC_BUS"], [told.endpoint for told in self.told])
        handler = Taker("confirmapp.py", self.stage.env["ZELT_PRIVATE_BUS"], self.handled)
        publishers = [threading.Thread(target=self._publish, args=(part, self.random.random()), daemon=True)
                      for part in range(PUBLISHERS)]
        try:
            for thread in publishers:
                thread.start()
            order = []
            while sum(self.kills.values()) < self._wanted:
                order = order or self.random.sample(KINDS, len(KINDS))
                self._kill(order.pop(), link, {"receiver": receiver, "handler": handler})
            self._over.set()
            for thread in publishers:
                thread.join()
            self._last_items(receiver, handler)
            self._nothing_is_left()
        finally:
            self._over.set()
            receiver.kill()
            handler.kill()
            link.close()
            self._end_host()  # the stage knows only the one that it has started
            self._private.close()
        return self._judge(receiver.said, handler.said)

    def _link_device(self):
        """Has the device connect, with another account, through a link that can be dropped."""
        link = Link(self.stage.env["XMPP_HOST"], self.stage.env["XMPP_PORT"])
        self.stage.account(USER, PASSWORD)
        shown = subprocess.run(
            [str(BIN / "zelt-host"), "account", "set", "--user", USER, "--service", self.stage.env["XMPP_DOMAIN"],
             "--url", "127.0.0.1", "--port", str(link.port)],
            env=self.stage.device.environment(), input=PASSWORD + "\n", text=True, capture_output=True,
            check=False)
        if shown.returncode:
            raise AssertionError(shown.stdout + shown.stderr)
        self.stage.kill_service()
        self.stage.start_service()
        self.stage.wait_connected()
        if not link.segments():
            raise AssertionError("the device does not use the link")
        return link

    def _publish(self, part, seed):
        publisher, order = Publisher(self.stage.env["HTTP_URL"]), random.Random(seed)
        mine = (*self.told, *self.handled.values())[part::PUBLISHERS]
        while not self._over.is_set():
            if not order.choice(mine).publish(publisher):
                time.sleep(0.05)
            time.sleep(order.expovariate(1 / PAUSE))
        publisher.close()

    # --- kills

    def _kill(self, kind, link, takers):
        """Every second one waits until all is well again; the others meet what the one before has left."""
        time.sleep(self.random.expovariate(1 / BETWEEN))
        self.kills[kind] += 1
        away = self.random.expovariate(1 / AWAY)
        before = time.monotonic()
        if kind in takers:
            takers[kind].kill()
            self._ends.append((before, time.monotonic()))
            time.sleep(away)
            takers[kind].start()
        elif kind == "service":
            self.stage.kill_service()
            self._ends.append((before, time.monotonic()))
            time.sleep(away)
            self.stage.start_service()
        elif kind == "link":
            link.drop()
        elif kind == "server":
            self.stage.kill_server()
            time.sleep(away)
            self.stage.start_server()
        else:
            self._end_host()
            time.sleep(away)
            if not self._host_pid():
                self.stage.device.start_host()
        if self.random.random() < 0.5:
            self._wait_connected()

    def _wait_connected(self):
        try:
            wait_until(self.stage.connected, "the service to connect again", 60)
        except AssertionError as error:
            self.broken.append(f"after {dict(self.kills)}: {error}")
            self.stage.ctl("call", "connectStatus", "{}", check=False)

    def _host_pid(self):
        """Of the process that has the name: the bus may have started another one than the tests."""
        def ask(member):
            return self._private.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                               "org.freedesktop.DBus", member, "s", (HOST_NAME,))
        with contextlib.suppress(dbus.DBusException):
            return int(ask("GetConnectionUnixProcessID"))
        return 0

    def _end_host(self):
        pid = self._host_pid()
        if pid:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
            wait_until(lambda: not is_running(pid), "the host to end")

    # --- the end

    def _last_items(self, receiver, handler):
        """One more item for each endpoint, after all kills. It follows everything else."""
        self._wait_connected()
        publisher = Publisher(self.stage.env["HTTP_URL"])
        for told in (*self.told, *self.handled.values()):
            wait_until(lambda told=told: told.publish(publisher), "the last item to be taken")
        publisher.close()

        def has_last(told, word, said):
            return (word, told.next - 1) in [entry[:2] for entry in said[-3:]]
        try:
            wait_until(lambda: all(has_last(told, "done", receiver.said[told.endpoint]) for told in self.told) and
                       all(has_last(told, "ack", handler.said[node]) for node, told in self.handled.items()),
                       "the last items", 120)
        except AssertionError as error:
            self.broken.append(str(error))

    def _nothing_is_left(self):
        app = App(self.stage.env["ZELT_PUBLIC_BUS"], APP_ID)

        def waiting():
            return {each["endpoint"]: each.get("waiting") for each in app.call("listEndpoints", {})["endpoints"]
                    if each.get("waiting") != 0}
        try:
            wait_until(lambda: not waiting(), "the server to have dropped every item")
        except AssertionError as error:
            self.broken.append(f"{error}: {waiting()}")
        app.close()

    def _judge(self, received, handled):
        """The counts of the receiver, and those of the handler under names that begin with its own."""
        counts = collections.Counter()
        for told in self.told:
            self._judge_endpoint(told, received[told.endpoint], counts, "", self._done_came_again)
        for node, told in self.handled.items():
            self._judge_endpoint(told, handled[node], counts, "handler: ", self._confirmed_came_again)
        return dict(counts, kills=dict(self.kills), broken=self.broken)

    def _judge_endpoint(self, told, said, counts, whose, came_again):
        acknowledged, done, given_back = {}, set(), set()
        last = None
        for word, index, when in said:
            if word == "ack":
                acknowledged[index] = when
                given_back.discard(index)
            elif word == "done":
                done.add(index)
            elif word == "back":
                given_back.add(index)
            else:
                if came_again(index, when, acknowledged, done):
                    self.broken.append(f"{told.endpoint}: {index} came again though it was taken")
                self._judge_order(told.endpoint, index, last, acknowledged)
                if index == last:
                    counts[whose + ("repeated, given back" if index in given_back else
                                    "repeated, its acknowledgement not answered" if index in acknowledged else
                                    "repeated, not acknowledged")] += 1
                counts[whose + "arrivals"] += 1
                last = index
        strange = set(acknowledged) - set(told.numbers) - told.unknown
        if strange:
            self.broken.append(f"{told.endpoint}: items arrived that nobody published: {sorted(strange)}")
        lost = set(told.numbers) - set(acknowledged)
        if lost:
            self.broken.append(f"{told.endpoint}: lost: {sorted(lost)}")
        for name, value in (("told", told.numbers), ("unanswered", told.unknown), ("acknowledged", acknowledged),
                            ("acknowledged_untold", set(acknowledged) & told.unknown)):
            counts[whose + name] += len(value)

    @staticmethod
    def _done_came_again(index, _when, _acknowledged, done):
        return index in done

    def _confirmed_came_again(self, index, when, acknowledged, _done):
        """Without an end of the handler or the service, which may have ended before the confirmation was read."""
        return index in acknowledged and not any(
            before <= when and after >= acknowledged[index] for before, after in self._ends)

    def _judge_order(self, endpoint, index, last, acknowledged):
        if last is not None and index < last:
            self.broken.append(f"{endpoint}: {index} came after {last}")
        if last is not None and index != last and last not in acknowledged:
            self.broken.append(f"{endpoint}: {index} came while {last} was open")


def run(kills, seed, endpoints=8):
    """A run on a stage of its own."""
    with mock.patch.dict(os.environ, STAGE_HOST_SETTINGS=HOST_SETTINGS):
        stage = Stage()
        try:
            stage.up()
            return ReceiverFaults(stage, kills, seed, endpoints).run()
        finally:
            stage.down()


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--kills", type=int, default=200)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--endpoints", type=int, default=8)
    counts = run(**vars(parser.parse_args()))
    print(json.dumps(counts, indent=1))
    return 1 if counts["broken"] else 0


if __name__ == "__main__":
    sys.exit(main())
