# SPDX-License-Identifier: GPL-3.0-only
"""An XMPP account on the same server, with another implementation (slixmpp), used from the test's own thread."""

import asyncio
import queue
import threading
import time
import xml.etree.ElementTree as ElementTree

import slixmpp
from slixmpp.exceptions import IqError
from slixmpp.xmlstream.handler import Callback
from slixmpp.xmlstream.matcher import MatchXPath

DEADLINE = 20


class Peer:
    """Logs in at once; every message that arrives is kept as an ElementTree element."""

    def __init__(self, stage, user, password, resource="peer"):
        env = stage.env
        self.service = env["PUBSUB_JID"]
        self.jid = f"{user}@{env['XMPP_DOMAIN']}/{resource}"
        self._password, self._env = password, env
        self._messages = queue.Queue()
        self._started = threading.Event()
        self._loop = None
        self._client = None
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()
        if not self._started.wait(DEADLINE):
            raise AssertionError(f"{self.jid} could not log in")

    def _run(self):
        self._loop = asyncio.new_event_loop()
        asyncio.set_event_loop(self._loop)
        client = slixmpp.ClientXMPP(self.jid, self._password)
        client.register_plugin("xep_0060")
        client.ca_certs = self._env["CA_FILE"]
        client.register_handler(Callback("every message", MatchXPath("{jabber:client}message"),
                                         lambda message: self._messages.put(message.xml)))
        client.add_event_handler("session_start", self._on_start)
        self._client = client
        client.connect(address=(self._env["XMPP_HOST"], int(self._env["XMPP_PORT"])))
        self._loop.run_forever()
        tasks = asyncio.all_tasks(self._loop)  # slixmpp leaves one that waits for more to send
        for task in tasks:
            task.cancel()
        self._loop.run_until_complete(asyncio.gather(*tasks, return_exceptions=True))
        self._loop.close()

    def _on_start(self, _event):
        self._client.send_presence()
        self._started.set()

    def _wait(self, coroutine_function):
        return asyncio.run_coroutine_threadsafe(coroutine_function(), self._loop).result(DEADLINE)

    def iq(self, kind, payload, to=None):
        """Sends an IQ with the payload (XML text); returns the answer's element, errors as ("error", condition)."""
        async def send():
            iq = self._client.make_iq(ito=to or self.service, itype=kind)
            iq.append(ElementTree.fromstring(payload))
            try:
                return (await iq.send(timeout=DEADLINE)).xml
            except IqError as error:
                return ("error", error.condition)
        return self._wait(send)

    def publish(self, node, text, item_id=None):
        identity = f" id='{item_id}'" if item_id else ""
        return self.iq("set", "<pubsub xmlns='http://jabber.org/protocol/pubsub'>"
                              f"<publish node='{node}'><item{identity}><payload>{text}</payload></item></publish>"
                              "</pubsub>")

    def subscribe(self, node, jid=None):
        return self.iq("set", "<pubsub xmlns='http://jabber.org/protocol/pubsub'>"
                              f"<subscribe node='{node}' jid='{jid or self.jid}'/></pubsub>")

    def raw(self, text):
        self._loop.call_soon_threadsafe(self._client.send_raw, text)

    def wait_message(self, accept=lambda element: True, seconds=DEADLINE):
        """The next message for which accept(element) is true."""
        deadline = time.monotonic() + seconds
        while True:
            try:
                element = self._messages.get(timeout=max(0.01, deadline - time.monotonic()))
            except queue.Empty:
                raise AssertionError(f"no such message reached {self.jid} within {seconds} s") from None
            if accept(element):
                return element

    def close(self):
        async def end():
            await self._client.disconnect(wait=1.0)
        self._wait(end)
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join(DEADLINE)
