# SPDX-License-Identifier: GPL-3.0-only
"""The application of receiverfaults.py: receives items of its endpoints and acknowledges them until it is ended.

It prints a line "WORD ENDPOINT ITEM" before it does what the word says: `item` (it came), `ack` (it is acknowledged),
`back` (it is given back), and after the answer `done`. It receives again when it was refused, when the receive ended
and when the service is back; never for any other reason.
"""

import json
import random
import sys

from gi.repository import GLib

from bus import SERVICE, BusClient
from faultsapp import AGAIN, Answers

LONGEST_WORK = 40  # milliseconds with an item
GIVEN_BACK = 0.03  # of the items


def say(word, item):
    sys.stdout.write(f"{word} {item['endpoint']} {item['item']}\n")  # all or nothing, also when it is killed
    sys.stdout.flush()


class Receiver:
    """One receive, and what it does with its items."""

    def __init__(self, client, endpoints, seed):
        self._client, self._endpoints, self._call = client, endpoints, None
        self._random = random.Random(seed)

    def receive(self):
        call = self._client.start("receive", {"subscribe": True, "endpoints": self._endpoints})
        call.texts = Answers(lambda answer: self._answered(call, answer))
        self._call = call
        return False

    def _answered(self, call, answer):
        if call is not self._call:
            return
        if "item" in answer:
            say("item", answer)
            GLib.timeout_add(self._random.randrange(LONGEST_WORK), self._finish, answer)
        elif not answer["returnValue"]:
            self._later()

    def _finish(self, item):
        which = {"endpoint": item["endpoint"], "receipt": item["receipt"]}
        back = self._random.random() < GIVEN_BACK
        say("back" if back else "ack", item)
        call = self._client.start("acknowledge", dict(which, retry=0) if back else which)
        # The answer to what is given back may come after the item; an ack is done before the next item.
        call.texts = Answers(lambda answer: answer["returnValue"] and not back and say("done", item))
        return False

    def _later(self):
        self._call = None
        GLib.timeout_add(AGAIN, self._if_idle)

    def _if_idle(self):
        if not self._call:
            self.receive()
        return False

    def look(self):
        """Bus errors and ends, which have no answer of their own."""
        if self._call and (self._call.error or self._call.ended is not None):
            self._later()
        return True

    def service_came(self, owner):
        if owner:
            self.receive()


def main(address, seed, endpoints):
    client = BusClient(address)
    receiver = Receiver(client, endpoints, seed)
    client.connection.watch_name_owner(SERVICE, receiver.service_came)
    GLib.timeout_add(20, receiver.look)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2], sys.argv[3:])
