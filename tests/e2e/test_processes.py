# SPDX-License-Identifier: GPL-3.0-only
"""How processes are started, recorded and stopped, and what a folder's name may hold."""

import errno
import os
import pathlib
import shlex
import shutil
import signal
import subprocess
import tempfile
import time
import unittest
from unittest import mock

from stage import Device, is_running, parse_assignments, processes, wait_until

STUBBORN = """\
import signal, time
signal.signal(signal.SIGTERM, signal.SIG_IGN)
print('ready', flush=True)
time.sleep(60)
"""
ODD_NAME = "a folder 'with' \"quotes\" $HOME & #100% <b> \\n"


class Interrupted(BaseException):
    pass


class Folder(unittest.TestCase):
    def setUp(self):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="processes-"))
        self.addCleanup(shutil.rmtree, self.dir)
        self.log = self.dir / "log"

    def record(self, name="one"):
        return self.dir / (name + ".pid")

    def start(self, *command, name="one"):
        process = processes.start(self.record(name), self.log, command)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def take_signals(self):
        """SIGTERM interrupts the test; SIGINT would not, where the tests run in a shell's background."""
        def interrupt(*_):
            raise Interrupted
        self.addCleanup(signal.signal, signal.SIGTERM, signal.signal(signal.SIGTERM, interrupt))

    def logged(self):
        return self.log.read_text(encoding="utf-8")


class Processes(Folder):
    def test_a_started_process_has_a_record_and_a_log_and_no_terminal(self):
        process = self.start("sh", "-c", "echo out; echo err >&2; ps -o tty= -p $$; exec sleep 60")
        self.assertEqual(processes.running(self.record()), process.pid)
        self.assertEqual(os.getsid(process.pid), process.pid)
        wait_until(lambda: self.logged().split() == ["out", "err", "?"], "its output in the log")

    def test_a_stopped_process_is_gone_with_its_record(self):
        process = self.start("sleep", "60")
        processes.stop(self.record())
        self.assertEqual(process.wait(0), -signal.SIGTERM)
        self.assertFalse(self.record().exists())
        processes.stop(self.record())  # which is no error

    def test_a_process_that_ignores_the_request_to_end_is_killed(self):
        process = self.start("/usr/bin/python3", "-c", STUBBORN)
        wait_until(lambda: self.logged() == "ready\n", "the signal to be ignored")
        processes.stop(self.record(), 0.2)
        self.assertEqual(process.wait(0), -signal.SIGKILL)

    def test_a_process_that_was_given_the_recorded_id_later_is_left_alone(self):
        process = self.start("sleep", "60")
        self.record().write_text(f"{process.pid} {int(processes.start_time(process.pid)) - 1}\n", encoding="ascii")
        self.assertIsNone(processes.running(self.record()))
        processes.stop(self.record(), 0.2)
        self.assertTrue(is_running(process.pid))

    def test_a_process_that_was_given_the_id_while_it_is_stopped_is_left_alone(self):
        process, looked = self.start("sleep", "60"), []

        def reused(_record):  # the recorded process ends after the first look
            looked.append(True)
            return process.pid if len(looked) == 1 else None
        with mock.patch.object(processes, "running", reused):
            processes.stop(self.record(), 0.2)
        self.assertTrue(is_running(process.pid))

    def test_a_record_that_cannot_be_read_names_no_process(self):
        for text in ("", "x", "1", "1 ", "one two", "1 2 3", "0 None", "999999999 None"):
            with self.subTest(text):
                self.record().write_text(text, encoding="ascii")
                self.assertIsNone(processes.running(self.record()))

    def test_an_ended_process_does_not_run_even_before_its_parent_asks_for_its_status(self):
        process = self.start("true")
        wait_until(lambda: processes.running(self.record()) is None, "its end")
        self.assertFalse(is_running(process.pid))

    def test_a_command_that_does_not_exist_is_named_and_leaves_no_record(self):
        with self.assertRaisesRegex(processes.Failed, "^/nonexistent/command could not be started: No such file"):
            self.start("/nonexistent/command")
        self.assertFalse(self.record().exists())

    def test_a_process_whose_record_cannot_be_written_is_not_left_running(self):
        pids = []

        def disk_full(_record, pid):
            pids.append(pid)
            raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC))
        with mock.patch.object(processes, "write_record", disk_full):
            with self.assertRaisesRegex(processes.Failed, "one.pid could not be written: No space left on device"):
                self.start("sleep", "60")
        self.assertFalse(is_running(pids[0]))

    def test_a_signal_during_a_start_is_taken_when_the_record_is_there(self):
        self.take_signals()

        def interrupted(record, pid):
            signal.raise_signal(signal.SIGTERM)
            write(record, pid)
        write = processes.write_record
        with mock.patch.object(processes, "write_record", interrupted), self.assertRaises(Interrupted):
            self.start("sleep", "60")
        pid = processes.running(self.record())
        self.assertTrue(pid)
        processes.stop(self.record())
        self.assertFalse(is_running(pid))

    def test_an_interrupted_call_ends_its_command_before_it_returns(self):
        self.take_signals()
        command = ("import os, signal, sys, time\n"
                   "signal.signal(signal.SIGTERM, lambda *_: (print('cleaned up'), sys.exit()))\n"
                   f"os.kill({os.getpid()}, signal.SIGTERM)\ntime.sleep(60)\n")
        with self.assertRaises(Interrupted):
            processes.call(self.log, ["/usr/bin/python3", "-c", command])
        self.assertEqual(self.logged(), "cleaned up\n")

    def test_a_signal_during_the_start_of_a_called_command_ends_the_command(self):
        self.take_signals()
        started = []

        def interrupted(*arguments, **options):
            started.append(popen(*arguments, **options))
            self.addCleanup(started[0].wait)
            self.addCleanup(started[0].kill)
            signal.raise_signal(signal.SIGTERM)
            return started[0]
        popen = subprocess.Popen
        with mock.patch.object(subprocess, "Popen", interrupted), self.assertRaises(Interrupted):
            processes.call(self.log, ["sleep", "60"])
        self.assertFalse(is_running(started[0].pid))

    def test_a_process_is_waited_for_only_while_it_runs(self):
        self.start("true")
        begin = time.monotonic()
        self.assertFalse(processes.wait_ready(self.record(), lambda: False, 60))
        self.assertLess(time.monotonic() - begin, 30)
        self.start("sleep", "60")
        self.assertFalse(processes.wait_ready(self.record(), lambda: False, 0.1))
        self.assertTrue(processes.wait_ready(self.record(), lambda: True, 600))


