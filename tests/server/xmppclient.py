# SPDX-License-Identifier: GPL-3.0-only
"""A small XMPP client for tests: STARTTLS, SASL PLAIN, bind, and stanzas as ElementTree elements.

    server = Server.from_env("/tmp/x/server.env")
    alice = connect(server, "alice", "secret", "phone")
    alice.iq("set", "<pubsub xmlns='...'>...</pubsub>")       # waits for the answer, an element
    alice.wait_message(lambda m: item(m) and item(m).node == "/n")
    alice.close()                                             # or kill(): the connection is reset

A reader thread dispatches stanzas: answers to iq(), requests (pings are answered), and the rest, which is queued for
wait_message() and wait_presence(). Every wait has a deadline; after it, the error lists what was received instead.
"""
import base64
import collections
import shlex
import socket
import ssl
import struct
import threading
import time
import xml.etree.ElementTree as ET
from xml.sax.saxutils import escape, quoteattr

CLIENT = "{jabber:client}"
DEVICE = "urn:zelt:pubsub:device:0"
EVENT = "http://jabber.org/protocol/pubsub#event"
PUBSUB = "http://jabber.org/protocol/pubsub"
OWNER = "http://jabber.org/protocol/pubsub#owner"
CONFIG = "http://jabber.org/protocol/pubsub#node_config"
DATA = "jabber:x:data"
STANZAS = "{urn:ietf:params:xml:ns:xmpp-stanzas}"
DEADLINE = 15

Item = collections.namedtuple("Item", "node id seq_no text")


class Server:
    """The addresses of a server, from the assignments that `ejabberd/run up` writes."""

    def __init__(self, host, port, domain, pubsub, ca_file):
        self.host, self.port, self.domain, self.pubsub, self.ca_file = host, int(port), domain, pubsub, ca_file

    @classmethod
    def from_env(cls, path):
        with open(path) as file:
            known = dict(shlex.split(line)[0].split("=", 1) for line in file if line.strip())
        server = cls(known["XMPP_HOST"], known["XMPP_PORT"], known["XMPP_DOMAIN"], known["PUBSUB_JID"],
                     known["CA_FILE"])
        server.env = known
        return server


class Closed(Exception):
    """The stream ended."""


def connect(server, user, password, resource=None, presence=None):
    """Logs in. `presence` is the content of an initial presence, "" for an empty one, None for no presence at all."""
    client = Client(server, user, password, resource)
    if presence is not None:
        client.send("<presence>%s</presence>" % presence)
    return client


