# SPDX-License-Identifier: GPL-3.0-only
"""What other processes do to the service through the public bus, and what an application sees of it meanwhile."""

import json
import os
import pathlib
import signal
import statistics
import subprocess
import time
import unittest
from unittest import mock

import dbus.lowlevel

from endpoints import MAIL, NEWS, EndpointsTest
from stage import is_running, wait_until
from stranger import DAEMON, SERVICE, Socket

HERE = pathlib.Path(__file__).resolve().parent
CALLERS = int(os.environ.get("PUBSUB_CALLERS", "3000"))
CALLERS_AT_ONCE = 3
REQUESTS = 3000
DEAF = 20
MEMORY = 16 * 1024 * 1024


def anonymous_memory(pid):
    """Bytes of memory that the process holds, without what is mapped from files."""
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("RssAnon:")) * 1024


class Strangers(EndpointsTest):
    @classmethod
    def setUpClass(cls):
        # A sanitizer keeps what is freed, to find late uses; here that would look like what is left behind.
        cls.options = (os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1").lstrip(":")
        with mock.patch.dict(os.environ, ASAN_OPTIONS=cls.options):
            super().setUpClass()
        cls.address = cls.stage.env["ZELT_PUBLIC_BUS"]

    def stranger(self, mode, count, number=0, app_id="com.example.stranger"):
        process = subprocess.Popen(
            ["/usr/bin/python3", "-S", "-E", str(HERE / "stranger.py"), mode, self.address, str(count), str(number)],
            env=dict(os.environ, ZELT_APP_ID=app_id), stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def other(self):
        """Another process of the bus, which waits for each answer."""
        client = Socket(self.address)
        self.addCleanup(client.close)
        return client

    def median(self, client):
        """Seconds of a call; the best of a few rounds, since others use the machine too."""
        def seconds():
            start = time.monotonic()
            self.assertTrue(client.call("connectStatus"))
            return time.monotonic() - start
        return min(statistics.median(seconds() for _ in range(200)) for _ in range(3))

    def test_a_call_and_exit_at_once_by_thousands_ends_nothing_and_fills_no_log(self):
        pid, before, start = self.stage.service_pid, self.stage.log("service").count("\n"), time.monotonic()
        callers = [self.stranger("leave", CALLERS // CALLERS_AT_ONCE, seed) for seed in range(CALLERS_AT_ONCE)]
        plain = 0
        while any(caller.poll() is None for caller in callers):
            subprocess.run(["dbus-send", "--bus=" + self.address, "--dest=" + SERVICE, "/", SERVICE + ".connectStatus",
                            "string:{}"], check=True)
            plain += 1
        self.assertEqual([caller.returncode for caller in callers], [0] * CALLERS_AT_ONCE)
        self.assertGreater(plain, 0)
        self.assertTrue(self.other().call("connectStatus"))
        self.assertEqual((self.stage.service_pid, is_running(pid)), (pid, True))
        lines, seconds = self.stage.log("service").count("\n") - before, time.monotonic() - start
        print(f"{CALLERS} callers and {plain} dbus-send in {seconds:.0f} s, {lines} lines", flush=True)
        self.assertLessEqual(lines, seconds + 1)

    def test_requests_that_stay_kept_are_bounded_and_others_go_on(self):
        stranger, other = self.app(NEWS), self.app(MAIL)
        self.create(stranger, self.endpoint)
        self.subscribe(stranger, self.endpoint)
        before = anonymous_memory(self.stage.service_pid)
        with self.stage.server_held():
            # It is answered at once, and kept until the server has switched the node off.
            calls = []
            for _ in range(REQUESTS // 30):  # what the bus daemon takes at once
                some = [stranger.start("unsubscribe", {"endpoint": self.endpoint, "filler": "x" * size})
                        for size in (3000, 3000, 15000) * 10]
                stranger.wait(lambda some=some: all(call.texts or call.error for call in some), "the answers")
                calls += some
            grown = anonymous_memory(self.stage.service_pid) - before
            self.assertEqual(other.call("unsubscribe", {"endpoint": self.endpoint}),
                             {"returnValue": True, "endpoint": self.endpoint, "status": "not subscribed"})
        refusals = [call.error for call in calls if call.error]
        print(f"{len(calls) - len(refusals)} of {len(calls)} requests kept, grown by {grown >> 10} kB", flush=True)
        self.assertTrue(all("com.zelt.Error.LimitExceeded" in error for error in refusals), refusals[:3])
        self.assertLessEqual(len(calls) - len(refusals), 128)
        self.assertLess(grown, MEMORY)

    def test_changes_back_and_forth_on_a_slow_disk_leave_another_application_its_own(self):
        shim = self.stage.path("slowdisk.so")
        subprocess.run(["cc", "-shared", "-fPIC", "-o", str(shim), str(HERE / "slowdisk.c"), "-ldl"], check=True)
        self.stage.kill_service(signal.SIGTERM)
        self.addCleanup(self.restart)
        # The sanitizer wants to be the first library, for functions that this one does not have.
        self.stage.start_service(LD_PRELOAD=str(shim), ASAN_OPTIONS=self.options + ":verify_asan_link_order=0")
        quiet = self.seconds_of_a_change(0)
        self.assertGreater(quiet, 0.01, "the disk is not slow")
        seesaw = self.stranger("seesaw", 8)
        self.assertEqual(seesaw.stdout.readline(), "sent\n")
        # The stranger, too, may make 128 changes at once; they are over at some time.
        loaded = []
        while len(loaded) < 10 and not (loaded and loaded[-1] < 3 * quiet):
            loaded.append(self.seconds_of_a_change(len(loaded) + 1))
        self.assertIsNone(seesaw.poll())
        print(f"a change quiet {quiet * 1000:.1f} ms, loaded", *(f"{seconds * 1000:.1f}" for seconds in loaded),
              flush=True)
        self.assertLess(loaded[-1], 3 * quiet)

    def seconds_of_a_change(self, number):
        """The median of twenty, of an application that has made none yet."""
        process = self.stranger("changes", 20, app_id=f"com.example.other{number}")
        seconds = json.loads(process.communicate(timeout=120)[0])
        self.assertEqual(process.returncode, 0)
        return statistics.median(seconds)

    def restart(self):
        self.stage.kill_service(signal.SIGTERM)
        with mock.patch.dict(os.environ, ASAN_OPTIONS=self.options):
            self.stage.start_service()
        self.stage.wait_connected()

    def test_connections_that_do_not_read_hold_no_other_call_and_fill_nothing(self):
        other = self.other()
        quiet, before = self.median(other), anonymous_memory(self.stage.service_pid)
        deaf = self.stranger("deaf", DEAF, 300)
        self.assertEqual(deaf.stdout.readline(), "sent\n")
        # What they have sent may still fill the service's inbox, and the bus daemon refuses calls then.
        wait_until(lambda: all(other.call("connectStatus") for _ in range(100)), "the service to take all calls", 60)
        loaded = self.median(other)
        grown = anonymous_memory(self.stage.service_pid) - before
        self.assertIsNone(deaf.poll())
        print(f"a call quiet {quiet * 1000:.2f} ms, loaded {loaded * 1000:.2f} ms, grown by {grown >> 10} kB",
              flush=True)
        self.assertLess(loaded, 3 * quiet)
        self.assertLess(grown, MEMORY)

    def test_an_item_reaches_its_application_whatever_signals_a_stranger_makes_up(self):
        app = self.app(MAIL)
        key = self.create(app, self.endpoint)
        call = self.subscribe(app, self.endpoint)
        service, stranger = self.public.get_name_owner(SERVICE), self.public.get_unique_name()
        forged = 0
        for name in self.public.list_names():
            if name.startswith(":") and name not in (service, stranger):
                self.forge(service, "/org/freedesktop/DBus", DAEMON, "NameOwnerChanged", "sss", name, name, "")
                forged += 1
        self.assertGreater(forged, 0)
        for serial in range(1, 200):
            self.forge(service, "/", "com.zelt.Subscription1", "Ended", "us", serial, "released")
            self.forge(service, "/", "com.zelt.Subscription1", "Answer", "us", serial, "{}")
        # The answer to a call of the same connection says that the service has read all before it.
        self.public.call_blocking(SERVICE, "/", SERVICE, "connectStatus", "s", ("{}",))
        self.publisher.publish(key, "genuine")
        self.expect_item(call, self.endpoint, "genuine", 2)
        self.assertIsNone(self.cached(MAIL, self.endpoint))

    def forge(self, destination, path, interface, member, signature, *arguments):
        message = dbus.lowlevel.SignalMessage(path, interface, member)
        message.set_destination(destination)
        message.append(*arguments, signature=signature)
        self.public.send_message(message)


if __name__ == "__main__":
    unittest.main()
