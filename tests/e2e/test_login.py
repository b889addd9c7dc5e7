# SPDX-License-Identifier: GPL-3.0-only
"""The login over the account service, absent, late and with every bad answer, and the credentials file."""

import os
import unittest
from unittest import mock

from bus import BusClient
from platformstubs import PlatformTest, kick
from stage import StageTest

FAILED = "getLoginResponse failed. Getting login details from accounts failed "
MALFORMED = "Malformed json packet? \n"


class AccountService(PlatformTest):
    def ask(self):
        """A new login; the method gives no answer."""
        self.private.start("initializeAccount", {})

    def bad_answers(self):
        """Answers that lack something, in the order of their reading, with what the log says of each."""
        made = self.account.made
        absent = "obj null, First is not run yet / Acct services went down?"
        return [("not JSON", "{", MALFORMED),
                ("jabberId", {"uniqueId": "x"}, absent),
                ("an error", {"returnValue": False, "errorCode": -1, "errorText": "no account"}, absent),
                ("an empty jabberId", {"jabberId": "", "uniqueId": "x"}, "jabberId empty?"),
                ("no JSON in jabberId", {"jabberId": "device@localhost", "uniqueId": "x"}, MALFORMED),
                ("user", made(user=None), "user empty?"), ("an empty user", made(user=""), "user empty?"),
                ("service", made(service=None), "service empty?"),
                ("an empty service", made(service=""), "service empty?"),
                ("url", made(url=None), "url empty?"), ("an empty url", made(url=""), "url empty?"),
                ("port", made(port=None), "port empty?"), ("an empty port", made(port=""), "port empty?"),
                ("uniqueId", made(token=None), FAILED), ("an empty uniqueId", made(token=""), FAILED)]

    def test_an_answer_that_lacks_anything_is_logged_and_connects_nobody(self):
        cases = self.bad_answers()
        self.account.reply = cases[0][1]
        self.start()
        for number, (what, reply, words) in enumerate(cases, 1):
            with self.subTest(what):
                self.account.reply = reply
                before = self.log().count(words) if number > 1 else 0
                if number > 1:
                    self.ask()
                self.wait_log(FAILED, number)
                self.assertEqual(self.log().count(words), before + 1)
        self.settle()
        self.assertEqual(len(self.account.called("getAccountToken")), len(cases))
        self.assertEqual(self.power.armed, [], "no attempt follows a bad answer by itself")
        self.assertNotIn("We are connecting", self.log())
        # Without its token the last but one answer left everything else behind.
        self.assertEqual(self.call("getJabberId"), {"returnValue": True, "username": "device"})
        self.account.reply = self.account.made()
        self.ask()
        self.wait_connected()

    def test_the_account_is_asked_for_with_an_empty_text(self):
        self.start_connected()
        self.assertEqual(self.account.calls, [("getAccountToken", "")])

    def test_a_jabber_id_without_backslashes_is_taken_as_well(self):
        self.account.reply = self.account.made()
        self.account.reply["jabberId"] = self.account.reply["jabberId"].replace("\\", "")
        self.start_connected()

    def test_a_port_that_is_no_number_is_the_default_port(self):
        # From the loopback address of the network's report nothing outside is reached, whoever is there.
        self.account.reply = self.account.made(port="abc", url="192.0.2.1")
        self.start()
        self.wait_alarm(1)
        self.assertIn("Cannot connect to 192.0.2.1 port 5222", self.log())

    def test_without_an_account_service_an_alarm_is_armed_and_its_arrival_connects(self):
        self.start(absent=(self.account,))
        self.wait_alarm(1)
        self.assertIn("Getting login details FAILED. Error ", self.log())
        self.assertEqual(self.status.answers[0], {"returnValue": True, "connected": False, "session": False,
                                                  "network": self.status.answers[0]["network"]})
        self.account.arrive()
        self.wait_connected()
        self.assertIn("Trying to get login value now that AC is up", self.log())
        self.settle()
        self.assertEqual(list(self.power.alarms), ["keepAliveTimer"])

    def test_an_alarm_without_an_account_service_arms_the_next_one(self):
        self.start_connected()
        self.account.leave()
        self.wait_log("Account services went down!!")
        self.lose()
        self.wait_alarm(1)
        self.power.fire("reconnectTimer")
        self.wait_alarm(2)
        self.account.arrive()
        self.power.fire("reconnectTimer")
        self.wait_connected()

    def test_an_account_service_that_comes_back_is_not_asked_while_the_account_is_known(self):
        self.start_connected()
        self.account.leave()
        self.wait_log("Account services went down!!")
        self.account.arrive()
        self.settle()
        # An arrival is heard of in order: this one's is followed by the system manager's.
        asked = len(self.system.called("getBootStatus"))
        self.system.leave()
        self.system.arrive()
        self.pump(lambda: len(self.system.called("getBootStatus")) > asked, "the next arrival to be handled")
        self.assertEqual(len(self.account.called("getAccountToken")), 1)

    def test_a_late_answer_connects(self):
        self.account.holding = True
        self.start()
        self.pump(self.account.waits, "the login to be asked for")
        self.settle()
        self.assertFalse(self.is_connected())
        self.account.release()
        self.wait_connected()

    def test_an_answer_after_the_network_has_gone_waits_for_the_network(self):
        self.account.holding = True
        self.start()
        self.pump(self.account.waits, "the login to be asked for")
        self.network.report(internet=False)
        self.settle()
        self.account.release()
        self.wait_log("There is no network available, cannot connect to service")
        self.settle()
        self.assertEqual(self.power.armed, [], "the network's return is enough")
        self.network.report(wifi="127.0.0.1")
        self.wait_connected()

    def test_an_account_service_that_dies_with_the_request_is_asked_again_when_it_returns(self):
        self.account.holding = True
        self.start()
        self.pump(self.account.waits, "the login to be asked for")
        self.account.leave()
        self.wait_log(FAILED)
        self.account.holding = False
        self.account.arrive()
        self.wait_connected()


class CredentialsFile(StageTest):
    """A device whose account is in a file: no account service has one."""

    @classmethod
    def setUpClass(cls):
        with mock.patch.dict(os.environ, STAGE_LOGIN="file"):
            super().setUpClass()

    def test_the_file_makes_the_session_and_a_loss_is_mended_when_somebody_asks(self):
        private = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        self.addCleanup(private.close)
        self.assertEqual(private.call("getResource", {}), {"returnValue": True, "resource": "dev1"})
        status = private.start("subscribeConnStatus", {"subscribe": True})
        self.assertEqual(status.wait(1),
                         {"returnValue": True, "connected": True, "session": True, "network": True})
        self.assertEqual(self.stage.log("service").count("We are connecting to the vbx server."), 1)
        self.assertNotIn("Create session failed", self.stage.log("service"))
        kick(self.stage.env)
        self.assertFalse(status.wait(2)["connected"])
        private.call("connectStatus", {})
        self.assertTrue(status.wait(3)["connected"])
        self.assertEqual(private.call("getResource", {})["resource"], "dev1")


if __name__ == "__main__":
    unittest.main()
