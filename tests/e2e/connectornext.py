# SPDX-License-Identifier: GPL-3.0-only
"""An application that receives push messages, on python3-dbus-next.

    connectornext.py NAME LOG [register1|register2|unregister1|unregister2 TOKEN [VAPID]]... [silent] [crash]

It owns the name, does what it is told, and writes a line for each thing that happens to the log, until it is ended.
`silent` never answers a message, `crash` ends with the first one.
"""

import asyncio
import os
import sys

from dbus_next import BusType, Message, MessageType, Variant
from dbus_next.aio import MessageBus

DISTRIBUTOR = "org.unifiedpush.Distributor.pubsubservice"
PATH = "/org/unifiedpush/Distributor"


class Application:
    def __init__(self, name, log, words):
        self.name, self.words = name, words
        self._log = os.open(log, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o600)
        self.bus = None

    def say(self, *parts):
        os.write(self._log, (" ".join(parts) + "\n").encode())

    def handle(self, message):
        """Every call, whatever its interface declares; True when it is dealt with."""
        if message.message_type != MessageType.METHOD_CALL or not message.interface.startswith("org.unifiedpush."):
            return False
        if message.interface.endswith("2"):
            values = {key: value.value for key, value in message.body[0].items()}
        else:
            keys = {"Message": ("token", "message", "id"), "NewEndpoint": ("token", "endpoint")}
            values = dict(zip(keys.get(message.member, ("token",)), message.body))
        if message.member == "Message":
            self.say("message", values["token"], bytes(values["message"]).hex() or "-", values["id"])
            if "crash" in self.words:
                os._exit(1)
            if "silent" in self.words:
                return True
        else:
            self.say(message.member, values["token"] or "-", values.get("endpoint", ""))
        if message.interface.endswith("2"):
            back = {"id": Variant("s", values["id"])} if message.member == "Message" else {}
            self.bus.send(Message.new_method_return(message, "a{sv}", [back]))
        else:
            self.bus.send(Message.new_method_return(message))
        return True

    async def call(self, version, member, signature, body):
        reply = await self.bus.call(Message(
            destination=DISTRIBUTOR, path=PATH, interface=f"org.unifiedpush.Distributor{version}", member=member,
            signature=signature, body=body))
        if reply.message_type == MessageType.ERROR:
            return reply.error_name
        if version == "1":
            return " ".join(reply.body)
        return " ".join(reply.body[0][key].value for key in ("success", "reason") if key in reply.body[0])

    async def act(self, verb, token, vapid):
        version = verb[-1]
        if verb.startswith("unregister"):
            arguments = ("s", [token]) if version == "1" else ("a{sv}", [{"token": Variant("s", token)}])
            self.say("unregister", token, await self.call(version, "Unregister", *arguments))
            return
        texts = {"service": self.name, "token": token, "description": "mail"}
        if vapid:
            texts["vapid"] = vapid
        arguments = ("sss", [self.name, token, "mail"]) if version == "1" else \
            ("a{sv}", [{key: Variant("s", value) for key, value in texts.items()}])
        self.say("register", token, await self.call(version, "Register", *arguments))

    async def run(self):
        self.bus = await MessageBus(bus_type=BusType.SESSION).connect()
        self.bus.add_message_handler(self.handle)
        await self.bus.request_name(self.name)
        self.say("started")
        words = list(self.words)
        while words:
            word = words.pop(0)
            if word.startswith(("register", "unregister")):
                token = words.pop(0)
                vapid = words.pop(0) if words and len(words[0]) == 87 else ""
                await self.act(word, token, vapid)
        await self.bus.wait_for_disconnect()


if __name__ == "__main__":
    asyncio.run(Application(sys.argv[1], sys.argv[2], sys.argv[3:]).run())
