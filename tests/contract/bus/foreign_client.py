#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
# A D-Bus client that does not use the bus layer, for the bus tests; connects to the bus of ZELT_PUBLIC_BUS.
# `follow` subscribes, prints what is received, cancels at the first later answer and prints the end;
# `noncharacter` sends a text that sd-bus refuses.
import os
import sys

import dbus
import dbus.bus
import dbus.lowlevel
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

SERVICE = "com.zelt.contract"
SUBSCRIPTION = "com.zelt.Subscription1"


def request(method, payload):
    message = dbus.lowlevel.MethodCallMessage(SERVICE, "/", SERVICE, method)
    message.append(payload, signature="s")
    return message


def follow(bus):
    loop = GLib.MainLoop()
    state = {"serial": None, "ended": False, "cancelled": None}

    def finish():
        if state["ended"] and state["cancelled"] is not None:
            print("cancelled", state["cancelled"])
            loop.quit()

    def on_cancelled(reply):
        state["cancelled"] = bool(reply.get_args_list()[0])
        finish()

    def on_reply(reply):
        state["serial"] = reply.get_reply_serial()
        print("reply", reply.get_args_list()[0])

    def on_message(_, message):
        if message.get_type() != dbus.lowlevel.MESSAGE_TYPE_SIGNAL or message.get_interface() != SUBSCRIPTION:
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        serial, text = message.get_args_list()
        assert serial == state["serial"], (serial, state["serial"])
        if message.get_member() == "Answer":
            print("answer", text)
            cancel = dbus.lowlevel.MethodCallMessage(SERVICE, "/", SUBSCRIPTION, "Cancel")
            cancel.append(serial, signature="u")
            bus.send_message_with_reply(cancel, on_cancelled, 5.0)
        else:
            print("ended", text)
            state["ended"] = True
            finish()
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    bus.add_message_filter(on_message)
    bus.send_message_with_reply(request("follow", '{"subscribe":true}'), on_reply, 5.0)
    GLib.timeout_add_seconds(5, loop.quit)
    loop.run()


def noncharacter(bus):
    try:
        bus.send_message_with_reply_and_block(request("hold", '{"a":"\ufffe"}'), 5.0)
    except dbus.DBusException as error:
        print(error)


DBusGMainLoop(set_as_default=True)
{"follow": follow, "noncharacter": noncharacter}[sys.argv[1]](dbus.bus.BusConnection(os.environ["ZELT_PUBLIC_BUS"]))
