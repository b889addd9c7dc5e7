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


class KeptItems:
    """What the server does for nodes with a limit of one item: it sends a node's next item when the one before is
    acknowledged. `answer` takes what a client sent and returns what goes back; other requests succeed."""

    STANZA = re.compile(rb"<iq [^>]*?\bid='([^']*)'[^>]*>(.*?)</iq>|"
                        rb"<message [^>]*><ack [^>]*?\bnode='([^']*)'[^>]*/></message>", re.DOTALL)
    NODE = re.compile(rb"<(create-key-node|activate|deactivate|node)\b[^>]*?\b(?:node|id)='([^']*)'")

    def __init__(self, payload):
        self._payload = payload
        self._left = []     # numbers of the items that were not sent, the next one last
        self._active = {}   # node -> whether an item of it is open
        self._rest = b""
        self.acknowledged = 0

    def is_active(self, nodes):
        return all(node in self._active for node in nodes)

    def keep(self, first, count):
        """Has so many items more; returns what is to be sent at once."""
        self._left[:0] = range(first + count - 1, first - 1, -1)
        return "".join(self._next(node) for node, is_open in list(self._active.items()) if not is_open).encode()

    def _next(self, node):
        self._active[node] = bool(self._left)
        return item(node, self._left.pop(), self._payload) if self._left else ""

    def answer(self, data):
        self._rest += data
        out, end = [], 0
        for found in self.STANZA.finditer(self._rest):
            end = found.end()
            if found[3] is None:
                out.append(self._result(found[1].decode(), found[2]))
            else:
                self.acknowledged += 1
                out.append(self._next(found[3].decode()))
        self._rest = self._rest[end:]
        return "".join(out).encode()

    def _result(self, identity, content):
        inside, items = "", ""
        for what, name in self.NODE.findall(content):
            node = name.decode()
            if what == b"create-key-node":
                inside = f"<key xmlns='urn:zelt:pubsub:device:0' node='{node}'>KEY</key>"
            elif what == b"deactivate":
                self._active.pop(node, None)
            else:
                items += self._next(node)
        return f"<iq type='result' id='{identity}' from='{PUBSUB}'>{inside}</iq>{items}"


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
        self._kept = None
        self._changed = threading.Condition()

    def login(self):
        self.log_in()
        threading.Thread(target=self._count_acks, daemon=True).start()

    def _count_acks(self):
        tail = self._buffer
        while not self._kept:
            pieces = tail.split(b"<ack ")
            with self._changed:
                self._acks += len(pieces) - 1
                self._changed.notify_all()
            tail = pieces[-1][-8:]
            data = self._socket.recv(1 << 20)
            if not data:
                return
            tail += data
        self._serve_kept(tail)

    def _serve_kept(self, data):
        """The same for items that are kept until they are acknowledged, for good."""
        while data:
            with self._changed:
                self._socket.sendall(self._kept.answer(data))
                self._changed.notify_all()
            data = self._socket.recv(1 << 20)

    def keep_items(self, payload):
        """From the next stanza on, answers requests, and sends kept items alone."""
        self._kept = KeptItems(payload)

    def push_kept(self, nodes, first, count):
        """Has so many items for these nodes and sends them one at a time; returns the time at which it began."""
        with self._changed:
            if not self._changed.wait_for(lambda: self._kept.is_active(nodes), timeout=30):
                raise AssertionError("the nodes were not activated")
            start = time.monotonic()
            self._socket.sendall(self._kept.keep(first, count))
        return start

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


class AckServer:
    """Has kept items for one client that does not log in."""

    def __init__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]

    def run(self, count, payload):
        """Until the client, which activates its nodes at once, has acknowledged so many items."""
        self._listener.settimeout(30)
        client, _ = self._listener.accept()
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        kept = KeptItems(payload)
        client.sendall(kept.answer(client.recv(1 << 20)))
        client.sendall(kept.keep(1, count))
        while kept.acknowledged < count:
            client.sendall(kept.answer(client.recv(1 << 20)))
        client.close()
        self._listener.close()
