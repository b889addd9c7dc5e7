#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
"""A whole device in a folder: two buses, an XMPP server, the host services and the service.

    scripts/device.py up DIR         starts everything; returns when the service is connected
    scripts/device.py session DIR    starts the session of a user on it: a session bus, and push messages for its
                                     applications
    scripts/device.py running DIR    whether a process of the folder runs, as an exit status
    scripts/device.py down DIR       stops everything
    scripts/device.py host DIR       becomes the host daemon; the private bus runs this for a service that is not there

The folder holds run/ (sockets and process records), log/NAME.log, state/ (the service's files), prefs/, host/,
applications/, server/ (the XMPP server), session/ (state/ and data/ of the user's applications), machine-id, and env
with shell assignments for scripts.

PUBSUB_PRESET names the build; STAGE_LOGIN=file has the service log in by its file instead of the device's account;
STAGE_OPEN_PREFIXES ('["/a", ...]') opens the names below them to all accounts; STAGE_DEADLINE is the time for the
connection, in seconds; STAGE_HOST_SETTINGS is further text of host.conf.
"""

import json
import os
import pathlib
import secrets
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import urllib.parse
from xml.sax.saxutils import escape

sys.dont_write_bytecode = True  # it may run from a tree that belongs to somebody else
import processes  # noqa: E402
from processes import Failed  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parent.parent
PRESET = os.environ.get("PUBSUB_PRESET", "release")
BIN = ROOT / "build" / PRESET / "bin"
SERVER = ROOT / "ejabberd" / "run"
USER = "device"
DESKTOP = "com.example.desktop"  # the application id of the processes of the session
# What the host daemon owns; on a machine with systemd its unit is always there.
HOST_NAMES = [f"com.zelt.{name}" for name in ("accountservices", "appinstaller", "connectionmanager", "host", "power",
                                              "systemmanager")]
DISTRIBUTOR = "org.unifiedpush.Distributor.pubsubservice"
# A socket's path holds at most 107 bytes; a deeper folder gets its sockets in a temporary folder.
LONGEST_SOCKET_FOLDER = 90


def no_log(_text):
    pass


def parse_assignments(text):
    """The values of lines NAME=VALUE, quoted as for a shell."""
    pairs = (line.partition("=") for line in text.splitlines())
    return {name: "".join(shlex.split(value)) for name, _, value in pairs}


def assignments(values):
    """Lines NAME=VALUE for a shell."""
    return "".join(f"{name}={shlex.quote(str(value or ''))}\n" for name, value in values.items())


def private_text(path, text):
    """A file that only its owner reads."""
    with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w", encoding="utf-8") as file:
        file.write(text)


