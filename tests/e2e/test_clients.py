# SPDX-License-Identifier: GPL-3.0-only
"""Applications that are closed, and clients that vanish: what is kept for them, and what is forgotten."""

import json
import os
import unittest
import urllib.request

import dbus

from app import App
from bus import BusClient
from peer import Peer
from stage import StageTest, wait_until

UNHEARD_ITEM = "Sub Map present - No subs, no offlineclose? "


class ClientsTest(StageTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.private = BusClient(cls.stage.env["ZELT_PRIVATE_BUS"])
        cls.public = BusClient(cls.stage.env["ZELT_PUBLIC_BUS"])

    def app(self, app_id):
        app = App(self.stage.env["ZELT_PUBLIC_BUS"], app_id)
        self.addCleanup(app.close)
        return app

    def owner_of(self, app_id, endpoint):
        """An application process that has made the endpoint; it carries the publish key."""
        app = self.app(app_id)
        made = app.call("createEndpoint", {"endpoint": endpoint})
        self.assertTrue(made["returnValue"], made)
        app.key = made["publishKey"]
        return app

    def node(self, app_id, endpoint):
        env = self.stage.env
        return f"/{env['DEVICE_USER']}/{env['DEVICE_RESOURCE']}/{app_id}/{endpoint}"

    def push(self, app, text):
        request = urllib.request.Request(f"{self.stage.env['HTTP_URL']}/{app.key}", data=text.encode())
        with urllib.request.urlopen(request, timeout=20) as answer:
            self.assertEqual(answer.status, 201)

    def cached(self, app_id, endpoint):
        """The text of the endpoint's cache file, or None."""
        name = f"{self.stage.env['DEVICE_RESOURCE']}-{app_id}-{endpoint}"
        try:
            with open(os.path.join(self.stage.env["STATE_DIR"], "cache", name), encoding="utf-8") as file:
                return file.read()
        except FileNotFoundError:
            return None

    def wait_cached(self, app_id, endpoint, text):
        shown = '{ "item": "%s", "endpoint": "%s", "returnValue": true }' % (text, endpoint)
        wait_until(lambda: self.cached(app_id, endpoint) == shown, f"{text} in the cache")

    def kill(self, app):
        """Kills the application; what is sent from now on reaches the service after the news of its end."""
        app.kill()
        wait_until(lambda: app.pid not in self.pids(self.public), "the bus to notice the end")

    def pids(self, client):
        found = set()
        for name in client.connection.list_names():
            try:
                found.add(int(client.connection.call_blocking(
                    "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                    "GetConnectionUnixProcessID", "s", (name,))))
            except dbus.DBusException:
                pass  # it ended between the two questions
        return found

    def log_count(self, words):
        return self.stage.log("service").count(words)

    def wait_logged(self, words, count):
        wait_until(lambda: self.log_count(words) >= count, f"in the log: {words}")

    def register(self):
        listener = self.private.start("registerOnClose", {"subscribe": True})
        self.assertEqual(listener.wait(1), {"returnValue": True})
        self.addCleanup(self.end, listener)
        return listener

    def told(self, listener):
        """What a private listener has been told; an answer that the service gives now comes after all of it."""
        self.private.call("getResource", {})
        return listener.texts

    def end(self, listener):
        if listener.ended is None:
            listener.cancel()


class OnClose(ClientsTest):
    def test_the_first_request_is_recorded_silently_and_a_second_one_opens(self):
        listener = self.register()
        app = self.app("com.example.renew")
        for _ in range(2):
            self.assertEqual(app.call("subscribeOnClose", {"endpoint": "inbox"}),
                             {"returnValue": True, "endpoint": "inbox"})
        listener.wait(2)
        self.assertEqual(json.loads(listener.texts[1]), {
            "returnValue": True, "appid": self.node("com.example.renew", "inbox"), "open": True})
        self.assertEqual(list(json.loads(listener.texts[1])), ["returnValue", "appid", "open"])
        # Withdrawn, it is recorded silently again: the next notice is that of the request after it.
        self.assertEqual(app.call("unsubscribeOnClose", {"endpoint": "inbox"}),
                         {"returnValue": True, "endpoint": "inbox"})
        app.call("subscribeOnClose", {"endpoint": "inbox"})
        self.assertEqual(len(self.told(listener)), 2)
        app.call("subscribeOnClose", {"endpoint": "inbox"})
        listener.wait(3)
        app.call("unsubscribeOnClose", {"endpoint": "inbox"})

    def test_an_item_for_a_closed_application_is_told_and_kept(self):
        listener = self.register()
        name = "com.example.closed"
        app = self.owner_of(name, "inbox")
        app.call("subscribeOnClose", {"endpoint": "inbox"})
        waiting = app.start("subscribe", {"endpoint": "inbox"})
        self.assertEqual([waiting.wait(1), waiting.wait(2)], [{"returnValue": True, "endpoint": "inbox"}] * 2)
        self.kill(app)
        self.push(app, "while closed")
        notice = listener.wait(2)
        self.assertTrue(notice.pop("itemid"))
        self.assertEqual(notice, {"item": "while closed", "node": self.node(name, "inbox"),
                                  "returnValue": True, "appid": name})
        self.wait_cached(name, "inbox", "while closed")
        opened = self.app(name).start("subscribe", {"endpoint": "inbox"})
        self.assertEqual([opened.wait(1), opened.wait(2)],
                         [{"returnValue": True, "endpoint": "inbox"},
                          {"item": "while closed", "endpoint": "inbox", "returnValue": True}])
        wait_until(lambda: self.cached(name, "inbox") is None, "the cache file to go")

    def test_a_record_outlives_the_service_and_its_node_is_active_after_the_restart(self):
        name = "com.example.outlives"
        app = self.owner_of(name, "inbox")
        app.call("subscribeOnClose", {"endpoint": "inbox"})
        self.kill(app)
        self.stage.kill_service()
        self.push(app, "while the service is dead")
        self.stage.start_service()
        self.stage.wait_connected()
        # Nobody listens for closed applications yet, so the item is kept and no more.
        self.wait_cached(name, "inbox", "while the service is dead")
        self.wait_logged(UNHEARD_ITEM + self.node(name, "inbox"), 1)
        listener = self.register()
        self.push(app, "while somebody listens")
        self.assertEqual(listener.wait(2)["appid"], name)

    def test_after_its_withdrawal_an_item_is_kept_and_nobody_told(self):
        listener = self.register()
        for number, payload in enumerate((("unsubscribeOnClose", {"endpoint": "inbox"}),
                                          ("unsubscribe", {"endpoint": "inbox", "onclose": True}))):
            name = f"com.example.withdrawn{number}"
            app = self.owner_of(name, "inbox")
            app.call("subscribeOnClose", {"endpoint": "inbox"})
            activated = self.private.call("activateNode", {"node": self.node(name, "inbox")})
            self.assertTrue(activated["returnValue"])
            self.assertTrue(app.call(*payload)["returnValue"])
            self.push(app, "untold")
            self.wait_cached(name, "inbox", "untold")
        self.assertEqual(len(self.told(listener)), 1)

    def test_a_listener_that_vanishes_is_noticed_and_the_next_one_is_told(self):
        name = "com.example.headless"
        app = self.owner_of(name, "inbox")
        app.call("subscribeOnClose", {"endpoint": "inbox"})
        self.private.call("activateNode", {"node": self.node(name, "inbox")})
        crashed = self.log_count("Headless app crashed?")
        client = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        self.assertEqual(client.call("registerOnClose", {"subscribe": True}), {"returnValue": True})
        client.close()
        self.wait_logged("Headless app crashed?", crashed + 1)
        self.push(app, "first")
        self.wait_cached(name, "inbox", "first")
        self.wait_logged(UNHEARD_ITEM + self.node(name, "inbox"), 1)
        listener = self.register()
        self.push(app, "second")
        self.assertEqual(listener.wait(2)["item"], "second")

    def test_one_listener_that_vanishes_leaves_the_other_with_renewals_alone(self):
        name = "com.example.two"
        app = self.owner_of(name, "inbox")
        app.call("subscribeOnClose", {"endpoint": "inbox"})
        self.private.call("activateNode", {"node": self.node(name, "inbox")})
        stays, crashed = self.register(), self.log_count("Headless app crashed?")
        client = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        client.call("registerOnClose", {"subscribe": True})
        client.close()
        self.wait_logged("Headless app crashed?", crashed + 1)
        self.push(app, "untold")
        self.wait_cached(name, "inbox", "untold")
        app.call("subscribeOnClose", {"endpoint": "inbox"})
        self.assertEqual(stays.wait(2), {"returnValue": True, "appid": self.node(name, "inbox"), "open": True})

    def test_what_is_wrong_is_answered(self):
        for payload, text in (("{", "Malformed json"), ({}, "No subscribe provided"),
                              ({"subscribe": False}, "Subscribe should be true")):
            with self.subTest(payload):
                self.assertEqual(self.private.call("registerOnClose", payload),
                                 {"returnValue": False, "errorCode": "parameterErr", "errorText": text})
        app = self.app("com.example.wrong")
        for method in ("subscribeOnClose", "unsubscribeOnClose"):
            with self.subTest(method):
                self.assertEqual(app.call(method, {}), {"endpoint": "", "returnValue": False,
                                                        "errorCode": "parameterErr",
                                                        "errorText": "No endpoint provided"})
                self.assertEqual(app.call(method, {"endpoint": "e" * 99}), {
                    "endpoint": "e" * 99, "returnValue": False, "errorCode": "libErr",
                    "errorText": "endpoint too long"})


class Vanishing(ClientsTest):
    def subscriber(self, name, answers=2):
        app = self.owner_of(name, "inbox")
        app.waiting = app.start("subscribe", {"endpoint": "inbox"})
        app.waiting.wait(answers)
        return app

    def assert_forgotten(self, name):
        """Another process of the application finds no subscriber in its place."""
        other = self.app(name)
        self.assertEqual(other.call("unsubscribe", {"endpoint": "inbox"}),
                         {"returnValue": True, "endpoint": "inbox", "status": "not subscribed"})
        return other

    def test_a_subscriber_killed_before_the_activation_result(self):
        name = "com.example.early"
        app = self.owner_of(name, "inbox")
        unanswered = self.log_count("Sending response to handleActivateNode failed id")
        with self.stage.server_held():
            waiting = app.start("subscribe", {"endpoint": "inbox"})
            waiting.wait(1)
            self.kill(app)
            other = self.assert_forgotten(name)
        self.wait_logged("Sending response to handleActivateNode failed id", unanswered + 1)
        # The server has activated the node all the same: its item comes, and waits for the next subscriber.
        self.push(app, "for nobody")
        self.wait_cached(name, "inbox", "for nobody")
        again = other.start("subscribe", {"endpoint": "inbox"})
        self.assertEqual(again.wait(2)["item"], "for nobody")

    def test_a_subscriber_killed_after_the_activation_result(self):
        name = "com.example.late"
        app = self.subscriber(name)
        self.kill(app)
        other = self.assert_forgotten(name)
        self.push(app, "for nobody")
        self.wait_cached(name, "inbox", "for nobody")
        again = other.start("subscribe", {"endpoint": "inbox"})
        self.assertEqual(again.wait(2)["item"], "for nobody")
        self.assertEqual(other.call("subscribe", {"endpoint": "inbox"}),
                         {"returnValue": True, "endpoint": "inbox"})

    def test_a_subscriber_that_cancels_is_forgotten_like_one_that_is_killed(self):
        name = "com.example.cancels"
        app = self.subscriber(name)
        app.waiting.cancel()
        app.waiting.wait_ended()
        self.assert_forgotten(name)

    def test_a_subscriber_killed_while_there_is_no_connection(self):
        name = "com.example.offline"
        app = self.owner_of(name, "inbox")
        self.private.call("disconnect", {})
        waiting = app.start("subscribe", {"endpoint": "inbox"})
        app.call("subscribeOnClose", {"endpoint": "other"})  # its answer says that the one before was taken
        self.kill(app)
        other = self.assert_forgotten(name)
        self.assertEqual(waiting.texts, [])
        self.private.call("connectStatus", {})
        self.stage.wait_connected()
        # Nobody activated the node, so the server keeps the item until somebody does.
        self.push(app, "kept by the server")
        again = other.start("subscribe", {"endpoint": "inbox"})
        self.assertEqual(again.wait(3)["item"], "kept by the server")
        self.assertIsNone(self.cached(name, "inbox"))

    def test_the_waiting_of_another_process_of_the_application_is_not_taken_over(self):
        name = "com.example.twice"
        first = self.subscriber(name)
        second = self.app(name)
        self.assertEqual(second.call("subscribe", {"endpoint": "inbox"}),
                         {"returnValue": True, "endpoint": "inbox", "status": "subscribed"})
        self.kill(second)
        self.push(first, "to the first")
        self.assertEqual(first.waiting.wait(3)["item"], "to the first")

    def test_the_end_of_any_subscription_of_a_public_client_is_read_like_that_of_a_subscribe(self):
        refused = 'Payload bad? {"subscribe": true} Errcode parameterErr ErrText No endpoint provided'
        before = self.log_count(refused)
        follower, other = self.app("com.example.follower"), self.app("com.example.other")
        follower.call("connectStatus", {"subscribe": True})
        status = other.start("connectStatus", {"subscribe": True})
        status.wait(1)
        self.kill(follower)
        self.wait_logged(refused, before + 1)
        self.private.call("disconnect", {})
        self.assertEqual(status.wait(2), {"returnValue": True, "connected": False})
        self.private.call("connectStatus", {})
        self.assertEqual(status.wait(3), {"returnValue": True, "connected": True})
        self.stage.wait_connected()
        # With an endpoint in its payload it takes the application's subscriber with it.
        name = "com.example.mixed"
        self.subscriber(name)
        follower = self.app(name)
        follower.call("connectStatus", {"subscribe": True, "endpoint": "inbox"})
        self.kill(follower)
        self.assert_forgotten(name)

    def test_clients_that_vanish_while_there_is_no_connection_are_noticed(self):
        refused = 'Payload bad? {"subscribe": true} Errcode parameterErr ErrText No endpoint provided'
        refusals, crashes = self.log_count(refused), self.log_count("Headless app crashed?")
        listener = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        listener.call("registerOnClose", {"subscribe": True})
        name = "com.example.unheard"
        app, follower = self.subscriber(name), self.app("com.example.follows")
        follower.call("connectStatus", {"subscribe": True})
        self.private.call("disconnect", {})
        for client in (app, follower):
            self.kill(client)
        listener.close()
        self.wait_logged(refused, refusals + 1)
        self.wait_logged("Headless app crashed?", crashes + 1)
        self.assert_forgotten(name)
        self.private.call("connectStatus", {})
        self.stage.wait_connected()

    def test_private_followers_that_vanish_change_nothing(self):
        kept = self.private.start("subscribeConnStatus", {"subscribe": True})
        kept.wait(1)
        client = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        for method in ("subscribeConnStatus", "connectStatus"):
            client.call(method, {"subscribe": True})
        listener = self.register()
        client.close()
        self.private.call("disconnect", {})
        self.assertFalse(kept.wait(2)["connected"])
        self.private.call("connectStatus", {})
        self.assertTrue(kept.wait(3)["connected"])
        kept.cancel()
        # The listener for closed applications is told as before.
        app = self.app("com.example.unchanged")
        for _ in range(2):
            app.call("subscribeOnClose", {"endpoint": "inbox"})
        self.assertTrue(listener.wait(2)["open"])

    def test_a_node_listener_that_vanishes_leaves_its_node_asked_for(self):
        node = "/clients/pending"
        self.assertTrue(self.private.call("createNode", {"node": node, "accessType": 2})["returnValue"])
        self.stage.account("asker", "secret")
        asker = Peer(self.stage, "asker", "secret")
        self.addCleanup(asker.close)
        client = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        gone = client.start("subscribeNodeAuth", {"subscribe": True, "nodes": [node]})
        gone.wait(1)
        asker.subscribe(node)
        gone.wait(2)
        client.close()
        # The server is still asked for the node's forms, which nobody hears.
        unheard = self.log_count(f"There is no subscriber for handleAuth:{node} ")
        self.private.call("getPendingAuth", {})
        self.wait_logged(f"There is no subscriber for handleAuth:{node} ", unheard + 1)
        following = self.private.start("subscribeNodeAuth", {"subscribe": True, "nodes": [node]})
        form = following.wait(2)
        self.assertEqual((form["node"], form["subscriber_jid"]), (node, asker.jid))
        following.cancel()

    def vanish_while_deactivating(self, name):
        """An application ends while the server has yet to switch its node off; the node is kept for it."""
        app = self.subscriber(name)
        app.call("subscribeOnClose", {"endpoint": "inbox"})
        with self.stage.server_held():
            app.call("unsubscribe", {"endpoint": "inbox"})
            self.kill(app)
            self.assert_forgotten(name)
        # The stream keeps its order: with this answer the node is switched off.
        self.assertTrue(self.private.call("createNode", {"node": f"/clients/{name}"})["returnValue"])
        self.push(app, "to a closed application")
        return app

    def test_with_a_listener_the_node_of_a_closed_application_is_switched_on_again(self):
        name = "com.example.again"
        listener = self.register()
        self.vanish_while_deactivating(name)
        self.assertEqual(listener.wait(2)["appid"], name)
        self.wait_cached(name, "inbox", "to a closed application")

    def test_without_a_listener_it_stays_switched_off_until_it_is_activated(self):
        name = "com.example.stays"
        self.vanish_while_deactivating(name)
        # An item that is published later, to a node that is on, is there first.
        fence = self.subscriber("com.example.fence")
        self.push(fence, "later")
        self.assertEqual(fence.waiting.wait(3)["item"], "later")
        self.assertIsNone(self.cached(name, "inbox"))
        self.assertTrue(self.private.call("activateNode", {"node": self.node(name, "inbox")})["returnValue"])
        self.wait_cached(name, "inbox", "to a closed application")


if __name__ == "__main__":
    unittest.main()
