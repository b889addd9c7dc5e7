# SPDX-License-Identifier: GPL-3.0-only
"""A link between the device and its server that can be cut without either end being told."""

import ctypes
import socket
import struct
import threading

SO_ATTACH_FILTER, SO_DETACH_FILTER = 26, 27
SEGMENTS_IN = 140  # the offset of tcpi_segs_in in struct tcp_info


class SocketFilter(ctypes.Structure):
    _fields_ = [("code", ctypes.c_ushort), ("jt", ctypes.c_ubyte), ("jf", ctypes.c_ubyte), ("k", ctypes.c_uint)]


class FilterProgram(ctypes.Structure):
    _fields_ = [("len", ctypes.c_ushort), ("filter", ctypes.POINTER(SocketFilter))]


DROP_ALL = SocketFilter(0x06, 0, 0, 0)  # return 0: no byte of the packet is kept


def shut(ends):
    for end in ends:
        try:
            end.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass  # closed already


class Link:
    """Accepts connections on a port of its own and forwards them."""

    def __init__(self, host, port):
        self._target = (host, int(port))
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._sockets, self._cut = [], False
        self._devices = []  # the ends towards the device
        threading.Thread(target=self._accept, daemon=True).start()

    def cut(self):
        """From now on no packet of the device is received or acknowledged; new connections are not accepted."""
        self._cut = True
        self._listener.close()
        program = FilterProgram(1, ctypes.pointer(DROP_ALL))
        for end in self._devices:
            end.setsockopt(socket.SOL_SOCKET, SO_ATTACH_FILTER, bytes(program))

    def drop(self):
        """Ends the connections of now; what is on its way is lost."""
        sockets, self._sockets, self._devices = self._sockets, [], []
        shut(sockets)

    def segments(self):
        """How many segments the device has sent on its last connection, probes included."""
        info = self._devices[-1].getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 256)
        return struct.unpack_from("I", info, SEGMENTS_IN)[0]

    def close(self):
        for end in [self._listener, *self._sockets]:
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # closed already
            end.close()

    def _accept(self):
        while True:
            try:
                device, _ = self._listener.accept()
            except OSError:
                return
            try:
                server = socket.create_connection(self._target)
            except OSError:  # the server is down
                device.close()
                continue
            self._sockets += [device, server]
            self._devices.append(device)
            for source, target in ((device, server), (server, device)):
                threading.Thread(target=self._forward, args=(source, target), daemon=True).start()

    def _forward(self, source, target):
        try:
            while data := source.recv(65536):
                target.sendall(data)
        except OSError:
            pass  # one end has gone
        if not self._cut:
            shut((source, target))
