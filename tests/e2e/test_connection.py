# SPDX-License-Identifier: GPL-3.0-only
"""The connection that comes back by itself: networks and losses, with time driven by the test."""

import json
import os
import re
import signal
import subprocess
import unittest

from bus import BusClient
from platformstubs import PlatformTest, kick
from stage import StageTest, is_running, wait_until

SHORT, LONG = range(300, 1200), range(3600, 5400)
PING_DELAY = "00:25:00"


def seconds(delay):
    hours, minutes, rest = re.fullmatch(r"(\d\d):(\d\d):(\d\d)", delay).groups()
    return int(hours) * 3600 + int(minutes) * 60 + int(rest)


class Networks(PlatformTest):
    def activations(self, node):
        """How often the server was asked to activate nodes before this one was created on the same stream."""
        self.assertTrue(self.call("createNode", {"node": node})["returnValue"])
        self.pump(lambda: node in self.stage.log("server"), "the request in the server's log")
        lines = self.stage.log("server").partition(node)[0].splitlines()
        return sum(line.count("<activate-nodes") for line in lines if "Received XML on stream" in line)

    def test_without_internet_it_leaves_and_waits_and_with_internet_it_is_back(self):
        self.start_connected()
        self.network.report(internet=False)
        self.wait_disconnected()
        self.assertEqual(self.status.answers[-1],
                         {"returnValue": True, "connected": False, "session": True, "network": False})
        self.settle()
        self.assertEqual(self.power.alarms, {}, "neither a ping nor an attempt is due without a network")
        self.assertEqual(self.power.delays("reconnectTimer"), [])
        self.network.report(wifi="127.0.0.1")
        self.wait_connected()
        self.assertEqual(list(self.power.alarms), ["keepAliveTimer"])

    def test_the_connection_moves_to_wan_survives_an_outage_there_and_moves_back(self):
        self.network.report(wifi="127.0.0.2")
        self.start_connected()
        self.assertEqual(self.local_addresses(), ["127.0.0.2"])
        self.network.report(wan="127.0.0.3")
        self.wait_disconnected()
        self.wait_connected()
        self.assertEqual(self.local_addresses(), ["127.0.0.3"])
        told, asked = len(self.status.texts), self.activations("/e2e/before-outage")
        self.network.report(internet=False, wan="127.0.0.3")
        self.settle()
        self.assertEqual(self.activations("/e2e/in-outage"), asked)
        self.network.report(wan="127.0.0.3")
        self.settle()
        self.assertEqual(self.activations("/e2e/after-outage"), asked + 1)
        self.assertEqual((self.local_addresses(), len(self.status.texts)), (["127.0.0.3"], told))
        self.network.report(wifi="127.0.0.2", wan="127.0.0.3")
        self.pump(lambda: len(self.status.texts) == told + 2, "a disconnect and a connect")
        self.wait_connected()
        self.assertEqual(self.local_addresses(), ["127.0.0.2"])
        self.assertEqual(self.power.delays("reconnectTimer"), [], "moving is no loss")

    def test_an_outage_of_both_links_ends_a_connection_over_wan(self):
        self.network.report(wan="127.0.0.3")
        self.start_connected()
        self.network.report(internet=False)
        self.wait_disconnected()
        self.assertEqual(self.power.delays("reconnectTimer"), [])

    def test_reports_that_make_no_sense_change_nothing(self):
        self.start_connected()
        told = len(self.status.texts)
        for report in ({}, {"wifi": {"state": "disconnected"}}, {"isInternetConnectionAvailable": True},
                       {"isInternetConnectionAvailable": True, "wifi": {}}, "no object", None):
            self.network.report_raw(report)
        self.wait_log("Checking wifi failed - We ran into some parse error?", 2)
        self.wait_log("Error in getting connectionStatus", 4)
        self.assertEqual((len(self.status.texts), self.is_connected()), (told, True))

    def test_a_local_address_that_changes_while_connected_does_not_keep_it_from_coming_back(self):
        # 192.0.2.0/24 is nobody's: the network of that address is gone by the time of the next attempt.
        self.network.report(wifi="127.0.0.2")
        self.start_connected()
        self.network.report(wifi="192.0.2.1")
        self.settle()
        self.assertEqual(self.local_addresses(), ["127.0.0.2"])
        self.lose()
        self.network.report(wifi="192.0.2.1")
        self.wait_alarm(1)
        self.power.fire("reconnectTimer")
        self.wait_connected()
        self.assertIn("Cannot use local address 192.0.2.1", self.log())

    def test_a_second_arrival_of_the_connection_manager_is_subscribed_to_anew(self):
        self.start_connected()
        self.network.leave()
        self.wait_log("Connection manager went down!!")
        self.network.arrive()
        self.pump(lambda: len(self.network.called("getstatus")) == 2, "the second subscription")
        self.network.report(internet=False)
        self.wait_disconnected()


