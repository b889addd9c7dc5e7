# SPDX-License-Identifier: GPL-3.0-only
"""No log holds an item's text, a publish key or a token, whatever happens to them.

Every stage of the end-to-end tests looks for the device's token and the keys that were made when it ends; this file has
items and tokens take every way and fail in every way first.
"""

import json
import subprocess
import unittest

from endpoints import MAIL, EndpointsTest
from stage import BIN

SECRET = "sentinel-of-an-item"
TOKEN = "sentinel-of-a-token"
NODE = "/e2e/dev/logs"


class Logs(EndpointsTest):
    def setUp(self):
        super().setUp()
        self.stage.secrets |= {SECRET, TOKEN}

    def tearDown(self):
        self.assertEqual(self.stage.told_secrets(), [])

    def publish_item(self, **members):
        return self.private.call("publishItem", members)

    def test_the_search_finds_what_is_in_a_log(self):
        log = self.stage.path("log", "planted.log")
        log.write_text(f"before {SECRET} after\n", encoding="utf-8")
        self.assertEqual(self.stage.told_secrets(), [f"planted.log: before {SECRET} after"])
        log.unlink()

    def test_items_of_nodes(self):
        self.assertTrue(self.private.call("createNode", {"node": NODE})["returnValue"])
        self.assertTrue(self.private.call("subscribeToNode", {"node": NODE})["returnValue"])
        self.assertTrue(self.publish_item(node=NODE, item=SECRET)["returnValue"])
        absent = {"node": NODE, "endpoint": "zelt://com.example.absent/item"}
        self.assertTrue(self.private.call("registerItemCallback", absent)["returnValue"])
        self.assertTrue(self.publish_item(node=NODE, item=SECRET)["returnValue"])
        self.assertTrue(self.private.call("registerItemCallback", dict(absent, confirm=True))["returnValue"])
        self.assertTrue(self.publish_item(node=NODE, item=SECRET)["returnValue"])
        self.stage.kill_service()
        self.stage.start_service()
        self.stage.wait_connected()
        self.assertTrue(self.private.call("unRegisterItemCallback", dict(absent, app=False))["returnValue"])

    def test_items_that_are_refused(self):
        for payload in ({"node": "/e2e/dev/none", "item": SECRET}, {"node": NODE, "item": SECRET + "\x01"},
                        {"node": "a\x01", "item": SECRET}, {"node": NODE, "xml": True, "item": [SECRET]},
                        {"node": NODE, "item": SECRET, "trace": SECRET + "!"}):
            self.assertFalse(self.publish_item(**payload)["returnValue"])
        self.assertFalse(self.private.call("publishItem", '{"node":"a","item":"' + SECRET)["returnValue"])
        for key, body in (("nokey", SECRET), (self.create(self.app(), self.endpoint), SECRET * 4000)):
            self.assertGreaterEqual(self.publisher.request(key, body)[0], 400)

    def test_items_of_endpoints(self):
        app = self.app()
        key = self.create(app, self.endpoint)
        self.publisher.publish(key, SECRET)  # kept
        call = self.subscribe(app, self.endpoint)
        call.wait(3)
        self.publisher.publish(key, SECRET)  # cached
        self.wait_cached(MAIL, self.endpoint, SECRET)
        self.kill(app)
        again = self.app()
        receiving = again.start("receive", {"subscribe": True, "endpoints": [self.endpoint]})
        receiving.wait(1)
        self.publisher.publish(key, SECRET)
        item = receiving.wait(2)
        self.assertEqual(item["item"], SECRET)
        self.assertFalse(again.call("acknowledge", {"endpoint": self.endpoint, "receipt": "none"})["returnValue"])
        self.kill(again)

    def test_tokens_of_logins_that_succeed_and_fail(self):
        env = self.stage.env
        account = self.stage.path("host", "account.json")
        before = account.read_text(encoding="utf-8")
        self.addCleanup(self.stage.ctl, "session", "login")
        self.addCleanup(account.write_text, before, encoding="utf-8")
        self.stage.secrets.add(json.loads(before)["token"])
        for user, expected in (("stranger", 4), ("known", 0)):
            if not expected:
                self.stage.account(user, TOKEN)
            subprocess.run([str(BIN / "zelt-host"), "account", "set", "--user", user, "--service", env["XMPP_DOMAIN"],
                            "--url", env["XMPP_HOST"], "--port", env["XMPP_PORT"]], input=TOKEN + "\n", text=True,
                           env=self.stage.process_environment(), stdout=subprocess.DEVNULL, check=True)
            self.assertEqual(self.stage.ctl("session", "login", check=False)[0], expected)
            self.stage.ctl("doctor", check=False)


if __name__ == "__main__":
    unittest.main()
