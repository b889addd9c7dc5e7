# SPDX-License-Identifier: GPL-3.0-only
"""Platform services that a test controls: it fires alarms and changes networks.

They live in the test's own process, each on a connection of its own to the private bus, and answer while the
test runs the main loop. A stage made here has no host daemon, and its bus activates no service.
"""

import json
import signal
import socket
import urllib.request

import dbus
import dbus.bus
import dbus.lowlevel

from bus import SERVICE, SUBSCRIPTION, BusClient
from stage import USER, Stage, StageTest

TOKEN = "the token"


class PlatformService:
    """One service on the bus. `methods` maps each method to the function that makes an answer of a payload."""

    def __init__(self, address, name, methods):
        self._address, self._name, self._methods = address, name, methods
        self._connection = None
        self._subscribers = []
        self._held = []
        self.holding = False  # while set, answers wait for release()
        self.calls = []       # (method, payload as text), in order

    def arrive(self):
        self._connection = dbus.bus.BusConnection(self._address)
        self._connection.add_message_filter(self._filter)
        self._connection.request_name(self._name)

    def leave(self):
        """When this returns, the bus has told everybody who watches the name."""
        if self._connection:
            self._connection.release_name(self._name)
            self._connection.close()
        self._connection, self._subscribers, self._held = None, [], []

    def called(self, method):
        return [text for name, text in self.calls if name == method]

    def _filter(self, _connection, message):
        method = f"{message.get_path()}/{message.get_member()}".lstrip("/")
        if message.get_type() != dbus.lowlevel.MESSAGE_TYPE_METHOD_CALL or method not in self._methods:
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        text = str(message.get_args_list()[0])
        self.calls.append((method, text))
        answer = self._methods[method](json.loads(text) if text else None)
        if text and json.loads(text).get("subscribe"):
            self._subscribers.append(message)
        if self.holding:
            self._held.append((message, answer))
        elif not message.get_no_reply():
            self._reply(message, answer)
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    def _reply(self, message, answer):
        reply = dbus.lowlevel.MethodReturnMessage(message)
        reply.append(answer if isinstance(answer, str) else json.dumps(answer), signature="s")
        self._connection.send_message(reply)

    def waits(self):
        return bool(self._held)

    def release(self):
        """Sends the answers that were held, unchanged since their calls."""
        self.holding = False
        for message, answer in self._held:
            self._reply(message, answer)
        self._held = []

    def tell(self, answer):
        """Sends another answer to every subscriber."""
        for message in self._subscribers:
            later = dbus.lowlevel.SignalMessage(message.get_path(), SUBSCRIPTION, "Answer")
            later.set_destination(message.get_sender())
            later.append(dbus.UInt32(message.get_serial()), json.dumps(answer), signature="us")
            self._connection.send_message(later)


class Power(PlatformService):
    """Keeps alarms, which go off only by fire()."""

    def __init__(self, address):
        super().__init__(address, "com.zelt.power", {
            "timeout/set": self._set, "timeout/clear": self._clear,
            "com/zelt/power/activityStart": lambda _: {"returnValue": True}})
        self.accepts = True
        self.alarms = {}
        self.armed = []  # every accepted set, in order: (key, in)

    def _set(self, alarm):
        if self.accepts:
            self.alarms[alarm["key"]] = alarm
            self.armed.append((alarm["key"], alarm["in"]))
        return {"returnValue": self.accepts}

    def _clear(self, alarm):
        return {"returnValue": self.alarms.pop(alarm["key"], None) is not None}

    def delays(self, key):
        return [delay for armed, delay in self.armed if armed == key]

    def fire(self, key):
        """Removes the alarm and calls its address with its parameters."""
        alarm = self.alarms.pop(key)
        service, method = alarm["uri"].removeprefix("quor://").split("/")
        call = dbus.lowlevel.MethodCallMessage(destination=service, path="/", interface=service,
                                               method=method)
        call.append(alarm["params"], signature="s")
        call.set_no_reply(True)
        self._connection.send_message(call)


class Network(PlatformService):
    """Reports the status that the test set last."""

    def __init__(self, address):
        super().__init__(address, "com.zelt.connectionmanager", {"getstatus": lambda _: self._status})
        self._status = self._made(wifi="127.0.0.1")

    @staticmethod
    def _made(internet=True, wifi=None, wan=None):
        def link(ip):
            return {"state": "connected" if ip else "disconnected", "ipAddress": ip or ""}
        return {"returnValue": True, "isInternetConnectionAvailable": internet, "wifi": link(wifi),
                "wan": link(wan)}

    def report(self, internet=True, wifi=None, wan=None):
        """Reports links with these addresses as connected, and the others as disconnected."""
        self.report_raw(self._made(internet, wifi, wan))

    def report_raw(self, status):
        self._status = status
        self.tell(status)


