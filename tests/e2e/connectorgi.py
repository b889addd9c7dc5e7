# SPDX-License-Identifier: GPL-3.0-only
"""An application that receives push messages, on python3-gi: a GApplication, which has its name before its object.

    connectorgi.py NAME LOG [TOKEN]

With a token it registers. It writes a line for each thing that happens to the log, and ends a while after the last.
"""

import os
import sys

from gi.repository import Gio, GLib

LATE = 300  # milliseconds between the name and the object
IDLE = 30000
XML = """<node><interface name='org.unifiedpush.Connector2'>
<method name='Message'><arg type='a{sv}' direction='in'/><arg type='a{sv}' direction='out'/></method>
<method name='NewEndpoint'><arg type='a{sv}' direction='in'/><arg type='a{sv}' direction='out'/></method>
<method name='Unregistered'><arg type='a{sv}' direction='in'/><arg type='a{sv}' direction='out'/></method>
</interface></node>"""


class Application(Gio.Application):
    def __init__(self, name, log, token):
        super().__init__(application_id=name, flags=Gio.ApplicationFlags.IS_SERVICE)
        self.set_inactivity_timeout(IDLE)
        self._token = token
        self._log = os.open(log, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o600)
        self.connect("startup", self._started)

    def say(self, *parts):
        os.write(self._log, (" ".join(parts) + "\n").encode())

    def _started(self, _application):
        self.hold()
        self.say("started")
        GLib.timeout_add(LATE, self._export)

    def _export(self):
        interface = Gio.DBusNodeInfo.new_for_xml(XML).interfaces[0]
        self.get_dbus_connection().register_object("/org/unifiedpush/Connector", interface, self._called, None, None)
        self.say("exported")
        if self._token:
            arguments = GLib.Variant("(a{sv})", ({"service": GLib.Variant("s", self.get_application_id()),
                                                  "token": GLib.Variant("s", self._token)},))
            self.get_dbus_connection().call(
                "org.unifiedpush.Distributor.pubsubservice", "/org/unifiedpush/Distributor",
                "org.unifiedpush.Distributor2", "Register", arguments, GLib.VariantType("(a{sv})"),
                Gio.DBusCallFlags.NONE, 25000, None, self._registered)
        self.release()
        return False

    def _registered(self, connection, result):
        self.say("register", self._token, connection.call_finish(result).unpack()[0]["success"])

    def _called(self, _connection, _sender, _path, _interface, method, arguments, invocation):
        values = arguments.unpack()[0]
        if method == "Message":
            self.say("message", values["token"], bytes(values["message"]).hex(), values["id"])
        else:
            self.say(method, values["token"], values.get("endpoint", ""))
        invocation.return_value(GLib.Variant("(a{sv})", ({},)))


if __name__ == "__main__":
    sys.exit(Application(sys.argv[1], sys.argv[2], sys.argv[3] if len(sys.argv) > 3 else "").run([sys.argv[0]]))
