# SPDX-License-Identifier: GPL-3.0-only
"""Many items to one client, many nodes of one device, and applications that are removed from it."""

import json
import os
import signal
import sqlite3
import subprocess
import unittest

from endpoints import MAIL, EndpointsTest, offline_map, preferences
from stage import ROOT, wait_until

BULK = int(os.environ.get("PUBSUB_BULK_NODES", "1000"))
BURST = 1000


class Load(EndpointsTest):
    def install(self, app_id):
        """An application with two endpoints, an item taken on one, a subscriber and an on-close wish on the other."""
        self.stage.path("applications", app_id).mkdir()
        app = self.app(app_id)
        keys = [self.create(app, name) for name in ("first", "second")]
        call = self.subscribe(app, "first")
        self.publisher.publish(keys[0], "an item")
        self.expect_item(call, "first", "an item", 2)
        node = self.node(app_id, "first")
        wait_until(lambda: node in preferences(self.stage), "the number of the item")
        self.assertEqual(app.call("subscribeOnClose", {"endpoint": "second"}),
                         {"returnValue": True, "endpoint": "second"})
        installed = self.stage.path("host", "applications.json")
        wait_until(lambda: app_id in json.loads(installed.read_text(encoding="utf-8"))["installed"],
                   "the host services to know the application")
        return app, keys

    def traces(self, app_id):
        """What is stored of the application: the keys of its preferences and of the offline map."""
        prefix = self.node(app_id, "")
        keys = [key for key in preferences(self.stage) if key.startswith(prefix) or key == "delete" + app_id]
        return sorted(keys + [key for key in offline_map(self.stage) if key.startswith(prefix)])

    def answers_of(self, keys):
        return [self.publisher.request(key, b"x")[0] for key in keys]

    def test_a_removal_while_connected_clears_every_trace(self):
        gone, gone_keys = self.install("com.example.gone")
        other, other_keys = self.install("com.example.stays")
        waiting, waiting_other = self.subscribe(gone, "second"), self.subscribe(other, "second")
        kept = self.traces("com.example.stays")
        self.assertEqual(len(kept), 3)
        self.assertEqual(len(self.traces("com.example.gone")), 3)
        self.stage.path("applications", "com.example.gone").rmdir()
        waiting.wait_ended()
        wait_until(lambda: not self.traces("com.example.gone"), "its state to go")
        self.assertNotIn("delete", preferences(self.stage))
        self.assertEqual(self.answers_of(gone_keys), [404, 404])
        self.assertEqual(len(waiting.texts), 2)
        self.assertEqual(self.traces("com.example.stays"), kept)
        self.publisher.publish(other_keys[1], "stays")
        self.expect_item(waiting_other, "second", "stays", 2)

    def test_a_removal_while_disconnected_is_listed_and_clears_nothing(self):
        app_id = "com.example.offline"
        app, keys = self.install(app_id)
        waiting = self.subscribe(app, "second")
        before = self.traces(app_id)
        self.disconnect()
        self.stage.path("applications", app_id).rmdir()
        wait_until(lambda: preferences(self.stage).get("delete") == {"appid": ["delete" + app_id]}, "the listing")
        self.assertEqual(self.traces(app_id), before)
        self.connect()
        self.publisher.publish(keys[1], "nothing was deleted")
        self.expect_item(waiting, "second", "nothing was deleted", 2)
        self.assertEqual(self.answers_of(keys), [201, 201])
        self.assertEqual(preferences(self.stage)["delete"], {"appid": ["delete" + app_id]})
        wait_until(lambda: len(self.traces(app_id)) == len(before) + 1, "the number of the second node")

    def count_deliveries(self):
        """Has the server note every item that it sends; returns a function that counts those of a node."""
        self.stage.server("down", self.stage.server_folder())
        folder, counted = self.stage.path("server"), self.stage.path("log", "items-sent")
        subprocess.run(["erlc", "-o", str(folder / "ebin"), str(ROOT / "tests" / "e2e" / "mod_item_count.erl")],
                       check=True)
        with open(folder / "conf" / "ejabberd.yml", "a", encoding="utf-8") as configuration:
            configuration.write(f"  mod_item_count: {{file: \"{counted}\"}}\n")  # its last section is `modules`
        self.stage.start_server()
        self.publisher.close()
        self.connect()
        return lambda node: counted.read_text(encoding="utf-8").splitlines().count(node)

    def test_a_burst_to_a_client_that_subscribes_again_after_each_costs_two_deliveries_each_at_most(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        count = self.count_deliveries()
        for number in range(BURST):
            self.publisher.publish(key, str(number))
        received = []
        while not received or received[-1] != BURST - 1:
            call = app.start("subscribe", {"endpoint": self.endpoint})
            app.wait(lambda: any('"item"' in text for text in call.texts) or call.error, "an item")
            received.append(int(call.answers[-1]["item"]))
        self.assertEqual(received, sorted(set(received)))
        deliveries = count(self.node(MAIL, self.endpoint))
        print(f"{BURST} items, {len(received)} received one by one, {deliveries} deliveries", flush=True)
        self.assertGreaterEqual(deliveries, BURST)
        self.assertLessEqual(deliveries, 2 * BURST + 10)

    def test_thousands_of_nodes_are_activated_and_deleted_in_bulk(self):
        app_id = "com.example.bulk"
        app, calls = self.app(app_id), []
        self.stage.path("applications", app_id).mkdir()
        for number in range(BULK):
            if number >= 100:  # of the 128 unanswered requests that a client may have
                calls[number - 100].wait(1, 60)
            calls.append(app.start("createEndpoint", {"endpoint": f"n{number}"}))
        keys = [call.wait(1, 60)["publishKey"] for call in calls]
        sample = range(0, BULK, max(1, BULK // 20))
        for number in sample:
            self.publisher.publish(keys[number], "kept")
        self.offline_wishes([self.node(app_id, f"n{number}") for number in range(BULK)], app_id)
        for number in sample:
            wait_until(lambda number=number: self.cached(app_id, f"n{number}") == "kept",
                       f"the activation of node {number}", 60)
        installed = self.stage.path("host", "applications.json")
        wait_until(lambda: app_id in installed.read_text(encoding="utf-8"), "the host services to know it")
        self.stage.path("applications", app_id).rmdir()
        wait_until(lambda: "delete" + app_id not in preferences(self.stage), "the bulk deletion", 120)
        self.assertEqual([node for node in offline_map(self.stage) if app_id in node], [])
        self.assertEqual({self.publisher.request(keys[number], b"x")[0] for number in sample}, {404})
        self.assertEqual(self.stage.log("service").count("Disconnected from xmpp server"), self.losses)

    def offline_wishes(self, nodes, app_id):
        """Has every node in the offline map, which makes it one of the bulk activation. An application may have few
        of them, so they are written while the service is down."""
        self.stage.kill_service(signal.SIGTERM)
        path = os.path.join(self.stage.env["ZELT_PREFS_DIR"], "pubsubservice.offlineMap.db")
        with sqlite3.connect(path) as database:
            database.executemany("INSERT INTO prefs VALUES (?, ?)", [(node, app_id) for node in nodes])
        database.close()
        self.losses = self.stage.log("service").count("Disconnected from xmpp server")
        self.stage.start_service()
        self.stage.wait_connected()


if __name__ == "__main__":
    unittest.main()
