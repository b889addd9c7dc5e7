# SPDX-License-Identifier: GPL-3.0-only
"""The handler service of receiverfaults.py: is called with the items of its nodes and confirms them until it is ended.

It registers its handler for each node whenever the push service is there. It prints a line "WORD NODE ITEM TIME" before
it does what the word says: `item` (it came), `ack` (it is confirmed), `back` (it is refused); TIME is that of the
monotonic clock.
"""

import json
import random
import sys
import time

import dbus.lowlevel
from gi.repository import GLib

from bus import SERVICE, BusClient

NAME = "com.zelt.e2e.confirms"
LONGEST_WORK = 40  # milliseconds with an item
REFUSED = 0.03     # of the items


def say(word, item):
    sys.stdout.write(f"{word} {item['node']} {item['item']} {time.monotonic()}\n")  # all or nothing, when killed too
    sys.stdout.flush()


class Handler:
    """Answers each call after a while."""

    def __init__(self, client, nodes, seed):
        self._client, self._nodes = client, nodes
        self._random = random.Random(seed)
        client.connection.add_message_filter(self._called)

    def _called(self, _connection, message):
        if not message.is_method_call(NAME, "item"):
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        item = json.loads(str(message.get_args_list()[0]))
        say("item", item)
        GLib.timeout_add(self._random.randrange(LONGEST_WORK), self._finish, message, item)
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    def _finish(self, message, item):
        refused = self._random.random() < REFUSED
        say("back" if refused else "ack", item)
        answer = dbus.lowlevel.MethodReturnMessage(message)
        answer.append(json.dumps({"returnValue": not refused}), signature="s")
        self._client.connection.send_message(answer)
        return False

    def service_came(self, owner):
        for node in self._nodes if owner else ():
            self._client.start("registerItemCallback",
                               {"node": node, "endpoint": f"zelt://{NAME}/item", "confirm": True})


def main(address, seed, nodes):
    client = BusClient(address)
    handler = Handler(client, nodes, seed)
    client.connection.request_name(NAME)
    client.connection.watch_name_owner(SERVICE, handler.service_came)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2], sys.argv[3:])