class Names(Folder):
    """The folder of a device may have any name that a person gives it."""

    def device(self, *parts):
        device = Device(self.dir.joinpath(*parts))
        self.addCleanup(device.down)
        return device

    def assert_both_answer(self, device):
        for address in list(device.places().values())[:2]:
            subprocess.run(["dbus-send", "--bus=" + address, "--print-reply", "--dest=org.freedesktop.DBus", "/",
                            "org.freedesktop.DBus.Peer.Ping"], check=True, capture_output=True)

    def test_the_buses_listen_in_a_folder_of_any_name(self):
        device = self.device(ODD_NAME)
        device.start_bus("private", device.path("run"))
        device.start_bus("public")
        self.assert_both_answer(device)

    def test_the_buses_of_a_deep_folder_listen_in_a_short_one_that_goes_with_them(self):
        device = self.device("deep" * 20, ODD_NAME)
        with mock.patch.object(tempfile, "tempdir", str(self.dir)):
            device.start_bus("private")
            device.start_bus("public")
        self.assert_both_answer(device)
        short = device.path("run", "short-folder").read_text(encoding="utf-8")
        self.assertEqual(sorted(os.listdir(short)), ["private_bus", "public_bus"])
        device.down()
        self.assertFalse(os.path.exists(short))

    def test_a_bus_that_does_not_start_is_named_with_its_log(self):
        device, programs = self.device("one"), self.dir / "programs"
        programs.mkdir()
        programs.joinpath("dbus-daemon").symlink_to("/bin/false")
        with mock.patch.dict(os.environ, PATH=str(programs)):
            with self.assertRaisesRegex(processes.Failed,
                                        r"^The private-bus process ended at its start; see .*\.log\.$"):
                device.start_bus("private")
        self.assertIsNone(device.pid("private-bus"))

    def test_assignments_are_read_by_a_shell_and_by_the_tests_alike(self):
        text = f"PLAIN=1\nODD={shlex.quote(ODD_NAME)}\nEMPTY=\n"
        self.assertEqual(parse_assignments(text), {"PLAIN": "1", "ODD": ODD_NAME, "EMPTY": ""})
        path = self.dir / "env"
        path.write_text(text, encoding="utf-8")
        done = subprocess.run(["sh", "-c", '. "$1"; printf %s "$ODD"', "sh", str(path)], check=True,
                              capture_output=True, text=True)
        self.assertEqual(done.stdout, ODD_NAME)


if __name__ == "__main__":
    unittest.main()
