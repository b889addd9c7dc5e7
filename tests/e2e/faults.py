#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
"""Items published over HTTP while the service, the server and the link are killed at random moments.

    faults.py [ITEMS [SECONDS [SEED]]]     by default 10000 items in 300 seconds

Ends with the counts as JSON and with status 1 when a promise was broken. An application subscribes to every endpoint,
and again after each item, refusal and end. Three kinds of evidence meet: what the publishers were told (201 and the
number), what the application received, and what was written into the cache, seen by watching its folder.
"""

import collections
import http.client
import json
import os
import random
import subprocess
import sys
import threading
import time
import urllib.request

from app import App
from cachewatch import CacheWatch
from endpoints import Publisher, preferences
from stage import Stage, wait_until

APP_ID = "com.example.faults"
PUBLISHERS = 4
KINDS = ("service", "link", "server", "stream", "service", "link", "service")  # in turn


class Told:
    """What one endpoint's publisher knows: the numbers of its items that the server took, by their index."""

    def __init__(self, endpoint):
        self.endpoint, self.key = endpoint, None
        self.next, self.numbers, self.unknown = 0, {}, set()

    def publish(self, publisher):
        """Publishes the next item; false when nobody said whether it is stored."""
        index, self.next = self.next, self.next + 1
        try:
            status, answer = publisher.request(self.key, str(index).encode())
        except ConnectionRefusedError:  # the server is down and has seen nothing
            self.next = index
            return False
        except (OSError, http.client.HTTPException):
            self.unknown.add(index)
            return False
        if status == 201:
            self.numbers[index] = int(answer["seqNo"])
        return status == 201


class Application:
    """The application's process, and what it received of each endpoint, in order."""

    def __init__(self, stage, endpoints):
        self.received = {endpoint: [] for endpoint in endpoints}
        self._process = subprocess.Popen(
            ["/usr/bin/python3", os.path.join(os.path.dirname(__file__), "faultsapp.py"),
             stage.env["ZELT_PUBLIC_BUS"], *endpoints],
            env=dict(os.environ, ZELT_APP_ID=APP_ID, PYTHONDONTWRITEBYTECODE="1"), stdout=subprocess.PIPE, text=True)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            endpoint, _, index = line.strip().partition(" ")
            self.received[endpoint].append(int(index))

    def close(self):
        self._process.terminate()
        self._process.wait()
        self._reader.join()


