# SPDX-License-Identifier: GPL-3.0-only
"""An XMPP server that answers most requests and says a lot that nobody asked for."""

import re
import select
import sys
import threading

from stage import ROOT

sys.path.insert(0, str(ROOT / "bench"))
from item_server import LoginServer  # noqa: E402


class RubbishServer(LoginServer):
    """Logs every client in that comes, answers most of its requests and sends what nobody asked for."""

    def __init__(self, rubbish):
        super().__init__()
        self._rubbish = rubbish
        self._ends = threading.Event()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def close(self):
        self._ends.set()
        self._thread.join()
        self.shut()

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
        rubbish, heard = self._rubbish, self._buffer
        self._buffer = b""
        while not self._ends.is_set():
            if select.select([self._socket], [], [], 0.005)[0]:
                data = self._socket.recv(65536)
                if not data:
                    return
                heard += data
            requests = re.findall(rb"<iq[^>]*\bid='([^']*)'", heard)
            rubbish.nodes += [node.decode() for node in re.findall(rb"\b(?:node|id)='(/[^']*)'", heard)]
            heard = heard[heard.rfind(b">") + 1:]
            for request in requests:
                if rubbish.random.random() < 0.9:
                    self._send(rubbish.answer(request.decode()))
            if rubbish.random.random() < 0.5:
                self._send("".join(rubbish.stanza() for _ in range(rubbish.random.randrange(1, 6))))
            if rubbish.random.random() < 0.002:
                self._send(rubbish.random.choice(("<a", "</stream:stream>", "\0", "<a></b>", "<stream:error/>")))
                return
