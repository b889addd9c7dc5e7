# SPDX-License-Identifier: GPL-3.0-only
"""A message broker of Debian, as the reference of how fast an item can reach its receiver."""

import getpass
import pathlib
import socket
import sys

import processes

PROGRAM = "/usr/sbin/mosquitto"


class Broker:
    """mosquitto in a folder of its own, on a free loopback port."""

    def __init__(self, folder):
        folder = pathlib.Path(folder)
        folder.mkdir()
        with socket.create_server(("127.0.0.1", 0)) as listener:
            self.port = listener.getsockname()[1]
        (folder / "mosquitto.conf").write_text(
            f"listener {self.port} 127.0.0.1\nallow_anonymous true\npersistence false\nuser {getpass.getuser()}\n",
            encoding="utf-8")
        self._record = folder / "mosquitto.pid"
        try:
            processes.start(self._record, folder / "mosquitto.log", [PROGRAM, "-c", folder / "mosquitto.conf"])
        except processes.Failed as error:
            sys.exit(str(error))
        if not processes.wait_ready(self._record, self._listens, 20):
            self.close()
            sys.exit("mosquitto did not start:\n" + (folder / "mosquitto.log").read_text(encoding="utf-8"))

    def _listens(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
            return True
        except OSError:
            return False

    def close(self):
        processes.stop(self._record)