class Faults:
    """One run; `counts` and `broken` say how it went."""

    def __init__(self, stage, items, seconds, seed, nodes=20):
        self.stage, self.items, self.seconds = stage, items, seconds
        self.random = random.Random(seed)
        self.told = [Told(f"n{number}") for number in range(nodes)]
        self.kills = collections.Counter()
        self.broken = []
        self._stored = {}  # the greatest number seen in the preferences, by node
        self._left = items
        self._lock = threading.Lock()

    def run(self):
        self._create()
        watch = CacheWatch(self.stage.path("state", "cache"))
        application = Application(self.stage, [told.endpoint for told in self.told])
        try:
            publishers = [threading.Thread(target=self._publish, args=(part,)) for part in range(PUBLISHERS)]
            for thread in publishers:
                thread.start()
            while any(thread.is_alive() for thread in publishers):
                self._kill_something()
            for thread in publishers:
                thread.join()
            self._last_items(application)
        finally:
            application.close()
            watch.close()
        return self._judge(application, watch)

    def _create(self):
        creator = App(self.stage.env["ZELT_PUBLIC_BUS"], APP_ID)
        for told in self.told:
            told.key = creator.call("createEndpoint", {"endpoint": told.endpoint})["publishKey"]
        creator.close()

    def _take(self):
        """Whether another item is to be published: all that were asked for, and more until each kind had its turn."""
        with self._lock:
            self._left -= 1
            return self._left >= 0 or set(self.kills) != set(KINDS)

    def _publish(self, part):
        """One publisher: the endpoints of its part, one item after another, at random times."""
        publisher = Publisher(self.stage.env["HTTP_URL"])
        order = random.Random(self.random.random() + part)
        mine = self.told[part::PUBLISHERS]
        pause = self.seconds * PUBLISHERS / self.items
        due = time.monotonic()
        while self._take():
            due += order.expovariate(1 / pause)
            time.sleep(max(0.0, due - time.monotonic()))
            while not order.choice(mine).publish(publisher):
                time.sleep(0.05)
        publisher.close()

    def _kill_something(self):
        time.sleep(self.random.expovariate(1 / 0.6))
        kind = KINDS[sum(self.kills.values()) % len(KINDS)]
        self.kills[kind] += 1
        getattr(self, "_kill_" + kind)(self.random.expovariate(1 / 0.2))
        self._connect()

    def _kill_service(self, away):
        self.stage.kill_service()
        self._look_at_numbers()
        time.sleep(away)
        self.stage.start_service()

    def _kill_server(self, away):
        self.stage.kill_server()
        time.sleep(away)
        self.stage.start_server()

    def _kill_link(self, away):
        self.stage.ctl("call", "disconnect", "{}")
        time.sleep(away)

    def _kill_stream(self, _away):
        """The server ends the stream."""
        session = {"user": self.stage.env["DEVICE_USER"], "host": self.stage.env["XMPP_DOMAIN"],
                   "resource": self.stage.env["DEVICE_RESOURCE"], "reason": "faults"}
        request = urllib.request.Request(self.stage.env["API_URL"] + "/kick_session", json.dumps(session).encode(),
                                         {"Content-Type": "application/json"})
        urllib.request.build_opener(urllib.request.ProxyHandler({})).open(request, timeout=20).close()

    def _connect(self):
        def connected():
            self.stage.ctl("call", "connectStatus", "{}", check=False)
            return self.stage.connected()
        wait_until(connected, "the service to connect again", 60)

    def _look_at_numbers(self):
        """The stored numbers, read while the service is down."""
        for key, value in preferences(self.stage).items():
            if isinstance(value, dict) and "seqNo" in value:
                number = int(value["seqNo"])
                if number < self._stored.get(key, 0):
                    self.broken.append(f"the stored number of {key} went from {self._stored[key]} back to {number}")
                self._stored[key] = number

    def _last_items(self, application):
        """One more item for each endpoint, after all kills: it has to arrive itself."""
        publisher = Publisher(self.stage.env["HTTP_URL"])
        for told in self.told:
            wait_until(lambda told=told: told.publish(publisher), "the last item to be taken")
        publisher.close()
        try:
            wait_until(lambda: all(told.next - 1 in application.received[told.endpoint] for told in self.told),
                       "the last items", 60)
        except AssertionError as error:
            self.broken.append(str(error))

    def _judge(self, application, watch):
        counts = collections.Counter()
        for told in self.told:
            self._judge_endpoint(told, application.received[told.endpoint],
                                 watch.written.get(told.endpoint, []), counts)
        if watch.overflowed:
            self.broken.append("the cache changed faster than it could be watched; nothing can be said of it")
        return dict(counts, kills=dict(self.kills), broken=self.broken)

    def _judge_endpoint(self, told, received, written, counts):
        name = told.endpoint
        numbers = [told.numbers[index] for index in sorted(told.numbers)]
        if any(later <= earlier for earlier, later in zip(numbers, numbers[1:])):
            self.broken.append(f"{name}: the publishers' numbers run backwards: {numbers}")
        if any(later < earlier for earlier, later in zip(received, received[1:])):
            self.broken.append(f"{name}: items arrived backwards: {received}")
        strange = set(received) - set(told.numbers) - told.unknown
        if strange:
            self.broken.append(f"{name}: items arrived that nobody published: {strange}")
        missing = set(told.numbers) - set(received)
        # A missing item was written into the cache, and a later one over it. What was overwritten before it could be
        # read is one write that showed another item; there must be one for each that was not seen.
        read = {index for index in written if index is not None}
        unseen = missing - read
        if len(unseen) > len(written) - len(read):
            self.broken.append(f"{name}: lost: {sorted(unseen)}, of {len(written)} writes {len(read)} items were read")
        if missing and max(missing) > max(received, default=-1):
            self.broken.append(f"{name}: missing and nothing later arrived: {sorted(missing)}")
        counts.update(told=len(told.numbers), unanswered=len(told.unknown), received=len(set(received)),
                      repeated=len(received) - len(set(received)), overwritten=len(missing),
                      received_untold=len(set(received) & told.unknown),
                      cached=len(written), unseen=len(unseen))


def main(items=10000, seconds=300, seed=1):
    stage = Stage()
    try:
        stage.up()
        counts = Faults(stage, int(items), float(seconds), int(seed)).run()
    finally:
        stage.down()
    print(json.dumps(counts, indent=1))
    return 1 if counts["broken"] else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