class Account(PlatformService):
    """Answers with the device's account; `reply` may be changed or replaced by a text."""

    def __init__(self, address, env):
        super().__init__(address, "com.zelt.accountservices", {"getAccountToken": lambda _: self.reply})
        self.account = {"user": USER, "service": env["XMPP_DOMAIN"], "url": env["XMPP_HOST"],
                        "port": env["XMPP_PORT"]}
        self.reply = self.made()

    def made(self, token=TOKEN, **members):
        """The whole reply; a member that is None is left out."""
        account = {key: value for key, value in {**self.account, **members}.items() if value is not None}
        reply = {"jabberId": json.dumps(account).replace('"', '\\"'), "uniqueId": token}
        return {key: value for key, value in reply.items() if value is not None}


class System(PlatformService):
    def __init__(self, address):
        super().__init__(address, "com.zelt.systemmanager",
                         {"getBootStatus": lambda _: {"finished": self.finished}})
        self.finished = True

    def finish(self, finished=True):
        self.finished = finished
        self.tell({"finished": finished})


class PlatformStage(Stage):
    """Buses and server alone; the test starts the service and is the platform."""

    def up(self):
        self.device.ground("--loglevel", "debug")
        self.env = {**self.device.places(), **self.device.server_assignments(), "STATE_DIR": str(self.path("state")),
                    "DEVICE_USER": USER}
        self.account(USER, TOKEN)
        return self

    def kick(self):
        """The server ends the device's stream with an error and keeps running."""
        kick(self.env)


def kick(env):
    request = urllib.request.Request(
        env["API_URL"] + "/kick_user", method="POST", headers={"Content-Type": "application/json"},
        data=json.dumps({"user": env["DEVICE_USER"], "host": env["XMPP_DOMAIN"]}).encode())
    urllib.request.build_opener(urllib.request.ProxyHandler({})).open(request, timeout=20).close()


class PlatformTest(StageTest):
    """A service of its own for each test, and a platform that the test changes before start() and later."""

    @classmethod
    def setUpClass(cls):
        cls.stage = PlatformStage()
        try:
            cls.stage.up()
        except BaseException:
            cls.stage.down()
            raise

    def setUp(self):
        address = self.stage.env["ZELT_PRIVATE_BUS"]
        self.power, self.network = Power(address), Network(address)
        self.account, self.system = Account(address, self.stage.env), System(address)
        self.private = BusClient(address)
        self.addCleanup(self.private.close)
        self.status = None
        self.stage.path("log", "service.log").touch()
        self._log_start = len(self.stage.log("service"))

    def start(self, absent=(), **extra):
        """Starts the service with all platform services that are not absent."""
        for service in (self.power, self.network, self.account, self.system):
            if service not in absent:
                service.arrive()
            self.addCleanup(service.leave)
        self.stage.start_service(**extra)
        self.addCleanup(self.stage.kill_service, signal.SIGTERM)
        self.status = self.private.start("subscribeConnStatus", {"subscribe": True})
        self.status.wait(1)

    def start_connected(self):
        self.start()
        self.wait_connected()

    def pump(self, condition, what, seconds=20):
        self.private.pump(condition, what, seconds)

    def is_connected(self):
        return self.status.answers[-1]["connected"]

    def wait_connected(self):
        self.pump(self.is_connected, "the service to be connected")

    def wait_disconnected(self):
        self.pump(lambda: not self.is_connected(), "the service to be disconnected")

    def settle(self):
        """The platform has received what the service has sent so far, since the service's answer comes after it."""
        self.private.call("getJabberId", {})

    def wait_alarm(self, count):
        """Waits until so many reconnect alarms were armed in all; returns their delays."""
        self.pump(lambda: len(self.power.delays("reconnectTimer")) >= count, f"reconnect alarm {count}")
        self.settle()
        delays = self.power.delays("reconnectTimer")
        self.assertEqual(len(delays), count)
        return delays

    def lose(self):
        """The server drops the stream; it would accept the device again."""
        self.stage.kick()
        self.wait_disconnected()

    def log(self):
        return self.stage.log("service")[self._log_start:]

    def wait_log(self, text, count=1):
        self.pump(lambda: self.log().count(text) >= count, f"{text!r} in the log, {count} times")

    def local_addresses(self):
        """The local addresses of the device's connections to the server."""
        port, found = int(self.stage.env["XMPP_PORT"]), []
        with open("/proc/net/tcp", encoding="ascii") as table:
            for line in list(table)[1:]:
                local, remote, state = line.split()[1:4]
                if int(remote.split(":")[1], 16) == port and state == "01":
                    found.append(socket.inet_ntoa(bytes.fromhex(local.split(":")[0])[::-1]))
        return found

    def call(self, method, payload=None):
        return self.private.call(method, payload or {}, service=SERVICE)
