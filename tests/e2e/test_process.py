# SPDX-License-Identifier: GPL-3.0-only
"""The process by itself, on two buses with nobody else on them: how it starts, and every way it ends."""

import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

from stage import BIN, ROOT, SANITIZER_WORDS, Device, is_running, wait_until

EXITING = "main: Exiting main because of errors"
EXITS = "main: PUBSUB SERVICE EXITS BECAUSE OF ERRORS"
RUNNING = "main: Calling mainloop"


class Process(unittest.TestCase):
    def setUp(self):
        (ROOT / "build").mkdir(exist_ok=True)
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="process-", dir=ROOT / "build"))
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        self.addCleanup(self.check_sanitizers)
        self.device = Device(self.dir)
        self.buses = {bus: self.start_bus(bus) for bus in ("private", "public")}
        self.logs = []

    def check_sanitizers(self):
        for log in self.dir.glob("service-*.log"):
            text = log.read_text(encoding="utf-8", errors="replace")
            self.assertFalse([word for word in SANITIZER_WORDS if word in text], text)

    def start_bus(self, bus):
        process = self.device.start_bus(bus)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        process.kill()
        process.wait()

    def start(self, **extra):
        """Starts the service; its log is the last of self.logs."""
        self.logs.append(self.dir / f"service-{len(self.logs)}.log")
        environment = self.device.environment()
        environment.pop("ZELT_APP_ID_FROM_ENVIRONMENT", None)
        environment.update(extra)
        with open(self.logs[-1], "wb") as log:
            process = subprocess.Popen([str(BIN / "pubsubservice")], env=environment, stdin=subprocess.DEVNULL,
                                       stdout=log, stderr=log)
        self.addCleanup(self.end, process)
        return process

    def start_running(self, **extra):
        process = self.start(**extra)
        wait_until(lambda: RUNNING in self.lines(), "the service in its main loop")
        return process

    def lines(self):
        """What the last service logged, as "function: text"; other lines as they are, without empty ones."""
        text = self.logs[-1].read_text(encoding="utf-8", errors="replace")
        return [re.sub(r"^\[(\w+): \d+\]: ", r"\1: ", line) for line in text.splitlines() if line]

    def assert_ended(self, process, *expected):
        """The process ends by itself with status 0; its last lines match the expressions, then it says so."""
        self.assertEqual(process.wait(20), 0)
        lines = self.lines()
        self.assertEqual(lines[-1], EXITS, lines)
        self.assertGreater(len(lines), len(expected))
        for line, expression in zip(lines[-len(expected) - 1:], expected):
            self.assertRegex(line, f"^{expression}$", lines)

    def test_with_nobody_there_it_waits_in_its_loop(self):
        process = self.start_running()
        self.assertEqual(self.lines(), ["ReadHandlerFile: Warning: No handler file present", RUNNING])
        self.assertTrue((self.dir / "state" / "cache").is_dir())
        self.assertTrue(is_running(process.pid))

    def test_without_one_of_its_buses_it_ends_with_status_0_and_the_reason(self):
        for bus in ("ZELT_PRIVATE_BUS", "ZELT_PUBLIC_BUS"):
            with self.subTest(bus):
                process = self.start(**{bus: f"unix:path={self.dir}/nothing"})
                self.assert_ended(process, r"main: Register of com\.zelt\.pubsubservice failed .+", EXITING)
                self.assertNotIn(RUNNING, self.lines())

    def test_a_second_one_ends_and_the_first_goes_on(self):
        first = self.start_running()
        self.assert_ended(self.start(), r"main: Register of com\.zelt\.pubsubservice failed .+", EXITING)
        self.assertTrue(is_running(first.pid))

    def test_without_its_preferences_it_ends_with_status_0_and_the_reason(self):
        (self.dir / "prefs").write_text("no folder", encoding="utf-8")
        process = self.start()
        self.assert_ended(process, r"main: Error: QPAppGetHandle returned \d+", EXITING)

    def test_a_lost_bus_ends_it_with_status_0(self):
        process = self.start_running()
        self.end(self.buses["private"])
        self.assert_ended(process, EXITING, r"bus error -\d+: .+")

    def test_a_lost_public_bus_ends_it_too(self):
        process = self.start_running()
        self.end(self.buses["public"])
        self.assert_ended(process, EXITING)

    def test_a_signal_is_not_taken_for_an_orderly_end(self):
        process = self.start_running()
        process.terminate()
        self.assertEqual(process.wait(20), -signal.SIGTERM)
        self.assertEqual(self.lines()[-1], RUNNING)


if __name__ == "__main__":
    unittest.main()
