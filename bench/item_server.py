# SPDX-License-Identifier: GPL-3.0-only
"""A scripted XMPP server without TLS: it lets the service log in, sends items as fast as the service reads them,
and counts the acks."""

import re
import socket
import threading
import time

HEADER = ("<?xml version='1.0'?><stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' "
          "id='bench' from='localhost' version='1.0'><stream:features>{}</stream:features>")
SASL = "<mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><mechanism>PLAIN</mechanism></mechanisms>"
BIND = "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>"
PUBSUB = "pubsub.localhost"


def item(node, number, payload):
    return (f"<message from='{PUBSUB}' to='device@localhost/bench' id='m{number}'>"
            f"<event xmlns='http://jabber.org/protocol/pubsub#event'><items node='{node}'>"
            f"<item id='i{number}' seqNo='{number}'><payload>{payload}</payload></item></items></event></message>")


class LoginServer:
    """Listens on a free loopback port and lets one client at a time log in."""

    def __init__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._socket = None
        self._buffer = b""  # what was received after the last match

    def close_listener(self):
        self._listener.close()

    def _receive(self, pattern):
        while True:
            found = re.search(pattern, self._buffer, re.DOTALL)
            if found:
                self._buffer = self._buffer[found.end():]
                return found
            data = self._socket.recv(65536)
            if not data:
                raise EOFError("the service closed the stream")
            self._buffer += data

    def log_in(self):
        """Answers the login of the service: stream, SASL, bind, until its directed presence."""
        self._listener.settimeout(30)
        self._socket, _ = self._listener.accept()
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._buffer = b""
        self._receive(rb"<stream:stream[^>]*>")
        self._send(HEADER.format(SASL))
        self._receive(rb"<auth.*?(?:/>|</auth>)")
        self._send("<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>")
        self._receive(rb"<stream:stream[^>]*>")
        self._send(HEADER.format(BIND))
        bind = self._receive(rb"<iq[^>]*\bid=['\"]([^'\"]*)['\"][^>]*>\s*<bind.*?</iq>").group(1).decode()
        self._send(f"<iq type='result' id='{bind}'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>"
                   "<jid>device@localhost/bench</jid></bind></iq>")
        self._receive(rb"<presence.*?(?:/>|</presence>)")

    def _send(self, text):
        self._socket.sendall(text.encode())


class ItemServer(LoginServer):
    """Sends items to its client and counts the acknowledgements."""

    def __init__(self):
        super().__init__()
        self._acks = 0
        self._changed = threading.Condition()

    def login(self):
        self.log_in()
        threading.Thread(target=self._count_acks, daemon=True).start()

    def _count_acks(self):
        tail = self._buffer
        while True:
            pieces = tail.split(b"<ack ")
            with self._changed:
                self._acks += len(pieces) - 1
                self._changed.notify_all()
            tail = pieces[-1][-8:]
            data = self._socket.recv(1 << 20)
            if not data:
                return
            tail += data

    def push(self, node, first, count, payload):
        """Sends `count` items numbered from `first`; returns (start, end) when all are acknowledged."""
        text = "".join(item(node, number, payload) for number in range(first, first + count)).encode()
        goal = self._acks + count
        start = time.monotonic()
        self._socket.sendall(text)
        with self._changed:
            if not self._changed.wait_for(lambda: self._acks >= goal, timeout=120):
                raise AssertionError(f"{goal - self._acks} of {count} items were not acknowledged")
        return start, time.monotonic()
