# SPDX-License-Identifier: GPL-3.0-only
"""An XMPP server that answers most requests, at random, and sends stanzas that nobody asked for."""

import re
import select
import sys
import threading

from stage import ROOT

sys.path.insert(0, str(ROOT / "bench"))
from item_server import LoginServer  # noqa: E402


class FuzzServer(LoginServer):
    """Accepts every client, one at a time, until it is closed."""

    def __init__(self, fuzz):
        super().__init__()
        self._fuzz = fuzz
        self._ends = threading.Event()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def close(self):
        self._ends.set()
        self._thread.join()
        self.close_listener()

    def _run(self):
        while not self._ends.is_set():
            if not select.select([self._listener], [], [], 0.05)[0]:
                continue
            try:
                self.log_in()
                self._serve()
            except (OSError, EOFError):
                pass
            finally:
                self._socket.close()

    def _serve(self):
        fuzz, heard = self._fuzz, self._buffer
        self._buffer = b""
        while not self._ends.is_set():
            if select.select([self._socket], [], [], 0.005)[0]:
                data = self._socket.recv(65536)
                if not data:
                    return
                heard += data
            requests = re.findall(rb"<iq[^>]*\bid='([^']*)'", heard)
            fuzz.nodes += [node.decode() for node in re.findall(rb"\b(?:node|id)='(/[^']*)'", heard)]
            heard = heard[heard.rfind(b">") + 1:]
            for request in requests:
                if fuzz.random.random() < 0.9:
                    self._send(fuzz.answer(request.decode()))
            if fuzz.random.random() < 0.5:
                self._send("".join(fuzz.stanza() for _ in range(fuzz.random.randrange(1, 6))))
            if fuzz.random.random() < 0.002:
                self._send(fuzz.random.choice(("<a", "</stream:stream>", "\0", "<a></b>", "<stream:error/>")))
                return
