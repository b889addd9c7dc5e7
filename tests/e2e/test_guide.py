# SPDX-License-Identifier: GPL-3.0-only
"""The programs of docs/delivery.md, as they stand on the page: built, run, and given items."""

import contextlib
import json
import os
import pathlib
import re
import shlex
import signal
import subprocess
import tempfile
import threading
import unittest

from endpoints import EndpointsTest
from stage import BIN, COVERAGE, ROOT, SANITIZE, wait_until


def example(heading):
    """The first program below a heading of the page."""
    page = (ROOT / "docs/delivery.md").read_text(encoding="utf-8")
    found = re.search(rf"^#+ {re.escape(heading)}$.*?^```\w+\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)
    return found.group(1)


def package(*names):
    return shlex.split(subprocess.run(["pkg-config", "--cflags", "--libs", *names], check=True, capture_output=True,
                                      text=True).stdout)


class Program:
    """A program of the page, and the lines that it has printed."""

    def __init__(self, command, env):
        self._process = subprocess.Popen(command, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                                         start_new_session=True)
        self.lines = []
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            self.lines.append(line.rstrip("\n"))

    def wait(self, lines):
        wait_until(lambda: len(self.lines) >= len(lines) or self._process.poll() is not None, f"the lines {lines}")
        if self.lines != lines or self._process.poll() is not None:
            raise AssertionError(f"it printed {self.lines}, not {lines}; its exit status: {self._process.poll()}")

    def close(self):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self._process.pid, signal.SIGTERM)  # a shell and what it has started
        self._process.wait(20)
        self._reader.join()
        self._process.stdout.close()


class GuideTest(EndpointsTest):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="guide-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def write(self, heading, name):
        path = self.folder / name
        path.write_text(example(heading), encoding="utf-8")
        return str(path)

    def compile(self, compiler, source, *arguments):
        program = str(self.folder / "receive")
        subprocess.run([*compiler, "-Wall", "-Werror", *SANITIZE, "-o", program, source, *arguments], check=True)
        return program

    def environment(self, app_id):
        return dict(self.stage.process_environment(), ZELT_APP_ID=app_id, PYTHONDONTWRITEBYTECODE="1",
                    PATH=f"{BIN}:{os.environ['PATH']}")

    def run_program(self, command, app_id):
        program = Program(command, self.environment(app_id))
        self.addCleanup(program.close)
        return program


class Receiving(GuideTest):
    def waiting(self, app):
        return {each["endpoint"]: each["waiting"] for each in app.call("listEndpoints", {})["endpoints"]}

    def expect_every_item(self, command, app_id):
        """It gets what waited and what comes, also after a kill of the service, and each item leaves the server."""
        app = self.app(app_id)
        key = self.create(app, "inbox")
        texts = [f'item {number} "ä\\"' for number in range(5)]
        for text in texts:
            self.publisher.publish(key, text)
        program = self.run_program(command, app_id)
        program.wait([f"inbox: {text}" for text in texts])
        wait_until(lambda: self.waiting(app) == {"inbox": 0}, "the items to be acknowledged")
        self.stage.kill_service()
        texts.append("after a kill")
        self.publisher.publish(key, texts[-1])
        self.stage.start_service()
        self.stage.wait_connected()
        program.wait([f"inbox: {text}" for text in texts])
        app = self.app(app_id)
        wait_until(lambda: self.waiting(app) == {"inbox": 0}, "the items to be acknowledged")
        program.wait([f"inbox: {text}" for text in texts])

    def test_the_program_in_cpp_receives_every_item_once(self):
        libraries = [str(BIN.parent / name) for name in ("libzelt_bus.a", "libpubsub_util.a")]
        program = self.compile(["c++", "-std=c++20", f"-I{ROOT / 'src'}", *COVERAGE],
                               self.write("In C++", "receive.cpp"), *libraries,
                               *package("glib-2.0", "libsystemd", "json-c"))
        self.expect_every_item([program], "com.example.guide.cpp")

    def test_the_program_in_python_receives_every_item_once(self):
        self.expect_every_item(["/usr/bin/python3", self.write("In Python", "receive.py")], "com.example.guide.python")

    def test_the_program_in_c_receives_every_item_once(self):
        program = self.compile(["cc"], self.write("In C", "receive.c"), *package("libsystemd", "json-c"))
        self.expect_every_item([program], "com.example.guide.c")

    def test_the_command_in_the_shell_receives_every_item_once(self):
        self.expect_every_item(["sh", self.write("In the shell", "receive.sh")], "com.example.guide.shell")

    def test_a_program_that_cannot_write_leaves_its_item_to_the_next(self):
        app_id = "com.example.guide.full"
        app = self.app(app_id)
        key = self.create(app, "inbox")
        script = self.write("In Python", "receive.py")
        program = self.compile(["cc"], self.write("In C", "receive.c"), *package("libsystemd", "json-c"))
        self.publisher.publish(key, "one")
        for command in ([program], ["/usr/bin/python3", script]):
            with open("/dev/full", "w", encoding="utf-8") as full:
                done = subprocess.run(command, env=self.environment(app_id), stdout=full, stderr=subprocess.DEVNULL,
                                      check=False, timeout=20)
            self.assertEqual(done.returncode, 1)
            self.assertEqual(self.waiting(app), {"inbox": 1})
        self.run_program([program], app_id).wait(["inbox: one"])


class Handling(GuideTest):
    def test_the_confirming_handler_gets_what_was_published_while_it_was_down(self):
        node = "/e2e/guide"
        self.assertTrue(self.private.call("createNode", {"node": node})["returnValue"])
        self.assertTrue(self.private.call("subscribeToNode", {"node": node})["returnValue"])
        command = ["/usr/bin/python3", self.write("Confirming handlers", "handler.py"), node]

        def publish(text):
            self.assertEqual(self.private.call("publishItem", {"node": node, "item": text}), {"returnValue": True})

        program = self.run_program(command, "")
        wait_until(lambda: node in self.records(), "the handler to be registered")
        publish("one")
        program.wait([f"{node}: one"])
        program.close()
        publish("two")
        publish("three")
        self.run_program(command, "").wait([f"{node}: two", f"{node}: three"])

    def records(self):
        path = self.stage.path("state", "pubsubhandlers.conf")
        records = path.read_text(encoding="utf-8").split("\0\n") if path.exists() else []
        return {json.loads(record)["node"] for record in records if record}


if __name__ == "__main__":
    unittest.main()
