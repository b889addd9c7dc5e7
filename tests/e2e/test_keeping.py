# SPDX-License-Identifier: GPL-3.0-only
"""The host daemon brings the connection back where the service's own alarms would come late or never, leaves one
alone that was ended on purpose, and costs nothing while there is a connection. A dead link is noticed."""

import json
import os
import time
import unittest
from unittest import mock

from app import App
from bus import BusClient
from endpoints import Publisher
from link import Link
from platformstubs import PlatformTest, kick
from stage import BIN, StageTest, processes, wait_until
from test_confirm import Handler
from test_receive import Receiver

SETTINGS = "[connection]\nafter=200ms 2s\nbattery=true\n"
SAVED = 6  # seconds after which the host has stored the alarms that a connect sets
BAD_LOGIN = {"returnValue": False, "errorText": "not now"}


def switches(pid):
    """How often the process has slept or was interrupted; a system call that returns is at least one."""
    total = 0
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/status", encoding="ascii") as status:
            total += sum(int(line.split()[1]) for line in status if "ctxt_switches" in line)
    return total


def come_to_rest(*pids, seconds=1):
    """Waits until the processes have done nothing for some seconds; returns their switches."""
    def still():
        before = [switches(pid) for pid in pids]
        time.sleep(seconds)
        return before if [switches(pid) for pid in pids] == before else None
    return wait_until(still, "the processes to come to rest", 60)


class KeepingTest(StageTest):
    """A device whose host has short delays."""

    LOGIN = ""

    @classmethod
    def setUpClass(cls):
        with mock.patch.dict(os.environ, STAGE_LOGIN=cls.LOGIN, STAGE_HOST_SETTINGS=SETTINGS):
            super().setUpClass()

    def status(self):
        return json.loads(self.stage.ctl("--json", "status", check=False)[1])

    def wait_disconnected(self):
        wait_until(lambda: not self.stage.connected(), "the service to be disconnected")

    def lose(self):
        """The server ends the connection, and the host has it made again."""
        self.stage.wait_connected()
        since, attempts = self.status()["since"], self.stage.log("host").count("is asked to")
        kick(self.stage.env)
        wait_until(lambda: self.stage.log("host").count("is asked to") > attempts, "an attempt")
        self.stage.wait_connected()
        self.assertGreaterEqual(self.status()["since"], since)

    def assert_stays_disconnected(self):
        """For many times the delay between two attempts."""
        self.assertFalse(processes.wait_until(self.stage.connected, 4))

    def restart_host(self):
        device = self.stage.device
        processes.stop(device.record("host"))
        device.start_host()

    def restart_service(self):
        self.stage.kill_service()
        self.stage.start_service()


class Keeping(KeepingTest):
    def test_the_connection_is_back_after_the_server_was_killed_and_started(self):
        self.stage.wait_connected()
        attempts = self.stage.log("host").count("asked to log in")
        self.stage.kill_server()
        self.wait_disconnected()
        wait_until(lambda: self.stage.log("host").count("asked to log in") >= attempts + 3, "attempts without a server")
        self.stage.start_server()
        self.stage.wait_connected()

    def test_the_connection_is_back_after_the_host_and_the_service_were_started_again(self):
        self.stage.wait_connected()
        self.restart_host()
        self.lose()
        self.restart_service()
        self.stage.wait_connected()
        self.lose()

    def test_a_connection_that_was_ended_on_purpose_stays_ended_until_a_login(self):
        self.stage.wait_connected()
        self.stage.ctl("session", "disconnect")
        self.assertEqual((self.status()["connected"], self.status()["ended"]), (False, True))
        self.assertIn("ended: on purpose", self.stage.ctl("status", check=False)[1])
        self.assert_stays_disconnected()
        # A host that starts reports the network, upon which the service connects by itself, as it does when it starts.
        for restart in (self.restart_host, self.restart_service):
            again = self.stage.log("host").count("is ended again")
            restart()
            wait_until(lambda again=again: self.stage.log("host").count("is ended again") > again, "the end")
            self.wait_disconnected()
            self.assert_stays_disconnected()
        self.assertIn("ended on purpose", self.stage.ctl("doctor", check=False)[1])
        self.stage.ctl("session", "login")
        self.lose()

    def test_a_connection_that_a_platform_service_ended_stays_ended_until_somebody_asks(self):
        self.stage.wait_connected()
        private = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        self.addCleanup(private.close)
        private.call("disconnect", {})
        self.assert_stays_disconnected()
        private.call("connectStatus", {})
        self.stage.wait_connected()

    def test_the_status_says_since_when_it_is_connected_and_when_the_server_was_heard(self):
        self.stage.ctl("session", "login")
        now, status = time.time(), self.status()
        self.assertLess(now - 30, status["since"])
        self.assertLessEqual(status["since"], status["heard"] + 1)
        self.assertLessEqual(status["heard"], now + 2)
        self.assertRegex(self.stage.ctl("status")[1],
                         r"^connected  network: yes  account: yes  since: 20\d\d-[-\d]+ [:\d]{8}  last heard: 20\d\d-")

    def test_connected_and_idle_the_host_and_the_service_do_nothing(self):
        self.stage.wait_connected()
        pids = [self.stage.service_pid, self.stage.device.pid("host")]
        self.assert_at_rest(pids)

    def test_a_receiver_and_a_confirming_handler_that_wait_wake_nobody(self):
        self.stage.wait_connected()
        app = App(self.stage.env["ZELT_PUBLIC_BUS"], "com.example.waits")
        self.addCleanup(app.close)
        keys = [app.call("createEndpoint", {"endpoint": name})["publishKey"] for name in ("empty", "open")]
        receiver = Receiver(app)
        publisher = Publisher(self.stage.env["HTTP_URL"])
        self.addCleanup(publisher.close)
        for key, text in zip((*keys, keys[1]), ("taken", "open", "behind it")):
            publisher.publish(key, text)
        items = {item["endpoint"]: item for item in (receiver.next(), receiver.next())}
        self.assertTrue(receiver.acknowledge(items["empty"])["returnValue"])

        private = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        self.addCleanup(private.close)
        handler = Handler(self.stage, "com.zelt.e2e.waits")
        self.addCleanup(handler.close)
        where = {"node": "/e2e/waits"}
        for method, payload in (
                ("createNode", where), ("subscribeToNode", where),
                ("registerItemCallback", dict(where, endpoint="zelt://com.zelt.e2e.waits/item", confirm=True)),
                ("publishItem", dict(where, item="confirmed"))):
            self.assertTrue(private.call(method, payload)["returnValue"])
        handler.wait(1)

        self.assert_at_rest([self.stage.service_pid, self.stage.device.pid("host")])
        self.assertEqual(len(handler.items), 1)
        self.assertTrue(receiver.acknowledge(items["open"])["returnValue"])
        self.assertEqual(receiver.take(), "behind it")

    def assert_at_rest(self, pids):
        before = come_to_rest(*pids, seconds=SAVED)
        time.sleep(10)  # nothing is waited for: the counters standing still are the condition
        self.assertEqual([switches(pid) for pid in pids], before)


