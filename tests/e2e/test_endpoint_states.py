# SPDX-License-Identifier: GPL-3.0-only
"""Where an item ends that is published while its application, the service, the server or the link is in each state,
and what subscriptions and activations answer in each."""

import signal
import unittest

from bus import BusError
from endpoints import MAIL, OFFLINE, EndpointsTest, preferences
from stage import wait_until


class States(EndpointsTest):
    def setUp(self):
        super().setUp()
        self.mail = self.app()
        self.key = self.create(self.mail, self.endpoint)
        self.full = self.node(MAIL, self.endpoint)
        self.done = {"returnValue": True, "endpoint": self.full}

    def test_an_application_that_waits_gets_it_live(self):
        call = self.subscribe(self.mail, self.endpoint)
        number = self.publisher.publish(self.key, "live")
        self.expect_item(call, self.endpoint, "live", 2)
        self.assertIsNone(self.cached(MAIL, self.endpoint))
        node = self.node(MAIL, self.endpoint)
        wait_until(lambda: preferences(self.stage).get(node) == {"seqNo": str(number)}, "the number to be stored")

    def test_after_its_one_item_the_newest_waits_in_the_cache(self):
        call = self.subscribe(self.mail, self.endpoint)
        for text in ("live", "overwritten", "newest"):
            self.publisher.publish(self.key, text)
        self.expect_item(call, self.endpoint, "live", 2)
        self.wait_cached(MAIL, self.endpoint, "newest")
        self.expect_cached_item(self.mail, self.endpoint, "newest")
        self.wait_uncached(MAIL, self.endpoint)
        again = self.subscribe(self.mail, self.endpoint)
        self.publisher.publish(self.key, "after the cache")
        self.expect_item(again, self.endpoint, "after the cache", 2)

    def test_an_application_that_unsubscribed_finds_all_of_them_on_the_server(self):
        self.subscribe(self.mail, self.endpoint)
        ended = self.mail.start("unsubscribe", {"endpoint": self.endpoint})
        ended.wait(2)
        self.assertEqual(ended.answers, [{"returnValue": True, "endpoint": self.endpoint}] * 2)
        self.publisher.publish(self.key, "first")
        self.publisher.publish(self.key, "second")
        self.expect_item(self.mail.start("subscribe", {"endpoint": self.endpoint}), self.endpoint, "first", 2)
        self.wait_cached(MAIL, self.endpoint, "second")

    def test_a_killed_application_finds_it_in_the_cache_when_it_is_back(self):
        self.subscribe(self.mail, self.endpoint)
        self.kill(self.mail)
        self.publisher.publish(self.key, "while gone")
        self.wait_cached(MAIL, self.endpoint, "while gone")
        self.expect_cached_item(self.app(), self.endpoint, "while gone")

    def test_a_second_process_of_the_application_takes_over_after_a_kill(self):
        self.subscribe(self.mail, self.endpoint)
        second = self.app()
        self.assertEqual(second.call("subscribe", {"endpoint": self.endpoint}),
                         {"returnValue": True, "endpoint": self.endpoint, "status": "subscribed"})
        self.kill(self.mail)
        calls = []

        def took_over():
            calls.append(second.start("subscribe", {"endpoint": self.endpoint}))
            return "status" not in calls[-1].wait(1)

        wait_until(took_over, "the place of the dead process")
        self.publisher.publish(self.key, "for the second")
        self.expect_item(calls[-1], self.endpoint, "for the second", 1)  # the node is still active

    def comes_after_subscribing(self, text):
        """The server kept the item, nothing is cached, and it comes with the next subscription."""
        self.stage.wait_connected()
        self.assertIsNone(self.cached(MAIL, self.endpoint))
        self.expect_item(self.app().start("subscribe", {"endpoint": self.endpoint}), self.endpoint, text, 2)

    def test_while_the_service_is_stopped_or_killed_the_server_keeps_it(self):
        for how in (signal.SIGTERM, signal.SIGKILL):
            with self.subTest(how):
                self.subscribe(self.app(), self.endpoint)
                self.stage.kill_service(how)
                self.publisher.publish(self.key, f"while down by {how}")
                self.stage.start_service()
                self.comes_after_subscribing(f"while down by {how}")

    def test_an_item_cached_before_a_kill_is_still_there(self):
        self.subscribe(self.mail, self.endpoint)
        self.kill(self.mail)
        self.publisher.publish(self.key, "cached")
        self.wait_cached(MAIL, self.endpoint, "cached")
        self.stage.kill_service()
        self.stage.start_service()
        self.expect_cached_item(self.app(), self.endpoint, "cached")

    def test_while_disconnected_the_server_keeps_it_and_the_subscriber_stays(self):
        call = self.subscribe(self.mail, self.endpoint)
        self.disconnect()
        self.publisher.publish(self.key, "while disconnected")
        self.connect()
        self.expect_item(call, self.endpoint, "while disconnected", 2)

    def test_a_killed_server_still_has_what_it_took(self):
        self.subscribe(self.mail, self.endpoint)
        self.mail.call("unsubscribe", {"endpoint": self.endpoint})
        wait_until(lambda: self.mail.call("unsubscribe", {"endpoint": self.endpoint}).get("status"), "its end")
        self.publisher.publish(self.key, "taken before the kill")
        self.stage.kill_server()
        self.stage.start_server()
        self.publisher.close()
        self.connect()
        self.comes_after_subscribing("taken before the kill")

    def test_a_subscriber_that_waited_through_a_killed_server_gets_the_next_item(self):
        call = self.subscribe(self.mail, self.endpoint)
        self.stage.kill_server()
        self.stage.start_server()
        self.publisher.close()
        self.connect()
        self.publisher.publish(self.key, "after the kill")
        self.expect_item(call, self.endpoint, "after the kill", 2)

    def subscribe_offline(self):
        """A subscription without its answer: a later call of the same client was answered before it."""
        call = self.mail.start("subscribe", {"endpoint": self.endpoint})
        self.assertEqual(self.mail.call("getPublishKey", {"endpoint": self.endpoint}),
                         dict(OFFLINE, returnValue=False, endpoint=""))
        self.assertEqual((call.texts, call.error), ([], None))
        return call

    def test_one_answer_comes_with_the_next_connection_and_before_any_item(self):
        self.disconnect()
        self.publisher.publish(self.key, "kept")
        call = self.subscribe_offline()
        self.connect()
        self.expect_item(call, self.endpoint, "kept", 1)

    def test_the_answer_may_be_a_refusal(self):
        self.mail.call("deleteEndpoint", {"endpoint": self.endpoint})
        self.disconnect()
        call = self.subscribe_offline()
        self.connect()
        self.assertEqual(call.wait(1), {"returnValue": False, "endpoint": self.endpoint, "errorCode": "xmppErr",
                                        "errorText": "item-not-found"})
        call.wait_ended()
        self.assertEqual(len(call.texts), 1)

    def test_connects_that_fail_in_between_neither_answer_nor_lose_it(self):
        self.stage.kill_server()
        wait_until(lambda: not self.stage.connected(), "the loss to be noticed")
        call = self.subscribe_offline()
        attempts = self.stage.log("service").count("There is no server or network")
        wait_until(lambda: self.private.call("connectStatus", {}) and
                   self.stage.log("service").count("There is no server or network") +
                   self.stage.log("service").count("Disconnected from xmpp server") > attempts + 1,
                   "connects that fail")
        self.subscribe_again_says_subscribed()
        self.assertEqual((call.texts, call.error), ([], None))
        self.stage.start_server()
        self.publisher.close()
        self.connect()
        self.assertEqual(call.wait(1), {"returnValue": True, "endpoint": self.endpoint})
        self.publisher.publish(self.key, "at last")
        self.expect_item(call, self.endpoint, "at last", 1)

    def subscribe_again_says_subscribed(self):
        self.assertEqual(self.mail.call("subscribe", {"endpoint": self.endpoint}),
                         {"returnValue": True, "endpoint": self.endpoint, "status": "subscribed"})

    def test_unsubscribing_before_then_drops_it(self):
        self.disconnect()
        call = self.subscribe_offline()
        self.assertEqual(self.mail.call("unsubscribe", {"endpoint": self.endpoint}),
                         {"returnValue": True, "endpoint": self.endpoint})
        self.publisher.publish(self.key, "nobody waits")
        self.connect()
        later = self.mail.start("subscribe", {"endpoint": self.endpoint})
        self.expect_item(later, self.endpoint, "nobody waits", 2)
        self.assertEqual(call.texts, [])

    def test_the_death_of_the_application_before_then_drops_it(self):
        self.disconnect()
        self.subscribe_offline()
        self.kill(self.mail)
        self.publisher.publish(self.key, "nobody waits")
        self.connect()
        self.expect_item(self.app().start("subscribe", {"endpoint": self.endpoint}), self.endpoint, "nobody waits", 2)
        self.assertIsNone(self.cached(MAIL, self.endpoint))

    def activate(self):
        return self.private.start("activateNode", {"node": self.full})

    def test_an_unknown_node_is_activated_and_its_items_come(self):
        self.assertEqual(self.activate().wait(1), self.done)
        self.publisher.publish(self.key, "activated")
        self.wait_cached(MAIL, self.endpoint, "activated")

    def test_an_active_node_has_no_answer_until_a_disconnect(self):
        self.activate().wait(1)
        again = self.activate()
        self.private.call("getJabberId", {})
        self.assertEqual(again.texts, [])
        self.disconnect()
        self.assertEqual(again.wait(1), {"returnValue": False, "endpoint": self.full, "errorCode": "connectionErr",
                                         "errorText": "pubsubservice disconnected"})
        self.connect()

    def test_a_later_request_for_an_active_node_replaces_the_one_that_waits(self):
        self.activate().wait(1)
        first, second = self.activate(), self.activate()
        with self.assertRaises(BusError) as refused:
            first.wait(1)
        self.assertEqual(refused.exception.name, "com.zelt.Error.NoAnswer")
        self.disconnect()
        self.assertEqual(second.wait(1)["errorCode"], "connectionErr")
        self.connect()

    def test_two_requests_before_the_first_result_are_both_answered(self):
        with self.stage.server_held():
            calls = [self.activate(), self.activate()]
            self.private.call("getJabberId", {})  # answered after the service has taken both
            self.assertEqual([call.texts for call in calls], [[], []])
        self.assertEqual([call.wait(1) for call in calls], [self.done] * 2)

    def test_a_node_whose_items_services_take_is_never_activated(self):
        answer = self.private.call("registerItemCallback",
                                   {"node": self.full, "endpoint": "zelt://com.zelt.e2e.taker/item", "app": False})
        self.assertEqual(answer, {"returnValue": True})
        self.addCleanup(self.private.call, "unRegisterItemCallback",
                        {"node": self.full, "endpoint": "zelt://com.zelt.e2e.taker/item", "app": False})
        refusal = {"returnValue": False, "endpoint": self.endpoint, "errorCode": "libErr",
                   "errorText": "pubsubservice library is not initialized"}
        self.assertEqual(self.activate().wait(1), dict(refusal, endpoint=self.full))
        self.assertEqual(self.mail.call("subscribe", {"endpoint": self.endpoint}), refusal)

    def test_after_a_reconnect_it_goes_to_the_server_again(self):
        self.activate().wait(1)
        self.disconnect()
        self.assertEqual(self.activate().wait(1), dict(OFFLINE, returnValue=False, endpoint=""))
        self.connect()
        self.assertEqual(self.activate().wait(1), self.done)

    def test_after_an_item_it_goes_to_the_server_again(self):
        call = self.subscribe(self.mail, self.endpoint)
        self.publisher.publish(self.key, "an item")
        self.expect_item(call, self.endpoint, "an item", 2)
        self.assertEqual(self.activate().wait(1), self.done)

    def test_an_activation_that_fails_ends_the_subscription(self):
        self.mail.call("deleteEndpoint", {"endpoint": self.endpoint})
        refusal = {"returnValue": False, "endpoint": self.full, "errorCode": "xmppErr",
                   "errorText": "item-not-found"}
        self.assertEqual(self.activate().wait(1), refusal)
        call = self.mail.start("subscribe", {"endpoint": self.endpoint})
        call.wait(2)
        call.wait_ended()
        self.assertEqual(call.answers, [{"returnValue": True, "endpoint": self.endpoint},
                                        dict(refusal, endpoint=self.endpoint)])
        self.create(self.mail, self.endpoint)
        self.subscribe(self.mail, self.endpoint)

    def test_subscribing_to_an_active_node_is_answered_once(self):
        self.activate().wait(1)
        call = self.mail.start("subscribe", {"endpoint": self.endpoint})
        call.wait(1)
        self.publisher.publish(self.key, "active already")
        self.expect_item(call, self.endpoint, "active already", 1)


if __name__ == "__main__":
    unittest.main()
