# SPDX-License-Identifier: GPL-3.0-only
"""The application of faults.py: waits for items of its endpoints until it is ended, and prints each as "ENDPOINT ITEM".

It subscribes again after each item, refusal and end of a subscription, and when the service is back; never for any
other reason, so an item that the service fails to deliver is missed.
"""

import json
import sys

from gi.repository import GLib

from bus import SERVICE, BusClient

AGAIN = 50  # milliseconds after a refusal


class Answers(list):
    """The answers of one call; each is shown to a function as it comes."""

    def __init__(self, show):
        super().__init__()
        self._show = show

    def append(self, text):
        super().append(text)
        self._show(json.loads(text))


class Waiter:
    """Waits for one endpoint's items."""

    def __init__(self, client, endpoint):
        self._client, self.endpoint, self._call = client, endpoint, None

    def subscribe(self):
        call = self._client.start("subscribe", {"endpoint": self.endpoint})
        call.texts = Answers(lambda answer: self._answered(call, answer))
        self._call = call
        return False

    def _answered(self, call, answer):
        if "item" in answer:
            print(self.endpoint, answer["item"], flush=True)
        if call is not self._call:
            return  # an activation's result that an item has overtaken
        if "item" in answer:
            self.subscribe()
        elif not answer["returnValue"] or "status" in answer:
            self._later()

    def _later(self):
        self._call = None
        GLib.timeout_add(AGAIN, self._if_idle)

    def _if_idle(self):
        if not self._call:
            self.subscribe()
        return False

    def look(self):
        """Bus errors and ends, which have no answer of their own."""
        if self._call and (self._call.error or self._call.ended is not None):
            self._later()

    def service_came(self):
        self._call = None
        self.subscribe()


def main(address, endpoints):
    client = BusClient(address)
    waiters = [Waiter(client, endpoint) for endpoint in endpoints]

    def owner_changed(owner):
        for waiter in waiters if owner else ():
            waiter.service_came()

    def look():
        for waiter in waiters:
            waiter.look()
        return True

    client.connection.watch_name_owner(SERVICE, owner_changed)
    GLib.timeout_add(20, look)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2:])
