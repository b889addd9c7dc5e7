# SPDX-License-Identifier: GPL-3.0-only
"""A whole device in a folder: buses, XMPP server, host services and the service, started by the demo's own command."""

import contextlib
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent.parent / "scripts"))
import processes  # noqa: E402
from device import BIN, PRESET, ROOT, USER, Device, parse_assignments  # noqa: E402,F401
from processes import is_running  # noqa: E402

# The tests' nodes have names of three segments, whoever the device's account is.
os.environ.setdefault("STAGE_OPEN_PREFIXES", '["/e2e", "/owners"]')
# With what a program is built that links the libraries of this build.
SANITIZE = ("-fsanitize=address,undefined",) if PRESET in ("asan", "coverage") else ()
COVERAGE = ("--coverage",) if PRESET == "coverage" else ()
SANITIZER_WORDS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:")


def wait_until(condition, what, seconds=20):
    """Waits until condition() is true and returns its value; fails with the text of `what`."""
    value = processes.wait_until(condition, seconds)
    if not value:
        raise AssertionError(f"not within {seconds} s: {what}")
    return value


def is_stopped(pid):
    """Whether every thread of the process has stopped; SIGSTOP does not reach them at once."""
    def state(task):
        try:
            return task.joinpath("stat").read_text(encoding="ascii").rpartition(")")[2].split()[0]
        except (FileNotFoundError, ProcessLookupError):
            return "T"  # a thread that has ended does nothing either
    return all(state(task) == "T" for task in pathlib.Path(f"/proc/{pid}/task").iterdir())


class Stage:
    """One running set of processes; env holds what DIR/env says."""

    def __init__(self):
        (ROOT / "build").mkdir(exist_ok=True)
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="e2e-", dir=ROOT / "build"))
        self.device = Device(self.dir)
        self.env = {}
        self.service_pid = 0
        self.secrets = set()  # tokens, keys and items that no log may hold

    def up(self):
        done = subprocess.run([str(ROOT / "demo"), "--up", str(self.dir)], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, check=False)
        if done.returncode:
            raise AssertionError(f"./demo --up failed:\n{done.stdout}{done.stderr}\n{self.logs()}")
        self.env = parse_assignments(self.path("env").read_text(encoding="utf-8"))
        self.service_pid = int(self.env["SERVICE_PID"])
        return self

    def down(self):
        subprocess.run([str(ROOT / "demo"), "--down", str(self.dir)], stdin=subprocess.DEVNULL,
                       capture_output=True, check=False)
        reports = [word for word in SANITIZER_WORDS if word in self.logs()]
        logs = self.logs() if reports else ""
        told = self.told_secrets()
        shutil.rmtree(self.dir, ignore_errors=True)
        if told:
            raise AssertionError("a log holds a secret:\n" + "\n".join(told))
        if reports:
            raise AssertionError(f"a sanitizer reported:\n{logs}")

    def told_secrets(self):
        """The lines of all logs, those of the server too, that hold the device's token or another secret."""
        account = self.path("host", "account.json")
        secrets = set(self.secrets)
        if account.exists():
            secrets.add(json.loads(account.read_text(encoding="utf-8"))["token"])
        lines = []
        for path in [*self.dir.glob("log/*.log"), *self.dir.glob("server/**/*.log")]:
            for line in path.read_text(encoding="utf-8", errors="replace").splitlines():
                if any(secret in line for secret in secrets):
                    lines.append(f"{path.name}: {line}")
        return lines

    def logs(self):
        texts = []
        for path in sorted((self.dir / "log").glob("*.log")):
            texts.append(f"--- {path.name}\n{path.read_text(encoding='utf-8', errors='replace')[-6000:]}")
        return "\n".join(texts)

    def log(self, name):
        return (self.dir / "log" / f"{name}.log").read_text(encoding="utf-8", errors="replace")

    def path(self, *parts):
        return self.dir.joinpath(*parts)

    def process_environment(self):
        return self.device.service_environment()

    def kill_service(self, how=signal.SIGKILL):
        os.kill(self.service_pid, how)
        wait_until(lambda: not is_running(self.service_pid), "the service to end")

    def start_service(self, **extra):
        """Starts the service again and waits until it is on the bus."""
        self.service_pid = self.device.start_service(**extra).pid
        wait_until(lambda: self.ctl("call", "getJabberId", "{}", check=False)[0] == 0, "the service on the bus")

    @contextlib.contextmanager
    def server_held(self):
        """The server keeps its connections and answers nothing until the block is left."""
        pid = int(self.env["SERVER_PID"])
        os.kill(pid, signal.SIGSTOP)
        try:
            wait_until(lambda: is_stopped(pid), "the server to be stopped")
            yield
        finally:
            os.kill(pid, signal.SIGCONT)

    def server(self, *arguments):
        done = subprocess.run([str(ROOT / "ejabberd" / "run"), *arguments], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, check=False)
        if done.returncode:
            raise AssertionError(f"ejabberd/run {arguments[0]} failed:\n{done.stdout}{done.stderr}")
        return done.stdout

    def server_folder(self):
        return str(self.dir / "server")

    def kill_server(self):
        pid = int(self.env["SERVER_PID"])
        os.kill(pid, signal.SIGKILL)
        wait_until(lambda: not is_running(pid), "the server to end")

    def start_server(self):
        """Starts the server again, unless it runs."""
        if not is_running(int(self.env["SERVER_PID"])):
            self.env.update(parse_assignments(self.server("start", self.server_folder())))

    def account(self, user, password):
        self.server("account", self.server_folder(), user, password)

    def ctl(self, *arguments, check=True):
        """Runs pubsubctl; returns (exit status, output)."""
        done = subprocess.run([str(BIN / "pubsubctl"), *arguments], env=self.process_environment(),
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False, timeout=60)
        if check and done.returncode:
            raise AssertionError(f"pubsubctl {arguments} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
        return done.returncode, done.stdout

    def connected(self):
        status, output = self.ctl("--json", "status", check=False)
        return status == 0 and json.loads(output.splitlines()[0]).get("connected") is True

    def wait_connected(self):
        wait_until(self.connected, "the service to be connected", 40)


class StageTest(unittest.TestCase):
    """Test cases on one stage for the whole class; a failing case prints the logs of every process."""

    @classmethod
    def setUpClass(cls):
        cls.stage = Stage()
        try:
            cls.stage.up()
        except BaseException:
            cls.stage.down()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.stage.down()

    def run(self, result=None):
        before = len(result.failures) + len(result.errors) if result else 0
        super().run(result)
        if result and len(result.failures) + len(result.errors) > before:
            print(self.stage.logs(), flush=True)
        return result
