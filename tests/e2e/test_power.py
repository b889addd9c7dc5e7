# SPDX-License-Identifier: GPL-3.0-only
"""The ping that its alarm lets leave, and the nodes that wait for the boot to finish."""

import unittest

from app import App
from endpoints import Publisher
from platformstubs import PlatformTest

PING_DELAY = "00:25:00"


class KeepAlive(PlatformTest):
    def pings(self):
        return self.stage.log("server").count("urn:xmpp:ping")

    def fire_and_see_the_ping(self):
        before = self.pings()
        self.power.fire("keepAliveTimer")
        self.pump(lambda: self.pings() > before, "the ping at the server")

    def test_a_ping_leaves_when_its_alarm_fires_and_the_alarm_is_armed_again(self):
        self.start_connected()
        self.pump(lambda: self.power.delays("keepAliveTimer") == [PING_DELAY], "the first alarm")
        for count in (2, 3):
            self.fire_and_see_the_ping()
            self.pump(lambda count=count: len(self.power.armed) == count, "the next alarm")
        self.assertEqual(self.power.delays("keepAliveTimer"), [PING_DELAY] * 3)
        self.assertTrue(self.is_connected())

    def test_a_ping_alarm_that_fires_while_disconnected_neither_pings_nor_arms(self):
        self.start_connected()
        alarm = self.power.alarms
        self.pump(lambda: "keepAliveTimer" in alarm, "the alarm")
        left = dict(alarm)
        self.network.report(internet=False)
        self.wait_disconnected()
        self.settle()
        before = self.pings()
        self.power.alarms.update(left)  # it went off before the power service heard that it is cleared
        self.power.fire("keepAliveTimer")
        self.settle()
        self.assertEqual((self.power.alarms, self.power.armed), ({}, [("keepAliveTimer", PING_DELAY)]))
        self.assertEqual(self.pings(), before)


class Boot(PlatformTest):
    def setUp(self):
        super().setUp()
        self.app = App(self.stage.env["ZELT_PUBLIC_BUS"], "com.example.mail")
        self.addCleanup(self.app.close)
        self.publisher = Publisher(self.stage.env["HTTP_URL"])
        self.addCleanup(self.publisher.close)

    def wait_answers(self, call, count):
        def arrived():
            self.app.drain()
            return len(call.texts) >= count
        self.pump(arrived, f"answer {count} at the application")
        return call.answers[count - 1]

    def subscribed_anew(self, endpoint):
        """An endpoint with a subscriber in a session that has not activated it: its key and the call."""
        key = self.wait_answers(self.app.start("createEndpoint", {"endpoint": endpoint}), 1)["publishKey"]
        waiting = self.app.start("subscribe", {"endpoint": endpoint})
        self.wait_answers(waiting, 2)
        self.lose()
        self.wait_alarm(1)
        self.power.fire("reconnectTimer")
        self.wait_connected()
        return key, waiting

    def test_boot_that_finished_before_the_connect_activates_with_the_connect(self):
        self.start_connected()
        key, waiting = self.subscribed_anew("early")
        self.publisher.publish(key, "after the connect")
        self.assertEqual(self.wait_answers(waiting, 3)["item"], "after the connect")

    def test_boot_that_finishes_after_the_connect_activates_then(self):
        self.system.finished = False
        self.start_connected()
        key, waiting = self.subscribed_anew("late")
        self.publisher.publish(key, "before the boot has finished")
        # A round trip to the server: what it had to send before is here.
        self.assertTrue(self.call("createNode", {"node": "/e2e/late"})["returnValue"])
        self.app.settle()
        self.assertEqual(len(waiting.texts), 2)
        self.system.finish()
        self.assertEqual(self.wait_answers(waiting, 3)["item"], "before the boot has finished")


if __name__ == "__main__":
    unittest.main()
