# SPDX-License-Identifier: GPL-3.0-only
"""A device whose account is on Prosody, a server without the device extension, with its push provider.

    stage = PushStage(ttl=86400).up()     # as a Stage; stage.prosody is the server
"""

import os
import socket
import subprocess

from stage import USER, Device, Stage, parse_assignments, processes, wait_until

from device import private_text  # noqa: E402  # stage has made its folder known

CONFIGURATION = """
run_as_root = true
pidfile = "{folder}/prosody.pid"
data_path = "{folder}/data"
plugin_paths = {{ "/usr/lib/prosody/modules" }}
interfaces = {{ "127.0.0.1" }}
c2s_ports = {{ {c2s} }}
http_ports = {{ {http} }}
https_ports = {{ }}
http_external_url = "http://localhost:{http}/"
modules_enabled = {{ "roster", "saslauth", "tls", "disco", "ping", {modules} }}
modules_disabled = {{ "s2s" }}
unified_push_registration_ttl = {ttl}
authentication = "internal_plain"
c2s_require_encryption = true
log = {{ {{ levels = {{ min = "debug" }}, to = "console" }} }}
VirtualHost "localhost"
    ssl = {{ key = "{folder}/tls/server.key", certificate = "{folder}/tls/server.crt" }}
{more}
"""


def free_ports(count):
    sockets = [socket.socket() for _ in range(count)]
    for each in sockets:
        each.bind(("127.0.0.1", 0))
    ports = [each.getsockname()[1] for each in sockets]
    for each in sockets:
        each.close()
    return ports


def openssl(*words):
    subprocess.run(["openssl", *map(str, words)], check=True, capture_output=True)


class Prosody:
    """The server of one folder. `provider` says where the push provider is: the account's domain, a component of
    it, or nowhere."""

    def __init__(self, device, ttl=86400, provider="localhost"):
        self.device, self.folder, self.ttl, self.provider = device, device.path("server"), ttl, provider
        self.c2s, self.http = free_ports(2)

    def make(self):
        for name in ("tls", "data/localhost/accounts"):
            self.folder.joinpath(name).mkdir(parents=True, exist_ok=True)
        self._make_certificate()
        self.folder.joinpath("server.env").write_text(
            f"XMPP_HOST=127.0.0.1\nXMPP_PORT={self.c2s}\nXMPP_DOMAIN=localhost\nPUBSUB_JID=pubsub.localhost\n"
            f"CA_FILE={self.folder}/tls/ca.crt\n", encoding="utf-8")

    def _make_certificate(self):
        tls = self.folder / "tls"
        key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
        openssl("req", "-x509", *key, "-keyout", tls / "ca.key", "-out", tls / "ca.crt", "-days", 2, "-subj",
                "/CN=private test authority")
        openssl("req", "-new", *key, "-keyout", tls / "server.key", "-out", tls / "server.csr", "-subj",
                "/CN=localhost")
        tls.joinpath("server.ext").write_text("subjectAltName=DNS:localhost\n", encoding="ascii")
        openssl("x509", "-req", "-in", tls / "server.csr", "-CA", tls / "ca.crt", "-CAkey", tls / "ca.key",
                "-CAcreateserial", "-days", 2, "-extfile", tls / "server.ext", "-out", tls / "server.crt")

    def account(self, user, password):
        private_text(self.folder / "data" / "localhost" / "accounts" / (user + ".dat"),
                     f'return {{ ["password"] = "{password}" }};\n')

    def start(self):
        modules, more = '"http"', ""
        if self.provider == "localhost":
            modules += ', "unified_push"'
        elif self.provider:
            more = f'Component "{self.provider}" "unified_push"\n    http_host = "localhost"\n'
        configuration = self.folder / "prosody.cfg.lua"
        configuration.write_text(CONFIGURATION.format(
            folder=self.folder, c2s=self.c2s, http=self.http, ttl=self.ttl, modules=modules, more=more),
            encoding="utf-8")
        self.device.start("server", ["prosody", "-F", "--config", configuration])
        wait_until(self._listens, "Prosody to listen")

    def _listens(self):
        for port in (self.c2s, self.http):
            try:
                socket.create_connection(("127.0.0.1", port), 5).close()
            except OSError:
                return False
        return True

    def stop(self):
        processes.stop(self.device.record("server"))


class ProsodyDevice(Device):
    """A device with Prosody in the place of its server."""

    def __init__(self, folder, **options):
        super().__init__(folder)
        self.prosody = Prosody(self, **options)

    def ground(self, *_server_options):
        for name in ("run/dbus-services", "log", "state", "prefs", "host", "applications"):
            self.path(name).mkdir(parents=True, exist_ok=True)
        for name in ("prefs", "host"):
            self.path(name).chmod(0o700)
        self.start_bus("private", self.path("run", "dbus-services"))
        self.start_bus("public")
        self.prosody.make()
        self.prosody.start()
        self.path("machine-id").write_text(os.urandom(16).hex(), encoding="ascii")

    def _server(self, log, verb, *arguments):
        if verb == "account":
            self.prosody.account(USER, arguments[-1])
        elif verb == "down":
            self.prosody.stop()
        return 0


class PushStage(Stage):
    def __init__(self, **options):
        super().__init__()
        self.device = ProsodyDevice(self.dir, **options)
        self.prosody = self.device.prosody

    def up(self):
        try:
            self.device.up()
        except BaseException:
            print(self.logs(), flush=True)
            raise
        self.env = parse_assignments(self.path("env").read_text(encoding="utf-8"))
        self.service_pid = int(self.env["SERVICE_PID"])
        return self

    def down(self):
        self.device.down()
        super().down()

    def kill_server(self):
        self.prosody.stop()

    def start_server(self):
        self.prosody.start()
