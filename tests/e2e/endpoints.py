# SPDX-License-Identifier: GPL-3.0-only
"""What the end-to-end tests of public endpoints share: applications, a publisher over HTTP, and the service's state.

The publisher is any HTTP client: it knows a key and nothing else. The state on disk is read as it stands, while the
service runs.
"""

import http.client
import json
import os
import sqlite3
import urllib.parse

import dbus
import dbus.bus

from app import App
from bus import BusClient
from stage import StageTest, wait_until

MAIL, NEWS = "com.example.mail", "com.example.news"
OFFLINE = {"errorCode": "connectionErr", "errorText": "Not connected to xmpp server"}


class Publisher:
    """Posts to keys over one connection to the server's HTTP port; not for several threads."""

    def __init__(self, http_url, seconds=20):
        url = urllib.parse.urlsplit(http_url)
        self._address, self._path, self._seconds = (url.hostname, url.port), url.path, seconds
        self._connection = None

    def request(self, key, body, method="POST"):
        """Returns (status, the answer's JSON object); an OSError or HTTPException means that nobody was told."""
        if not self._connection:
            self._connection = http.client.HTTPConnection(*self._address, timeout=self._seconds)
        try:
            self._connection.request(method, f"{self._path}/{key}", body)
            answer = self._connection.getresponse()
            text = answer.read()
        except BaseException:
            self.close()
            raise
        is_json = "json" in answer.headers.get("Content-Type", "")
        if answer.will_close or not is_json:  # what is no HTTP to the server leaves the connection out of step
            self.close()
        return answer.status, json.loads(text) if is_json else {}

    def publish(self, key, text):
        """Posts a text that the server has to take; returns the item's number."""
        status, answer = self.request(key, text.encode() if isinstance(text, str) else text)
        if status != 201:
            raise AssertionError(f"the item was refused with {status}: {answer}")
        return int(answer["seqNo"])

    def close(self):
        if self._connection:
            self._connection.close()
            self._connection = None


def preferences(stage, app_id="com.zelt.pubsubservice"):
    """Everything that the preferences hold for an application id, parsed where it is JSON."""
    path = os.path.join(stage.env["ZELT_PREFS_DIR"], app_id + ".db")
    if not os.path.exists(path):
        return {}
    database = sqlite3.connect(path)
    try:
        rows = database.execute("SELECT key, value FROM prefs").fetchall()
    finally:
        database.close()
    return {key: json.loads(value) if value.startswith("{") else value for key, value in rows}


def offline_map(stage):
    return preferences(stage, "pubsubservice.offlineMap")


class EndpointsTest(StageTest):
    """Two applications, a client of the private bus and a publisher; every application ends with its test."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.private = BusClient(cls.stage.env["ZELT_PRIVATE_BUS"])
        cls.public = dbus.bus.BusConnection(cls.stage.env["ZELT_PUBLIC_BUS"])
        cls.publisher = Publisher(cls.stage.env["HTTP_URL"])
        cls.names = 0

    @classmethod
    def tearDownClass(cls):
        cls.publisher.close()
        cls.private.close()
        cls.public.close()
        super().tearDownClass()

    def setUp(self):
        type(self).names += 1
        self.endpoint = f"inbox{self.names}"  # of this test alone

    def app(self, app_id=MAIL):
        app = App(self.stage.env["ZELT_PUBLIC_BUS"], app_id)
        self.addCleanup(app.close)
        return app

    def kill(self, app):
        """Kills an application and waits until the bus has seen its end; what is published then comes after it."""
        def ask(member, *arguments):
            return self.public.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                             member, "s" * len(arguments), arguments)
        mine = [name for name in ask("ListNames")
                if name.startswith(":") and ask("GetConnectionUnixProcessID", name) == app.pid]
        self.assertEqual(len(mine), 1)
        app.kill()
        wait_until(lambda: not ask("NameHasOwner", mine[0]), "the bus to see the end of the application")

    def node(self, app_id, endpoint):
        return f"/{self.stage.env['DEVICE_USER']}/{self.stage.env['DEVICE_RESOURCE']}/{app_id}/{endpoint}"

    def cache_file(self, app_id, endpoint):
        name = self.node(app_id, endpoint).split("/", 2)[2].replace("/", "-")
        return self.stage.path("state", "cache", name)

    def cached(self, app_id, endpoint):
        """The text of the item that waits in the cache, or None."""
        try:
            return json.loads(self.cache_file(app_id, endpoint).read_text(encoding="utf-8"))["item"]
        except FileNotFoundError:
            return None

    def wait_cached(self, app_id, endpoint, text):
        wait_until(lambda: self.cached(app_id, endpoint) == text, f"{text!r} in the cache")

    def wait_uncached(self, app_id, endpoint):
        """The file goes after its item was sent, so whoever got the item may still see the file."""
        wait_until(lambda: self.cached(app_id, endpoint) is None, "the cache file to go")

    def create(self, app, endpoint, **members):
        """Makes the endpoint and returns its key."""
        answer = app.call("createEndpoint", dict(members, endpoint=endpoint))
        self.assertEqual(set(answer), {"returnValue", "endpoint", "publishKey"}, answer)
        self.stage.secrets.add(answer["publishKey"])
        return answer["publishKey"]

    def subscribe(self, app, endpoint):
        """Subscribes while connected; returns the call after both of its answers."""
        call = app.start("subscribe", {"endpoint": endpoint})
        call.wait(2)
        self.assertEqual(call.answers, [{"returnValue": True, "endpoint": endpoint}] * 2)
        return call

    def expect_item(self, call, endpoint, text, before, subscribed=None):
        """After `before` answers the item is the next, and the last. It names the endpoint from its last slash on."""
        call.wait(before + 1)
        call.wait_ended()
        self.assert_item(call, endpoint, text, before, subscribed or endpoint)

    def expect_cached_item(self, app, endpoint, text):
        """Subscribing hands out the item of the cache at once, and opens no subscription that could end."""
        call = app.start("subscribe", {"endpoint": endpoint})
        call.wait(2)
        self.assert_item(call, endpoint, text, 1, endpoint)

    def assert_item(self, call, endpoint, text, before, subscribed):
        self.assertEqual(call.answers, [{"returnValue": True, "endpoint": subscribed}] * before +
                         [{"item": text, "endpoint": endpoint, "returnValue": True}])

    def disconnect(self):
        self.assertEqual(self.private.call("disconnect", {}), {"returnValue": True})

    def connect(self):
        self.stage.ctl("call", "connectStatus", "{}")
        self.stage.wait_connected()
