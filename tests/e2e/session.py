# SPDX-License-Identifier: GPL-3.0-only
"""A user's session beside a stage: its bus, the bridge to the device, and applications that the bus can start.

Each application is a process of one of three D-Bus implementations; it writes a line for each thing that happens to a
log, which the tests read.
"""

import os
import pathlib
import shlex
import subprocess

import dbus
import dbus.bus

from stage import BIN, is_running, processes, wait_until

HERE = pathlib.Path(__file__).resolve().parent
DISTRIBUTOR = "org.unifiedpush.Distributor.pubsubservice"
DESKTOP = "com.example.desktop"  # the application id of the user's processes


class Connector:
    """An application of the session. `command` is how it is run, with its name and its log."""

    def __init__(self, session, name, program):
        self.session, self.name = session, name
        self.log = session.path(name + ".log")
        self.command = [*map(str, program), name, str(self.log)]
        self._processes = []

    def lines(self):
        return self.log.read_text(encoding="utf-8").splitlines() if self.log.exists() else []

    def start(self, *words):
        process = subprocess.Popen([*self.command, *words], env=self.session.environment(), stdin=subprocess.DEVNULL,
                                   stderr=open(self.session.path(self.name + ".err"), "ab"))
        self._processes.append(process)
        return process

    def can_be_started(self, *words):
        """From now on the bus starts it when it is called."""
        self.session.install(self.name, [*self.command, *words])

    def wait(self, start, count=1, seconds=30):
        """Waits for the line number `count` that begins so, and returns its words."""
        def found():
            matching = [line for line in self.lines() if line.startswith(start)]
            return matching[count - 1] if len(matching) >= count else None
        return wait_until(found, f"{self.name}: {start!r} number {count} in {self.lines()}", seconds).split(" ")

    def messages(self):
        """The bytes of all messages, in their order."""
        return [bytes.fromhex(line.split(" ")[2].replace("-", "")) for line in self.lines()
                if line.startswith("message ")]

    def address(self, token, count=1):
        """The address that it was told for the token."""
        return self.wait(f"NewEndpoint {token} ", count)[2]

    def kill(self):
        for process in self._processes:
            process.kill()
            process.wait()
        self._processes = []


class Session:
    """The session of one user of the stage."""

    def __init__(self, stage):
        self.stage, self.device = stage, stage.device
        self._bridge = None
        for name in ("session", "session/started", "session/state"):
            self.stage.path(name).mkdir(exist_ok=True)
        self.device.start_bus("session", self.path("started"))
        self.address = self.stage.path("run", "session.address").read_text(encoding="utf-8").strip()
        self.bus = dbus.bus.BusConnection(self.address)
        self.connectors = []

    def path(self, *parts):
        return self.stage.path("session", *parts)

    def environment(self, **extra):
        return dict(self.device.environment(), DBUS_SESSION_BUS_ADDRESS=self.address,
                    XDG_STATE_HOME=str(self.path("state")), ZELT_APP_ID=DESKTOP,
                    PYTHONDONTWRITEBYTECODE="1", **extra)

    def has_name(self, name):
        return bool(self.bus.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                           "NameHasOwner", "s", (name,)))

    def launch_bridge(self):
        self._bridge = self.device.start("unifiedpush", [BIN / "zelt-unifiedpush"], self.environment())

    def start_bridge(self):
        self.launch_bridge()
        wait_until(lambda: self.has_name(DISTRIBUTOR), "the bridge on the session bus")

    def kill_bridge(self):
        self._bridge.kill()
        self._bridge.wait()

    def install(self, name, command):
        """Writes an activation file; the bus looks at the folder by itself."""
        self.path("started", name + ".service").write_text(
            f"[D-BUS Service]\nName={name}\nExec={shlex.join(command)}\n", encoding="utf-8")
        self.bus.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "ReloadConfig", "", ())

    def connector(self, name, program=None):
        connector = Connector(self, name, program or ["/usr/bin/python3", HERE / "connectornext.py"])
        self.connectors.append(connector)
        return connector

    def sd_bus_program(self):
        """Compiles the application on sd-bus."""
        program = self.path("connectorsd")
        if not program.exists():
            flags = subprocess.run(["pkg-config", "--cflags", "--libs", "libsystemd"], capture_output=True, text=True,
                                   check=True).stdout.split()
            subprocess.run(["cc", str(HERE / "connectorsd.c"), "-o", str(program), *flags], check=True)
        return [program]

    def end_applications(self):
        """Also those that the bus has started."""
        for connector in self.connectors:
            connector.kill()
        for name in [connector.name for connector in self.connectors]:
            self.end(name)

    def end(self, name):
        """Kills the process that has the name."""
        if not self.has_name(name):
            return
        pid = int(self.bus.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                         "GetConnectionUnixProcessID", "s", (name,)))
        os.kill(pid, 9)
        wait_until(lambda: not is_running(pid), f"{name} to end")

    def close(self):
        self.end_applications()
        if self._bridge:
            self._bridge.terminate()
            self._bridge.wait()
        self.bus.close()
        processes.stop(self.device.record("session-bus"))


