# SPDX-License-Identifier: GPL-3.0-only
"""A hostile client of the public bus, on a plain socket, without a library that reads, waits or cleans up for it.

As a program:
    stranger.py leave ADDRESS COUNT SEED    COUNT processes, one after the other, that call and exit at once
    stranger.py deaf ADDRESS COUNT CALLS    COUNT connections that send CALLS calls each and read nothing; "sent" is
                                            printed then, and they go on at an easy pace until killed
    stranger.py seesaw ADDRESS COUNT 0      two connections that set and withdraw one on-close notice until killed, each
                                            with COUNT calls under way; "sent" is printed when both have sent so many
    stranger.py changes ADDRESS COUNT 0     no stranger: sets and withdraws its own notice COUNT times, one call after
                                            the other, and prints the seconds of each as JSON
"""

import json
import os
import random
import socket
import struct
import sys
import threading
import time

SERVICE = "com.zelt.pubsubservice"
DAEMON = "org.freedesktop.DBus"


def padded(data, to):
    return data + bytes(-len(data) % to)


def text(value):
    data = value.encode()
    return struct.pack("<I", len(data)) + data + b"\0"


def call_message(serial, service, path, interface, member, argument=None):
    """A method call with no argument or one text."""
    fields = b""
    for code, kind, value in ((1, b"o", path), (2, b"s", interface), (3, b"s", member), (6, b"s", service)):
        fields = padded(fields, 8) + bytes((code, 1)) + kind + b"\0" + text(value)
    if argument is not None:
        fields = padded(fields, 8) + bytes((8, 1)) + b"g\0" + b"\x01s\0"
    body = b"" if argument is None else text(argument)
    header = struct.pack("<cBBBIII", b"l", 1, 0, 1, len(body), serial, len(fields)) + fields
    return padded(header, 8) + body


class Socket:
    """A connection to the bus; the greeting and the calls are sent, and only call() reads."""

    def __init__(self, address):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(address.partition("path=")[2].partition(",")[0])
        self._serial, self._unread = 1, b""
        user = str(os.getuid()).encode().hex().encode()
        self._socket.sendall(b"\0AUTH EXTERNAL " + user + b"\r\n")
        while not self._unread.endswith(b"\r\n"):
            self._receive()
        self._unread = b""
        self._socket.sendall(b"BEGIN\r\n" + call_message(1, DAEMON, "/org/freedesktop/DBus", DAEMON, "Hello"))

    def _receive(self):
        data = self._socket.recv(65536)
        if not data:
            raise ConnectionError("the bus closed the connection")
        self._unread += data

    def _message(self):
        """The next message: its type, the serial that it answers, and all its bytes."""
        while True:
            if len(self._unread) >= 16:
                body, _, fields = struct.unpack_from("<III", self._unread, 4)
                size = 16 + fields + -fields % 8 + body
                if len(self._unread) >= size:
                    message, self._unread = self._unread[:size], self._unread[size:]
                    mark = message.find(b"\x05\x01u\0", 16, 16 + fields)
                    return message[1], struct.unpack_from("<I", message, mark + 4)[0] if mark > 0 else 0, message
            self._receive()

    def send(self, method, payload):
        self._serial += 1
        self._socket.sendall(call_message(self._serial, SERVICE, "/", SERVICE, method, payload))
        return self._serial

    def answer(self, serial=None):
        """Waits for the answer to the call, or to any one; true when it is no error."""
        while True:
            kind, answered, _ = self._message()
            if answered == serial or serial is None and answered > 1:
                return kind == 2

    def call(self, method, payload="{}"):
        return self.answer(self.send(method, payload))

    def close(self):
        self._socket.close()


def leave(address, count, seed):
    chance = random.Random(seed)
    for _ in range(count):
        # Around the time that the service needs to ask who the caller is and to look at its process.
        stay = chance.choice((0, 0, 0.0003, 0.001, 0.002)) * chance.random()
        child = os.fork()
        if child == 0:
            Socket(address).send("connectStatus", "{}")
            time.sleep(stay)
            os._exit(0)
        os.waitpid(child, 0)


def deaf(address, count, calls):
    sockets = [Socket(address) for _ in range(count)]
    payload = '{"endpoint": "%s", "filler": "%s"}' % ("x" * 3800, "x" * 100)
    for _ in range(calls):
        for one in sockets:
            one.send("subscribe", payload)
    print("sent", flush=True)
    while True:
        for one in sockets:
            one.send("subscribe", payload)
            time.sleep(0.005)


ON_CLOSE = ("subscribeOnClose", "unsubscribeOnClose")
NOTICE = '{"endpoint": "seesaw"}'


def seesaw(address, count, _):
    sockets = [Socket(address) for _ in ON_CLOSE]
    for _ in range(count):
        for one, method in zip(sockets, ON_CLOSE):
            one.send(method, NOTICE)
    print("sent", flush=True)

    def go_on(one, method):
        while True:
            one.answer()
            one.send(method, NOTICE)
    for pair in zip(sockets, ON_CLOSE):
        threading.Thread(target=go_on, args=pair).start()


def changes(address, count, _):
    own, seconds = Socket(address), []
    own.call("connectStatus")  # the service asks once who it is
    for number in range(count):
        start = time.monotonic()
        if not own.call(ON_CLOSE[number % 2], NOTICE):
            sys.exit("a change was refused")
        seconds.append(time.monotonic() - start)
    print(json.dumps(seconds))


if __name__ == "__main__":
    modes = {"leave": leave, "deaf": deaf, "seesaw": seesaw, "changes": changes}
    modes[sys.argv[1]](sys.argv[2], int(sys.argv[3]), int(sys.argv[4]))