class KeepingWithTheFile(KeepingTest):
    LOGIN = "file"

    def test_a_device_without_an_account_at_the_account_service_comes_back(self):
        self.stage.wait_connected()
        for _ in range(2):
            self.lose()
        self.assertIn("asked to connect", self.stage.log("host"))


class Stuck(PlatformTest):
    """States in which the service alone stays disconnected for good. The host is started only then."""

    def start_host(self):
        device = self.stage.device
        # One service at least is its own; the test provides the others.
        device.path("host", "host.conf").write_text("[services]\nenabled=applications\n" + SETTINGS, encoding="utf-8")
        device.start("host", [BIN / "zelt-host"], device.environment())
        self.addCleanup(processes.stop, device.record("host"))

    def assert_stuck(self):
        self.settle()
        self.assertFalse(self.is_connected())
        self.assertNotIn("reconnectTimer", self.power.alarms)

    def fail_at_the_alarm(self):
        self.start_connected()
        self.account.reply = BAD_LOGIN
        self.lose()
        self.wait_alarm(1)
        self.power.fire("reconnectTimer")
        self.wait_log("getLoginResponse failed")
        self.assert_stuck()

    def test_a_login_that_failed_when_the_alarm_rang(self):
        self.fail_at_the_alarm()
        self.account.reply = self.account.made()
        self.start_host()
        self.wait_connected()

    def test_a_login_that_goes_on_failing_while_the_account_of_before_is_good(self):
        self.fail_at_the_alarm()
        self.start_host()
        self.wait_connected()

    def test_a_loss_with_an_account_from_nowhere_but_the_service(self):
        self.start_connected()
        self.account.leave()
        self.wait_log("Account services went down!!")
        self.power.leave()
        self.settle()
        self.lose()
        self.wait_log("Setting timer to reconnect failed")
        self.network.report(wifi="127.0.0.1")
        self.wait_log("We had some connection err in the past. So nop.")
        self.assert_stuck()
        self.start_host()
        self.wait_connected()

    def test_a_past_error_without_an_alarm(self):
        self.start_connected()
        self.power.accepts = False
        self.lose()
        self.wait_log("Alarm set failed.")
        self.network.report(wifi="127.0.0.1")
        self.wait_log("We had some connection err in the past. So nop.")
        self.assert_stuck()
        self.start_host()
        self.wait_connected()

    def test_nothing_is_asked_for_behind_a_portal_or_without_internet(self):
        self.start_connected()
        self.start_host()
        self.network.report(internet=False)
        self.wait_disconnected()
        before = len(self.account.called("getAccountToken"))
        with self.assertRaises(AssertionError):
            self.pump(lambda: len(self.account.called("getAccountToken")) > before, "an attempt", 3)
        self.network.report(wifi="127.0.0.1")
        self.wait_connected()


class DeadLink(PlatformTest):
    def setUp(self):
        super().setUp()
        self.link = Link(self.stage.env["XMPP_HOST"], self.stage.env["XMPP_PORT"])
        self.addCleanup(self.link.close)
        self.account.reply = self.account.made(port=str(self.link.port))
        self.start(PUBSUB_TCP_KEEPALIVE="1")
        self.wait_connected()

    def details(self):
        return self.call("subscribeConnStatus", {"details": True})

    def test_a_server_that_cannot_be_reached_any_longer_is_noticed(self):
        heard = self.details()["heard"]
        self.pump(lambda: self.details()["heard"] > heard, "the answer to a probe to count as heard")
        self.link.cut()
        self.wait_disconnected()
        self.assertIn("Disconnected from xmpp server 7", self.log())

    def test_probes_wake_nobody(self):
        [before] = come_to_rest(self.stage.service_pid)
        sent = self.link.segments()
        wait_until(lambda: self.link.segments() >= sent + 4, "probes")
        self.assertEqual(switches(self.stage.service_pid), before)
        self.assertTrue(self.is_connected())


if __name__ == "__main__":
    unittest.main()
