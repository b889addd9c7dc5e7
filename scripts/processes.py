# SPDX-License-Identifier: GPL-3.0-only
"""Starts processes in the background, waits for them, and stops them.

A process that was started has a record: a file with its process id and its start time. The start time tells it from a
later process that was given the same id, so nothing is ever stopped but what was started here. The file survives the
process that wrote it: another one can stop what this one started.
"""

import contextlib
import os
import select
import signal
import subprocess
import threading
import time

STOP_SECONDS = 5  # between SIGTERM and SIGKILL


class Failed(Exception):
    """Something did not start or did not get ready; the text says what, for a person to read."""


def start_time(pid):
    """When the process began, in clock ticks since the machine started; None when it has ended."""
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as stat:
            fields = stat.read().rpartition(")")[2].split()  # the name before it may hold blanks
    except (FileNotFoundError, ProcessLookupError):
        return None
    return None if fields[0] in "ZX" else fields[19]


def is_running(pid):
    return start_time(pid) is not None


def wait_until(condition, seconds):
    """The first true value of condition(), or its last one when the time is up."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(0.02)


def write_record(record, pid):
    """Readers see either the whole record or the one before it."""
    unfinished = f"{record}.{os.getpid()}"
    with open(unfinished, "w", encoding="ascii") as file:
        file.write(f"{pid} {start_time(pid)}\n")
    os.replace(unfinished, record)


def running(record):
    """The id of the recorded process, or None when it has ended or there is no record."""
    try:
        with open(record, encoding="ascii") as file:
            pid, started = file.read().split()
    except (OSError, ValueError):
        return None
    return int(pid) if start_time(pid) == started else None


def wait_ready(record, ready, seconds):
    """Whether ready() comes true within the seconds, while the recorded process runs."""
    def state():
        return "ended" if not running(record) else "ready" if ready() else None
    return wait_until(state, seconds) == "ready"


@contextlib.contextmanager
def signals_deferred():
    """SIGINT and SIGTERM take effect when the block is left: until then what it starts would be known to nobody."""
    if threading.current_thread() is not threading.main_thread():
        yield  # signals interrupt the main thread alone
        return
    caught = []
    handlers = {number: signal.signal(number, lambda number, _: caught.append(number))
                for number in (signal.SIGINT, signal.SIGTERM)}
    try:
        yield
    finally:
        for number, handler in handlers.items():
            signal.signal(number, handler)
        for number in caught:
            signal.raise_signal(number)


def start(record, log, command, **options):
    """Starts a command in a session of its own, with its output appended to the log; returns its Popen.

    The options are those of Popen.
    """
    with signals_deferred(), open(log, "ab") as output:
        try:
            process = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=output,
                                       stderr=subprocess.STDOUT, start_new_session=True, **options)
        except OSError as error:
            raise Failed(f"{command[0]} could not be started: {error.strerror}") from error
        try:
            write_record(record, process.pid)
        except OSError as error:  # without a record nobody could stop it later
            process.kill()
            process.wait()
            raise Failed(f"{record} could not be written: {error.strerror}") from error
    return process


def call(log, command, **options):
    """Runs a command to its end, with its output appended to the log; returns its exit status.

    Interrupted, it ends the command and waits for it, so that the command can clean up.
    """
    process = None
    try:
        with signals_deferred(), open(log, "ab") as output:
            process = subprocess.Popen([str(word) for word in command], stdout=output, stderr=subprocess.STDOUT,
                                       **options)
        return process.wait()
    except BaseException:
        if process:
            process.terminate()
            process.wait()
        raise


def stop(record, seconds=STOP_SECONDS, request=signal.SIGTERM):
    """Asks the recorded process to end and kills it after some seconds; the record goes when the process has ended."""
    pid = running(record)
    if pid:
        with contextlib.suppress(ProcessLookupError):
            _end(record, os.pidfd_open(pid), seconds, request)
    if running(record) is None:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(record)


def _end(record, descriptor, seconds, request):
    """The descriptor stays with one process, and the record is compared again now that it is open."""
    ended = select.poll()
    ended.register(descriptor, select.POLLIN)
    try:
        for number in (request, signal.SIGKILL):
            if running(record) is None:
                return
            signal.pidfd_send_signal(descriptor, number)
            ended.poll(seconds * 1000)
    finally:
        os.close(descriptor)