class Client:
    def __init__(self, server, user, password, resource=None):
        self.server = server
        self.trace = None  # a list put here gets every stanza in the order of arrival
        self._lock = threading.Condition()
        self._send_lock = threading.Lock()
        self._answers = {}
        self._inbox = []
        self._ended = None
        self._count = 0
        self._socket = socket.create_connection((server.host, server.port), DEADLINE)
        self._login(user, password)
        self._start_stream()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        self._wait(lambda each: each.tag.endswith("}features"), DEADLINE)
        wanted = "<resource>%s</resource>" % escape(resource) if resource else ""
        bound = self.iq("set", "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>%s</bind>" % wanted, to=None)
        self.jid = bound.findtext(".//{urn:ietf:params:xml:ns:xmpp-bind}jid")
        self.bare = self.jid.split("/")[0]

    # ---- sending

    def send(self, text):
        """Sends a stanza, or any other text, unchanged."""
        with self._send_lock:
            self._socket.sendall(text.encode() if isinstance(text, str) else text)

    def iq(self, kind, payload, to="pubsub", deadline=DEADLINE):
        """Sends a request and returns the answer, whether a result or an error. None as `to` means the account."""
        number = self.send_iq(kind, payload, to)
        return self.wait_iq(number, deadline)

    def send_iq(self, kind, payload, to="pubsub"):
        with self._lock:
            self._count += 1
            number = "t%d" % self._count
            self._answers[number] = None
        if to == "pubsub":
            to = self.server.pubsub
        self.send("<iq type='%s' id='%s'%s>%s</iq>" % (kind, number, " to=%s" % quoteattr(to) if to else "", payload))
        return number

    def wait_iq(self, number, deadline=DEADLINE):
        end = time.monotonic() + deadline
        with self._lock:
            while self._answers[number] is None:
                self._sleep(end, "no answer to %s" % number)
            return self._answers.pop(number)

    def is_answered(self, number):
        """Whether the answer to the request has come, and was not taken yet."""
        with self._lock:
            return self._answers[number] is not None

    def sync(self):
        """Returns when everything that the server has sent to this session so far has been read."""
        self.iq("get", "<ping xmlns='urn:xmpp:ping'/>", to=self.server.domain)

    # ---- receiving

    def wait_message(self, predicate=None, deadline=DEADLINE):
        """Takes the oldest matching message out of the inbox, and waits if there is none yet."""
        return self._wait(lambda each: each.tag == CLIENT + "message" and (predicate is None or predicate(each)),
                          deadline)

    def wait_presence(self, predicate=None, deadline=DEADLINE):
        return self._wait(lambda each: each.tag == CLIENT + "presence" and (predicate is None or predicate(each)),
                          deadline)

    def unread(self):
        """How many stanzas wait in the inbox."""
        with self._lock:
            return len(self._inbox)

    def messages(self):
        """Takes all messages received so far."""
        with self._lock:
            found = [each for each in self._inbox if each.tag == CLIENT + "message"]
            self._inbox = [each for each in self._inbox if each.tag != CLIENT + "message"]
            return found

    def wait_end(self, deadline=DEADLINE):
        """Returns when the stream has ended."""
        end = time.monotonic() + deadline
        with self._lock:
            while self._ended is None:
                left = end - time.monotonic()
                if left <= 0:
                    raise AssertionError("the stream did not end")
                self._lock.wait(left)

    @property
    def ended(self):
        return self._ended is not None

    # ---- ending

    def close(self):
        """Closes the stream in an orderly way."""
        try:
            self.send("</stream:stream>")
            self.wait_end(5)
        except (OSError, AssertionError):
            pass
        self._hang_up()

    def kill(self):
        """Resets the connection, like a link that breaks."""
        try:
            self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        except OSError:
            pass  # it has ended already
        self._hang_up()

    def _hang_up(self):
        """Closes only after the reader has ended: it would read from the next socket with this descriptor."""
        try:
            self._socket.shutdown(socket.SHUT_RD)
        except OSError:
            pass
        self._reader.join(DEADLINE)
        self._socket.close()

    # ---- inside

    def _login(self, user, password):
        self._start_stream()
        self._read_until(b"</stream:features>")
        self.send("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>")
        self._read_until(b"<proceed")
        context = ssl.create_default_context(cafile=self.server.ca_file)
        self._socket = context.wrap_socket(self._socket, server_hostname=self.server.domain)
        self._start_stream()
        self._read_until(b"</stream:features>")
        secret = base64.b64encode(("\0%s\0%s" % (user, password)).encode()).decode()
        self.send("<auth xmlns='urn:ietf:params:xml:ns:xmpp-sasl' mechanism='PLAIN'>%s</auth>" % secret)
        answer = self._read_until(b">")
        if b"<success" not in answer:
            raise Closed("login refused: %r" % answer)
        self._socket.settimeout(None)

    def _start_stream(self):
        self.send("<?xml version='1.0'?><stream:stream to='%s' xmlns='jabber:client' "
                  "xmlns:stream='http://etherx.jabber.org/streams' version='1.0'>" % self.server.domain)

    def _read_until(self, mark):
        data = b""
        while mark not in data:
            piece = self._socket.recv(4096)
            if not piece:
                raise Closed("the server closed: %r" % data)
            data += piece
        return data

    def _read(self):
        parser = ET.XMLPullParser(events=("start", "end"))
        root, depth = None, 0
        reason = "the stream was closed"
        try:
            while True:
                data = self._socket.recv(65536)
                if not data:
                    break
                parser.feed(data)
                for event, element in parser.read_events():
                    depth += 1 if event == "start" else -1
                    if event == "start" and depth == 1:
                        root = element
                    if event == "end" and depth == 1:
                        root.clear()
                        self._sort(element)
                    if event == "end" and depth == 0:
                        self._finish("the server ended the stream")
        except (OSError, ValueError, ET.ParseError) as error:
            reason = str(error)
        self._finish(reason)

    def _finish(self, reason):
        with self._lock:
            self._ended = self._ended or reason
            self._lock.notify_all()

    def _sort(self, element):
        if self.trace is not None:
            self.trace.append(element)
        if element.tag == CLIENT + "iq" and element.get("type") in ("get", "set"):
            self.send("<iq type='result' id=%s to=%s/>" % (quoteattr(element.get("id")),
                                                          quoteattr(element.get("from") or self.server.domain)))
            return
        with self._lock:
            if element.tag == CLIENT + "iq":
                if element.get("id") in self._answers:
                    self._answers[element.get("id")] = element
            else:
                self._inbox.append(element)
            self._lock.notify_all()

    def _wait(self, fits, deadline):
        end = time.monotonic() + deadline
        with self._lock:
            while True:
                for index, element in enumerate(self._inbox):
                    if fits(element):
                        return self._inbox.pop(index)
                self._sleep(end, "nothing fitting came")

    def _sleep(self, end, text):
        left = end - time.monotonic()
        if self._ended is not None or left <= 0:
            here = "\n".join(xml(each) for each in self._inbox) or "nothing"
            raise (Closed if self._ended else AssertionError)("%s; %s; the inbox has: %s"
                                                              % (text, self._ended or "deadline passed", here))
        self._lock.wait(left)


def xml(element):
    return ET.tostring(element, encoding="unicode")


def item(message):
    """The one item of a notification, or None: node, id, seqNo as an int (None when it has none), payload's text."""
    items = message.find("{%s}event/{%s}items" % (EVENT, EVENT))
    if items is None:
        return None
    found = items.find("{%s}item" % EVENT)
    if found is None:
        return None
    payload = [each for each in found if each.tag.split("}")[-1] == "payload"]
    number = found.get("seqNo")
    return Item(items.get("node"), found.get("id"), None if number is None else int(number),
                payload[0].text or "" if payload else None)


def condition(answer):
    """The condition of an error answer, or None for a result."""
    if answer.get("type") != "error":
        return None
    error = answer.find(CLIENT + "error")
    return [each.tag[len(STANZAS):] for each in error if each.tag.startswith(STANZAS) and each.tag != STANZAS + "text"][0]


def form(kind, fields, form_type="submit"):
    """A data form; `fields` are pairs of a variable and a value."""
    lines = ["<field var='FORM_TYPE' type='hidden'><value>%s</value></field>" % escape(kind)]
    lines += ["<field var=%s><value>%s</value></field>" % (quoteattr(var), escape(value)) for var, value in fields]
    return "<x xmlns='jabber:x:data' type='%s'>%s</x>" % (form_type, "".join(lines))