class Losses(PlatformTest):
    def test_delays_are_short_four_times_then_long_and_short_again_after_a_connect(self):
        self.addCleanup(self.stage.start_server)
        self.start_connected()
        self.stage.kill_server()
        self.wait_disconnected()
        for attempt in range(1, 6):
            self.wait_alarm(attempt)
            self.power.fire("reconnectTimer")
        delays = [seconds(delay) for delay in self.wait_alarm(6)]
        for delay in delays[:4]:
            self.assertIn(delay, SHORT)
        for delay in delays[4:]:
            self.assertIn(delay, LONG)
        self.stage.start_server()
        self.power.fire("reconnectTimer")
        self.wait_connected()
        self.lose()
        self.assertIn(seconds(self.wait_alarm(7)[-1]), SHORT)

    def test_the_alarms_are_asked_for_with_exactly_these_words(self):
        self.start_connected()
        self.lose()
        delay = self.wait_alarm(1)[0]
        alarm = ('{"key":"%s", "uri":"quor://com.zelt.pubsubservice/%s", "in":"%s", "wakeup":true, '
                 '"params":"{}"}')
        self.assertEqual(self.power.called("timeout/set"),
                         [alarm % ("keepAliveTimer", "keepAliveTimer", PING_DELAY),
                          alarm % ("reconnectTimer", "reconnectTimer", delay)])
        self.assertEqual(self.power.called("timeout/clear"), ['{"key":"keepAliveTimer"}'])
        self.assertIn(f"We will try connecting after {delay} {seconds(delay)}", self.log())

    def test_two_losses_arm_one_alarm_and_the_connect_clears_it(self):
        self.addCleanup(self.stage.start_server)
        self.start_connected()
        self.stage.kill_server()
        self.wait_disconnected()
        self.wait_alarm(1)
        self.call("connectStatus")
        self.wait_log("Disconnected from xmpp server", 2)
        self.wait_alarm(1)
        self.stage.start_server()
        self.call("connectStatus")
        self.wait_connected()
        self.settle()
        self.assertEqual(list(self.power.alarms), ["keepAliveTimer"])
        self.lose()
        self.wait_alarm(2)

    def test_an_answer_of_the_power_service_after_the_connect_does_not_keep_the_next_alarm_away(self):
        self.start_connected()
        self.settle()
        self.power.holding = True
        self.lose()
        self.pump(self.power.waits, "the alarm to be asked for")
        self.call("connectStatus")
        self.wait_connected()
        self.power.release()
        self.settle()
        self.lose()
        self.wait_alarm(2)
        self.power.fire("reconnectTimer")
        self.wait_connected()

    def test_an_alarm_that_the_power_service_refuses_is_asked_for_again_at_the_next_loss(self):
        self.start_connected()
        self.power.accepts = False
        self.lose()
        self.wait_log('Alarm set failed. This is bad {"returnValue": false}')
        self.power.accepts = True
        self.call("connectStatus")
        self.wait_connected()
        self.lose()
        self.wait_alarm(1)

    def test_without_a_power_service_an_attempt_is_still_made_when_somebody_asks(self):
        self.start(absent=(self.power,))
        self.wait_connected()
        self.lose()
        self.wait_log("Setting timer to reconnect failed")
        self.power.arrive()
        self.call("connectStatus")
        self.wait_connected()
        self.pump(lambda: self.power.alarms, "the ping's alarm at the power service that has come")
        self.lose()
        self.wait_alarm(1)

    def test_a_network_report_after_a_loss_leaves_the_attempt_to_the_alarm(self):
        self.start_connected()
        self.lose()
        self.wait_alarm(1)
        self.network.report(wifi="127.0.0.1")
        self.settle()
        self.assertIn("We had some connection err in the past. So nop.", self.log())
        self.assertFalse(self.is_connected())
        self.power.fire("reconnectTimer")
        self.wait_connected()

    def test_a_server_that_stalls_in_the_login_holds_up_nobody_and_the_attempt_can_be_given_up(self):
        self.start_connected()
        self.network.report(internet=False)
        self.wait_disconnected()
        with self.stage.server_held():
            attached = self.log().count("Attached socket")
            self.network.report(wifi="127.0.0.1")
            self.wait_log("Attached socket", attached + 1)
            self.assertEqual(self.call("getJabberId")["username"], "device")
            self.assertEqual(self.call("connectStatus")["connected"], False)
            self.network.report(wifi="127.0.0.1")
            self.settle()
            self.assertEqual(self.log().count("Attached socket"), attached + 1, "one attempt at a time")
            self.network.report(internet=False)
            self.settle()
            self.assertEqual(self.power.delays("reconnectTimer"), [])
        self.network.report(wifi="127.0.0.1")
        self.wait_connected()

    def test_a_server_that_stalls_while_connected_is_waited_for(self):
        self.start_connected()
        with self.stage.server_held():
            request = self.private.start("createNode", {"node": "/e2e/stalled"})
            self.power.fire("keepAliveTimer")
            self.pump(lambda: len(self.power.delays("keepAliveTimer")) == 2, "the ping's next alarm")
            self.assertEqual(request.texts, [])
        self.assertTrue(request.wait()["returnValue"])
        self.assertTrue(self.is_connected())

    def test_a_certificate_of_a_stranger_is_refused_at_every_attempt(self):
        strange = self.stage.path("strange.crt")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                        "-nodes", "-subj", "/CN=strange authority", "-keyout", "/dev/null", "-out", str(strange)],
                       check=True, capture_output=True)
        self.start(PUBSUB_CA_FILE=str(strange))
        self.wait_alarm(1)
        self.wait_log("Certificate validation failed")
        self.assertRegex(self.log(), r"Cert Info status: [1-9]")
        self.power.fire("reconnectTimer")
        self.wait_alarm(2)
        self.assertEqual(self.log().count("Certificate validation failed"), 2)
        self.assertNotIn("We formed a connection", self.log())

    def test_a_refused_login_is_tried_again_with_a_fresh_token(self):
        self.account.reply = self.account.made(token="not the token")
        self.start()
        self.wait_alarm(1)
        self.assertNotIn("We formed a connection", self.log())
        self.account.reply = self.account.made()
        self.power.fire("reconnectTimer")
        self.wait_connected()
        self.assertNotIn("the token", self.log())


