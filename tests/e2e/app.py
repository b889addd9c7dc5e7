# SPDX-License-Identifier: GPL-3.0-only
"""An application in a process of its own, so that the service sees an application id of its own.

The process reads one JSON command a line ({"id", "method", "payload"} or {"cancel": id}) and writes one JSON line for
each answer ({"id", "text"}), bus error ({"id", "error"}) and end of a subscription ({"id", "ended"}).
"""

import json
import os
import queue
import subprocess
import sys
import threading
import time


class AppCall:
    """A placed call of an application: every answer that came for it."""

    def __init__(self, app, number):
        self.app, self.number = app, number
        self.texts, self.error, self.ended = [], None, None

    @property
    def answers(self):
        return [json.loads(text) for text in self.texts]

    def wait(self, count=1, seconds=20):
        """Waits for the answer number `count` and returns it."""
        self.app.wait(lambda: len(self.texts) >= count or self.error, f"answer {count}", seconds)
        if len(self.texts) < count:
            raise AssertionError(f"{self.app.app_id}: the call failed: {self.error}")
        return self.answers[count - 1]

    def wait_ended(self, seconds=20):
        self.app.wait(lambda: self.ended is not None, "the end of the subscription", seconds)

    def cancel(self):
        self.app.send({"cancel": self.number})


class App:
    """Starts the process; `address` is the bus that it talks to. `command` is another way to run this file, in the
    environment then."""

    def __init__(self, address, app_id, command=("/usr/bin/python3", os.path.abspath(__file__)), environment=None):
        self.app_id = app_id
        self._process = subprocess.Popen(
            [*command, address],
            env=environment or dict(os.environ, ZELT_APP_ID=app_id, PYTHONDONTWRITEBYTECODE="1"),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)
        self._lines = queue.Queue()
        self._calls = {}
        threading.Thread(target=self._read, daemon=True).start()

    @property
    def pid(self):
        return self._process.pid

    def _read(self):
        for line in self._process.stdout:
            self._lines.put(json.loads(line))

    def send(self, command):
        self._process.stdin.write(json.dumps(command) + "\n")
        self._process.stdin.flush()

    def wait(self, condition, what, seconds=20):
        deadline = time.monotonic() + seconds
        while not condition():
            try:
                line = self._lines.get(timeout=max(0.01, deadline - time.monotonic()))
            except queue.Empty:
                raise AssertionError(f"{self.app_id}: not within {seconds} s: {what}") from None
            call = self._calls[line["id"]]
            if "text" in line:
                call.texts.append(line["text"])
            elif "ended" in line:
                call.ended = line["ended"]
            else:
                call.error = line["error"]

    def drain(self):
        """Takes what has arrived by now."""
        try:
            self.wait(lambda: False, "", 0)
        except AssertionError:
            pass

    def settle(self):
        """Takes what the service had sent to this application by now: it answers a call after it."""
        self.call("getPublishKey", {})

    def start(self, method, payload):
        call = AppCall(self, len(self._calls))
        self._calls[call.number] = call
        text = payload if isinstance(payload, str) else json.dumps(payload)
        self.send({"id": call.number, "method": method, "payload": text})
        return call

    def call(self, method, payload, seconds=20):
        return self.start(method, payload).wait(1, seconds)

    def kill(self):
        self._process.kill()
        self._process.wait()

    close = kill


def main(address):
    from gi.repository import GLib

    from bus import BusClient

    client, calls, loop = BusClient(address), {}, GLib.MainLoop()

    def say(number, **members):
        sys.stdout.write(json.dumps(dict(members, id=number)) + "\n")
        sys.stdout.flush()

    class Told(list):
        """The list of a call's answers, which says each one as it is added."""

        def __init__(self, number):
            super().__init__()
            self.number = number

        def append(self, text):
            super().append(text)
            say(self.number, text=text)

    def watch():
        for number, call in list(calls.items()):
            if call.error:
                say(number, error=str(call.error))
                del calls[number]
            elif call.ended is not None:
                say(number, ended=call.ended)
                del calls[number]
        return True

    def command(words):
        if "cancel" in words:
            calls[words["cancel"]].cancel()
            return
        call = client.start(words["method"], words["payload"])
        call.texts = Told(words["id"])
        calls[words["id"]] = call

    rest = b""

    def read(_channel, _condition):
        # Not through sys.stdin: a second line in its buffer would wake nobody.
        nonlocal rest
        data = os.read(0, 65536)
        if not data:
            loop.quit()
            return False
        *lines, rest = (rest + data).split(b"\n")
        for line in lines:
            command(json.loads(line))
        return True

    GLib.io_add_watch(0, GLib.PRIORITY_DEFAULT, GLib.IO_IN | GLib.IO_HUP, read)
    GLib.timeout_add(20, watch)
    loop.run()


if __name__ == "__main__":
    main(sys.argv[1])
