# SPDX-License-Identifier: GPL-3.0-only
"""Watches the folder of the item cache: every file that is moved into place is one item that was cached."""

import collections
import ctypes
import json
import os
import select
import struct
import threading

MOVED_TO, OVERFLOW = 0x80, 0x4000
HEADER = struct.Struct("iIII")


class CacheWatch:
    """`written`: the writes of each endpoint in order, each the item as a number, or None when it was gone already."""

    def __init__(self, folder):
        self._folder = str(folder)
        self.written, self.overflowed = collections.defaultdict(list), False
        libc = ctypes.CDLL(None, use_errno=True)
        self._descriptor = libc.inotify_init1(os.O_CLOEXEC | os.O_NONBLOCK)
        if self._descriptor < 0 or libc.inotify_add_watch(self._descriptor, self._folder.encode(), MOVED_TO) < 0:
            raise OSError(ctypes.get_errno(), f"{self._folder} cannot be watched")
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._end.is_set():
            if select.select([self._descriptor], [], [], 0.2)[0]:
                self._take(os.read(self._descriptor, 65536))

    def _take(self, data):
        at = 0
        while at < len(data):
            _, mask, _, length = HEADER.unpack_from(data, at)
            name = data[at + HEADER.size:at + HEADER.size + length].rstrip(b"\0").decode()
            at += HEADER.size + length
            if mask & OVERFLOW:
                self.overflowed = True
            else:
                self.written[name.rpartition("-")[2]].append(self._item(name))

    def _item(self, name):
        try:
            with open(os.path.join(self._folder, name), encoding="utf-8") as file:
                return int(json.load(file)["item"])
        except FileNotFoundError:
            return None

    def close(self):
        self._end.set()
        self._thread.join()
        os.close(self._descriptor)