class HostDaemon(StageTest):
    """The real host services, which the bus starts again when they are called."""

    def host_pid(self):
        words = self.stage.path("run", "host.pid").read_text(encoding="ascii").split()
        return int(words[0]) if words else 0  # it is being written

    def kill_host(self):
        dead, down = self.host_pid(), "Connection manager went down!!"
        heard = self.stage.log("service").count(down)
        os.kill(dead, signal.SIGKILL)
        wait_until(lambda: not is_running(dead), "the host daemon to end")
        wait_until(lambda: self.stage.log("service").count(down) > heard, "the service to know")
        return dead

    def wait_host(self, dead):
        wait_until(lambda: self.host_pid() not in (0, dead) and is_running(self.host_pid()),
                   "the bus to start it again")

    def reconnect_alarm(self):
        """The alarm in the table on the host's disk, and the whole table; None while it is not there."""
        table = self.stage.path("host", "alarms.json")
        entries = json.loads(table.read_text(encoding="utf-8")) if table.exists() else {"alarms": []}
        return next(((entry, entries) for entry in entries["alarms"] if entry["key"] == "reconnectTimer"), None)

    def test_a_loss_while_the_host_services_are_dead_ends_in_a_connection_when_the_alarm_rings(self):
        private = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        self.addCleanup(private.close)
        status = private.start("subscribeConnStatus", {"subscribe": True})
        self.assertTrue(status.wait(1)["connected"])
        dead = self.kill_host()
        kick(self.stage.env)
        self.assertFalse(status.wait(2)["connected"])
        self.wait_host(dead)  # the service's call for the alarm has started it
        alarm, table = wait_until(self.reconnect_alarm, "the alarm on the host's disk")
        self.assertIn(alarm["seconds"], range(300, 1200))

        dead = self.kill_host()
        alarm.update(boottime_us=0, wallclock_us=0)  # as when it was down while the time came
        self.stage.path("host", "alarms.json").write_text(json.dumps(table), encoding="utf-8")
        self.assertEqual(len(status.texts), 2, "nothing but the alarm connects")
        private.connection.activate_name_owner("com.zelt.power")
        self.assertTrue(status.wait(3)["connected"])
        self.assertTrue(private.call("createNode", {"node": "/e2e/back"})["returnValue"])


if __name__ == "__main__":
    unittest.main()
