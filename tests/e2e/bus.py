# SPDX-License-Identifier: GPL-3.0-only
"""A client of the message bus in plain python3-dbus: calls, several answers on one call, and a service of its own."""

import json
import time

import dbus
import dbus.bus
import dbus.lowlevel
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

DBusGMainLoop(set_as_default=True)

SERVICE = "com.zelt.pubsubservice"
SUBSCRIPTION = "com.zelt.Subscription1"


class BusError(Exception):
    """The bus answered with an error instead of a reply."""

    def __init__(self, name, text):
        super().__init__(f"{name}: {text}")
        self.name = name


class Call:
    """A placed call: every answer that came for it, as JSON texts in order."""

    def __init__(self, client, serial):
        self.client, self.serial = client, serial
        self.texts, self.error, self.ended = [], None, None
        self.signals = 0  # how many of the answers came after the call's own reply

    @property
    def answers(self):
        return [json.loads(text) for text in self.texts]

    def wait(self, count=1, seconds=20):
        """Waits for the answer number `count` and returns it."""
        self.client.pump(lambda: len(self.texts) >= count or self.error, f"answer {count}", seconds)
        if self.error:
            raise self.error
        return self.answers[count - 1]

    def cancel(self):
        return self.client.call_raw(SERVICE, "/", SUBSCRIPTION, "Cancel", (dbus.UInt32(self.serial),))


class BusClient:
    """One connection to one of the two buses."""

    def __init__(self, address):
        self.connection = dbus.bus.BusConnection(address)
        self.calls = {}
        self.handlers = {}
        self.replies = {}
        self.connection.add_message_filter(self._filter)

    def close(self):
        self.connection.close()

    @property
    def name(self):
        return self.connection.get_unique_name()

    def _filter(self, _connection, message):
        kind = message.get_type()
        if kind == dbus.lowlevel.MESSAGE_TYPE_SIGNAL and message.get_interface() == SUBSCRIPTION:
            serial, text = message.get_args_list()
            call = self.calls.get(int(serial))
            if call and message.get_member() == "Answer":
                call.texts.append(str(text))
                call.signals += 1
            elif call and message.get_member() == "Ended":
                call.ended = str(text)
        elif kind == dbus.lowlevel.MESSAGE_TYPE_METHOD_CALL and message.get_member() in self.handlers:
            payload = json.loads(str(message.get_args_list()[0]))
            self.handlers[message.get_member()].append(payload)
            reply = self.replies.get(message.get_member(), lambda _: None)(payload)
            if reply is not None:
                answer = dbus.lowlevel.MethodReturnMessage(message)
                answer.append(json.dumps(reply), signature="s")
                _connection.send_message(answer)
            return dbus.lowlevel.HANDLER_RESULT_HANDLED
        return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED

    def pump(self, condition, what, seconds=20):
        """Runs the main loop until condition() is true."""
        context = GLib.MainContext.default()
        deadline = time.monotonic() + seconds
        tick = GLib.timeout_add(20, lambda: True)
        try:
            while not condition():
                if time.monotonic() > deadline:
                    raise AssertionError(f"not within {seconds} s: {what}")
                context.iteration(True)
        finally:
            GLib.source_remove(tick)

    def start(self, method, payload, service=SERVICE, path="/"):
        """Places a call without waiting. `payload` is an object, or a text that goes out as it is."""
        text = payload if isinstance(payload, str) else json.dumps(payload)
        message = dbus.lowlevel.MethodCallMessage(destination=service, path=path, interface=service, method=method)
        message.append(text, signature="s")
        call = Call(self, 0)

        def replied(reply):
            call.serial = reply.get_reply_serial()
            self.calls[call.serial] = call
            if reply.get_type() == dbus.lowlevel.MESSAGE_TYPE_ERROR:
                arguments = reply.get_args_list()
                call.error = BusError(reply.get_error_name(), str(arguments[0]) if arguments else "")
            else:
                call.texts.append(str(reply.get_args_list()[0]))

        self.connection.send_message_with_reply(message, replied, -1)
        return call

    def call(self, method, payload, seconds=20, **where):
        """Places a call and returns its first answer."""
        return self.start(method, payload, **where).wait(1, seconds)

    def call_raw(self, service, path, interface, method, arguments=()):
        signature = "u" if arguments else ""
        return self.connection.call_blocking(service, path, interface, method, signature, arguments)

    def serve(self, name, method, reply=None):
        """Owns a bus name; returns the list to which the payload of every call of `method` is added.

        `reply` gives the answer to a payload; None is no answer.
        """
        if reply:
            self.replies[method] = reply
        self.connection.request_name(name)
        return self.handlers.setdefault(method, [])