class Device:
    """The processes of one folder. `log` is called with each step that is begun."""

    # In the order of their end.
    PROCESSES = ("unifiedpush", "session-bus", "service", "host", "public-bus", "private-bus")

    def __init__(self, folder, log=no_log):
        self.folder = pathlib.Path(os.path.abspath(folder))
        self._log = log

    def path(self, *parts):
        return self.folder.joinpath(*parts)

    def record(self, name):
        return self.path("run", name + ".pid")

    def log_file(self, name):
        return self.path("log", name + ".log")

    def pid(self, name):
        """The id of a process of the folder, or None when it does not run."""
        return processes.running(self.record(name))

    # ---- what the processes are told

    def places(self):
        """Where programs find the buses and the preferences."""
        return {
            "ZELT_PRIVATE_BUS": self._address("private"),
            "ZELT_PUBLIC_BUS": self._address("public"),
            "ZELT_PREFS_DIR": str(self.path("prefs")),
        }

    def environment(self):
        """The environment of the host daemon and of pubsubctl."""
        return dict(
            os.environ, **self.places(),
            PUBSUB_STATE_DIR=str(self.path("state")), PUBSUB_CA_FILE=str(self.path("server", "tls", "ca.crt")),
            ZELT_HOST_STATE_DIR=str(self.path("host")), ZELT_HOST_CONF=str(self.path("host", "host.conf")),
            ZELT_MACHINE_ID_FILE=str(self.path("machine-id")))

    def service_environment(self):
        """On a developer's machine applications name themselves."""
        return dict(self.environment(), ZELT_APP_ID_FROM_ENVIRONMENT="1")

    def session_folders(self):
        """Where the applications of the session keep their files."""
        return {"XDG_STATE_HOME": str(self.path("session", "state")), "XDG_DATA_HOME": str(self.path("session", "data"))}

    def server_assignments(self):
        return parse_assignments(self.path("server", "server.env").read_text(encoding="utf-8"))

    def write_env(self):
        """Writes DIR/env, for scripts and tests."""
        values = {
            **self.places(), "STATE_DIR": self.path("state"), **self.server_assignments(), "DEVICE_USER": USER,
            "DEVICE_RESOURCE": self._ctl("call", "getResource")["resource"],
            "SERVICE_PID": self.pid("service"), "HOST_PID": self.pid("host")}
        self.path("env").write_text(assignments(values), encoding="utf-8")

    # ---- the processes

    def start(self, name, command, environment=None):
        """Starts a process of the folder with its record and its log; returns its Popen."""
        for folder in ("run", "log"):
            self.path(folder).mkdir(parents=True, exist_ok=True)
        return processes.start(self.record(name), self.log_file(name), command, env=environment)

    def start_bus(self, bus, activation_files=None, environment=None):
        """Starts a bus; a folder of activation files lets it start services, in its own environment."""
        sockets = self._socket_folder()
        extra = f"<servicedir>{escape(str(activation_files))}</servicedir>" if activation_files else ""
        template = (ROOT / "packaging" / "dbus" / "zelt-dev.conf.in").read_text(encoding="utf-8")
        configuration, socket = self.path("run", bus + ".conf"), sockets / (bus + "_bus")
        configuration.write_text(
            template.replace("@DIR@", address_escaped(sockets)).replace("@BUS@", bus)
            .replace("@EXTRA@", extra), encoding="utf-8")
        socket.unlink(missing_ok=True)
        process = self.start(bus + "-bus", ["dbus-daemon", f"--config-file={configuration}", "--nofork",
                                            "--nopidfile", "--nosyslog"], environment)
        self._wait(10, f"the {bus} bus to listen", socket.is_socket, bus + "-bus")
        self.path("run", bus + ".address").write_text(f"unix:path={address_escaped(socket)}\n", encoding="utf-8")
        return process

    def start_host(self):
        """The service must not find its neighbours missing, or the bus would start a second host daemon."""
        self.start("host", [BIN / "zelt-host"], self.environment())
        self._wait(20, "the host services to be on the bus", lambda: self._has_name("private", "com.zelt.host"), "host")

    def start_session(self):
        """A user who has logged in. Called after `up`."""
        if self.pid("unifiedpush"):
            return
        for name in ("state", "data/dbus-1/services"):
            self.path("session", name).mkdir(parents=True, exist_ok=True)
        self._log("A user logs in: a session bus, and the bridge that brings push messages to desktop applications")
        # The bus gives its environment and its address to the applications that it starts.
        self.start_bus("session", self.path("session", "data", "dbus-1", "services"),
                       dict(os.environ, PYTHONDONTWRITEBYTECODE="1", **self.session_folders()))
        session = dict(self.session_folders(), DBUS_SESSION_BUS_ADDRESS=self._address("session"))
        self.start("unifiedpush", [BIN / "zelt-unifiedpush"], dict(self.environment(), ZELT_APP_ID=DESKTOP, **session))
        self._wait(20, "zelt-unifiedpush to be on the session bus", lambda: self._has_name("session", DISTRIBUTOR),
                   "unifiedpush")
        with open(self.path("env"), "a", encoding="utf-8") as env:
            env.write(assignments({**session, "BRIDGE_PID": self.pid("unifiedpush")}))

    def start_service(self, **extra):
        return self.start("service", [BIN / "pubsubservice"], dict(self.service_environment(), **extra))

    def become_host(self):
        """Replaces this process by the host daemon, for the private bus. A host daemon that runs keeps its record:
        the bus starts one for each service that is called, and all but one end at once."""
        if not self.pid("host"):
            processes.write_record(self.record("host"), os.getpid())
        with open(self.log_file("host"), "ab") as log:
            os.dup2(log.fileno(), 1)
            os.dup2(log.fileno(), 2)
        os.execve(BIN / "zelt-host", ["zelt-host"], self.environment())

    # ---- the whole

    def ground(self, *server_options):
        """The folders, both buses and the XMPP server, which gets the options. Nobody is on the buses yet, and the
        private bus starts nobody."""
        for name in ("run/dbus-services", "log", "state", "prefs", "host", "applications"):
            self.path(name).mkdir(parents=True, exist_ok=True)
        for name in ("prefs", "host"):
            self.path(name).chmod(0o700)
        self._log("Starting the private and the public bus")
        self.start_bus("private", self.path("run", "dbus-services"))
        self.start_bus("public")

        self._log("Starting the XMPP server (ejabberd with the device extension)")
        prefixes = os.environ.get("STAGE_OPEN_PREFIXES")
        if prefixes:
            server_options = ("--option", "open_prefixes=" + prefixes, *server_options)
        log = self.log_file("server-start")
        log.unlink(missing_ok=True)
        if self._server(log, "up", self.path("server"), *server_options):
            sys.stderr.write(last_lines(log, 20))
            raise Failed("The XMPP server did not start.")
        link = self.log_file("server")
        link.unlink(missing_ok=True)
        link.symlink_to(os.path.join("..", "server", "log", "server.log"))
        self.path("machine-id").write_text(secrets.token_hex(16), encoding="ascii")

    def up(self):
        """Everything, in order; returns when the service is connected. What fails, or is interrupted, is stopped."""
        try:
            self.ground()
            self._make_account(secrets.token_hex(12))
            self._log("Starting the Linux host services")
            self.start_host()
            self._log("Starting pubsubservice")
            self.start_service()
            self._wait(int(os.environ.get("STAGE_DEADLINE") or 60),
                       f"pubsubservice to connect (logs: {self.path('log')})", self._is_connected, "service")
            self.write_env()
        except BaseException as error:
            for number in (signal.SIGINT, signal.SIGTERM):
                signal.signal(number, signal.SIG_IGN)  # who presses Ctrl-C twice wants everything stopped all the more
            if isinstance(error, Failed):
                self._show_logs()
            self.down()
            raise

    def down(self):
        for name in self.PROCESSES:
            processes.stop(self.record(name))
        if self.path("server").is_dir():
            self._server(os.devnull, "down", self.path("server"))
        short = self.path("run", "short-folder")
        if short.exists():
            shutil.rmtree(short.read_text(encoding="utf-8"), ignore_errors=True)
            short.unlink()

    # ---- parts

    def _socket_folder(self):
        folder, short = self.path("run"), self.path("run", "short-folder")
        folder.mkdir(parents=True, exist_ok=True)
        if len(os.fsencode(folder)) <= LONGEST_SOCKET_FOLDER:
            return folder
        if not short.exists():
            short.write_text(tempfile.mkdtemp(prefix="pubsub-"), encoding="utf-8")
        return pathlib.Path(short.read_text(encoding="utf-8"))

    def _address(self, bus):
        return self.path("run", bus + ".address").read_text(encoding="utf-8").strip()

    def _server(self, log, verb, *arguments):
        return processes.call(log, [SERVER, verb, *arguments], stdin=subprocess.DEVNULL)

    def _make_account(self, password):
        server, by_file = self.server_assignments(), os.environ.get("STAGE_LOGIN") == "file"
        start_log, host_log = self.log_file("server-start"), self.log_file("host")
        if self._server(start_log, "account", self.path("server"), USER, password):
            raise Failed(f"The account could not be registered; see {start_log}.")
        if by_file:
            # JID, password, host, port, pub-sub service, resource: one a line.
            private_text(self.path("state", "pubsub.conf"), "\n".join(
                (f"{USER}@{server['XMPP_DOMAIN']}", password, server["XMPP_HOST"], server["XMPP_PORT"],
                 server["PUBSUB_JID"], "dev1", "")))
        applications = str(self.path("applications")).replace("\\", "\\\\")
        self.path("host", "host.conf").write_text(
            f"[network]\nloopback-is-internet=true\n[applications]\nfolder={applications}\n"
            + os.environ.get("STAGE_HOST_SETTINGS", ""), encoding="utf-8")
        self._write_activation_files()
        if by_file:
            return
        with open(host_log, "ab") as log:
            done = subprocess.run(
                [BIN / "zelt-host", "account", "set", "--user", USER, "--service", server["XMPP_DOMAIN"], "--url",
                 server["XMPP_HOST"], "--port", server["XMPP_PORT"]], env=self.environment(), input=password + "\n",
                text=True, stdout=log, stderr=log, check=False)
        if done.returncode:
            raise Failed(f"The device's account could not be stored; see {host_log}.")

    def _write_activation_files(self):
        """From now on the private bus starts the host daemon when it is called and is not there."""
        command = shlex.join(["/usr/bin/python3", str(pathlib.Path(__file__).resolve()), "host", str(self.folder)])
        command = command.replace("\\", "\\\\").replace("\n", "\\n")  # as in every value of such a file
        for name in HOST_NAMES:
            text = f"[D-BUS Service]\nName={name}\nExec={command}\n"
            self.path("run", "dbus-services", name + ".service").write_text(text, encoding="utf-8")

    def _ctl(self, *arguments):
        """The JSON object that pubsubctl prints, or none when it fails."""
        done = subprocess.run([BIN / "pubsubctl", "--json", "--timeout", "5", *arguments], env=self.environment(),
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                              check=False)
        return json.loads(done.stdout.splitlines()[0]) if done.returncode == 0 else {}

    def _is_connected(self):
        return self._ctl("status").get("connected") is True

    def _has_name(self, bus, name):
        done = subprocess.run(
            ["dbus-send", "--bus=" + self._address(bus), "--print-reply=literal", "--dest=org.freedesktop.DBus",
             "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner", "string:" + name],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
        return "true" in done.stdout

    def _wait(self, seconds, what, condition, name):
        """Waits for a condition that the named process brings about. Without any time for it, it does not hold."""
        if seconds and processes.wait_ready(self.record(name), condition, seconds):
            return
        if not self.pid(name):
            raise Failed(f"The {name} process ended at its start; see {self.log_file(name)}.")
        raise Failed(f"Timed out: {what}")

    def _show_logs(self):
        for path in sorted(self.path("log").glob("*.log")):
            if path.exists():  # the server's is a link
                sys.stderr.write(f"==> {path} <==\n{last_lines(path, 15)}\n")


def address_escaped(path):
    """A path as it stands in the address of a bus."""
    return urllib.parse.quote(os.fsencode(path), safe="/").replace("~", "%7E")


def last_lines(path, count):
    with open(path, encoding="utf-8", errors="replace") as file:
        return "".join(file.readlines()[-count:])


def print_step(text):
    print(f"\n\033[1m==> {text}\033[0m", flush=True)


def main(arguments):
    if len(arguments) != 2 or arguments[0] not in ("up", "session", "running", "down", "host"):
        sys.stderr.write(__doc__)
        return 2
    verb, device = arguments[0], Device(arguments[1], print_step)
    if verb == "running":
        return 0 if any(map(device.pid, device.PROCESSES)) else 1
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    try:
        {"up": device.up, "session": device.start_session, "down": device.down, "host": device.become_host}[verb]()
    except Failed as error:
        sys.stderr.write(f"{error}\n")
        return 1
    except KeyboardInterrupt:  # the caller, which may be a shell, has to see that it was interrupted
        signal.signal(signal.SIGINT, signal.SIG_DFL)
        signal.raise_signal(signal.SIGINT)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
