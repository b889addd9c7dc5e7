# SPDX-License-Identifier: GPL-3.0-only
"""The way of a marked item through the real server and the real service, as `pubsubctl trace` prints it."""

import json
import re
import subprocess
import unittest

from stage import BIN, StageTest
from test_pubsubctl import MAIL, Running, environment

NODE = "/e2e/dev/trace"
LINE = re.compile(r" *[0-9]+\.[0-9] ms  (sender|server|device)  ([a-z ]+)(?:, (.*))?")


class Trace(StageTest):
    def trace(self, *arguments):
        """(exit code, standard output, standard error)"""
        done = subprocess.run([str(BIN / "pubsubctl"), *arguments], env=environment(self.stage), timeout=60,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        return done.returncode, done.stdout, done.stderr

    def stations(self, *arguments, expected=0):
        """[(where, name, detail)] in the order printed, and what was said beside it."""
        code, lines, said = self.trace("trace", *arguments)
        self.assertEqual(code, expected, lines + said)
        return [LINE.fullmatch(line).groups() for line in lines.splitlines()], said

    def assert_way(self, stations, to):
        resource = self.stage.env["DEVICE_RESOURCE"]
        self.assertEqual(stations[0], ("sender", "published", None))
        self.assertEqual([each for each in stations if each[0] != "sender"][-1], ("server", "acknowledged", resource))
        self.assertEqual([each for each in stations if each[0] == "device"],
                         [("device", "received", None), ("device", "handed on", to), ("device", "acknowledged", None)])
        self.assertEqual({each for each in stations if each[0] == "server"},
                         {("server", "accepted", None), ("server", "committed", None), ("server", "sent", resource),
                          ("server", "acknowledged", resource)})

    def test_a_node_without_and_with_a_subscription_and_with_a_confirming_handler(self):
        self.stage.ctl("node", "create", NODE)
        stations, said = self.stations(NODE, "-W", "1", expected=5)
        self.assertEqual([each for each in stations if each[0] == "server"],
                         [("server", "accepted", None), ("server", "committed", None)])
        self.assertIn(f"`pubsubctl node subscribe {NODE}`", said)
        self.stage.ctl("node", "subscribe", NODE)
        stations, _said = self.stations(NODE)
        self.assert_way(stations, "cache")
        handler = Running(self.stage, "handler", NODE, "--confirm", "-C", "1").wait_said("receiving")
        stations, _said = self.stations(NODE)
        self.assert_way(stations, "confirming handlers")
        self.assertEqual(handler.end(), (0, ["a test of pubsubctl trace"]))

    def test_a_key_without_and_with_a_receiver(self):
        key = self.stage.ctl(*MAIL, "endpoint", "create", "traced")[1].strip()
        _stations, said = self.stations(key, "-W", "1", expected=5)
        self.assertIn("no program of this device receives the endpoint now", said)
        receiver = Running(self.stage, *MAIL, "subscribe", "traced", "-C", "2").wait_said("receiving")
        code, printed, _said = self.trace("--json", "trace", key)
        report = json.loads(printed)
        self.assertEqual((code, report["acknowledged"], report["itemid"][:6]), (0, True, "trace-"))
        self.assert_way([(each["where"], each["name"], each.get("detail")) for each in report["stations"]],
                        "receiver com.example.mail")
        times = [each["at"] for each in report["stations"]]
        self.assertEqual(times, sorted(times))
        self.assertEqual(receiver.end()[0], 0)

    def test_an_unknown_key_is_refused(self):
        code, printed, said = self.trace("trace", "unknownkey")
        self.assertEqual((code, printed), (3, ""))
        self.assertIn("no endpoint has this key", said)


if __name__ == "__main__":
    unittest.main()
