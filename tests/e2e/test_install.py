# SPDX-License-Identifier: GPL-3.0-only
"""What `cmake --install` puts on a device: which files, where, and that they fit together."""

import configparser
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import tempfile
import unittest

from bus import BusClient
from stage import BIN, COVERAGE, ROOT, SANITIZE, Device, processes, wait_until

BUILD = BIN.parent
PROGRAMS = ["bin/pubsubctl", "bin/pubsubservice", "bin/zelt-host", "bin/zelt-unifiedpush"]
DATA = sorted([
    "lib/systemd/system/pubsubservice.service",
    "lib/systemd/system/zelt-host.service",
    "lib/systemd/system/zelt-private-bus.service",
    "lib/systemd/system/zelt-private-bus.socket",
    "lib/systemd/user/zelt-unifiedpush.service",
    "lib/sysusers.d/zelt-host.conf",
    "lib/sysusers.d/zelt.conf",
    "lib/tmpfiles.d/zelt.conf",
    "share/bash-completion/completions/pubsubctl",
    "share/dbus-1/services/org.unifiedpush.Distributor.pubsubservice.service",
    "share/dbus-1/system.d/com.zelt.pubsubservice.conf",
    "share/fish/vendor_completions.d/pubsubctl.fish",
    "share/man/man1/pubsubctl.1",
    "share/man/man1/zelt-unifiedpush.1",
    "share/man/man5/host.conf.5",
    "share/man/man5/pubsub.conf.5",
    "share/man/man8/pubsubservice.8",
    "share/man/man8/zelt-host.8",
    "share/zelt/private-bus.conf",
    "share/zsh/vendor-completions/_pubsubctl",
])


class Install(unittest.TestCase):
    def setUp(self):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="install-", dir=ROOT / "build"))
        self.addCleanup(shutil.rmtree, self.dir)

    def install(self, prefix):
        """Installs below the test's folder and returns where the prefix is then."""
        done = subprocess.run(["cmake", "--install", str(BUILD), "--prefix", prefix], capture_output=True, text=True,
                              env=dict(os.environ, DESTDIR=str(self.dir)), stdin=subprocess.DEVNULL, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return self.dir / prefix.lstrip("/")

    @staticmethod
    def commands(root):
        """Each file that starts a program of ours, with that program."""
        for folder, key in (("lib/systemd/system", "Service"), ("lib/systemd/user", "Service"),
                            ("share/dbus-1/services", "D-BUS Service")):
            for path in sorted((root / folder).iterdir()):
                entry = configparser.ConfigParser(interpolation=None, strict=False)
                entry.read(path, encoding="utf-8")
                for option in ("Exec", "ExecStart"):
                    if entry.has_option(key, option):
                        yield path.name, entry.get(key, option)

    def test_installs_these_files_and_no_others(self):
        root = self.install("/usr")
        files = sorted(str(path.relative_to(self.dir)) for path in self.dir.rglob("*") if path.is_file())
        self.assertEqual(files, ["usr/" + path for path in PROGRAMS + DATA])
        for path in PROGRAMS + DATA:
            with self.subTest(path=path):
                self.assertEqual((root / path).stat().st_mode & 0o777, 0o755 if path in PROGRAMS else 0o644)

    def test_what_starts_a_program_names_the_installed_one(self):
        for prefix in ("/usr", "/opt/zelt"):
            found = dict(self.commands(self.install(prefix)))
            bus = found.pop("zelt-private-bus.service")
            self.assertEqual(bus, "/usr/bin/dbus-daemon --config-file=/usr/share/zelt/private-bus.conf "
                             "--address=systemd: --nofork --nopidfile")
            self.assertEqual(found, {
                "pubsubservice.service": f"{prefix}/bin/pubsubservice",
                "zelt-host.service": f"{prefix}/bin/zelt-host",
                "zelt-unifiedpush.service": f"{prefix}/bin/zelt-unifiedpush",
                "org.unifiedpush.Distributor.pubsubservice.service": f"{prefix}/bin/zelt-unifiedpush"})

    def test_no_placeholder_is_left(self):
        root = self.install("/usr")
        self.assertEqual([path for path in DATA if re.search(r"@\w+@", (root / path).read_text(encoding="utf-8"))], [])

    def test_the_page_on_operations_names_every_file(self):
        page = (ROOT / "docs/operations.md").read_text(encoding="utf-8")
        folders = {str(pathlib.PurePosixPath("/usr", path).parent) for path in DATA}
        self.assertEqual([folder for folder in sorted(folders) if folder + "/" not in page], [])
        names = [pathlib.PurePosixPath(path).name for path in PROGRAMS + DATA]
        self.assertEqual([name for name in names if f"{name}`" not in page], [])
        self.assertIn("cmake --install build/product --prefix /usr", page)


class Library(unittest.TestCase):
    """The bus library as a program of somebody else finds it: with pkg-config, away from the tree."""

    def setUp(self):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="library-", dir=ROOT / "build"))
        self.addCleanup(shutil.rmtree, self.dir)

    def check(self, command, **environment):
        done = subprocess.run([str(word) for word in command], env=dict(os.environ, **environment), text=True,
                              stdin=subprocess.DEVNULL, capture_output=True, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def build_example(self):
        prefix = self.dir / "prefix"
        self.check(["cmake", "--build", BUILD, "--target", "zelt-bus"])
        self.check(["cmake", "--install", BUILD, "--prefix", prefix, "--component", "bus-library"])
        folder = next(prefix.rglob("zelt-bus.pc")).parent
        flags = shlex.split(self.check(["pkg-config", "--cflags", "--libs", "zelt-bus"], PKG_CONFIG_PATH=str(folder)))
        self.assertEqual([flag for flag in flags if str(ROOT / "src") in flag], [])
        self.check(["g++", "-std=c++20", *SANITIZE, *COVERAGE, ROOT / "packaging/library/example/greeter.cpp", "-o",
                    self.dir / "greeter", *flags])
        return self.dir / "greeter"

    def test_the_example_is_built_with_it_and_answers_on_both_buses(self):
        example = self.build_example()
        device = Device(self.dir)
        self.addCleanup(device.down)
        for bus in ("private", "public"):
            device.start_bus(bus)
        device.start("greeter", [example], device.environment())
        self.addCleanup(processes.stop, device.record("greeter"))
        for bus in ("ZELT_PRIVATE_BUS", "ZELT_PUBLIC_BUS"):
            client = BusClient(device.environment()[bus])
            self.addCleanup(client.close)
            wait_until(lambda client=client: client.connection.name_has_owner("com.example.greeter"), "the example")
            where = {"service": "com.example.greeter"}
            self.assertEqual(client.call("greet", {"name": "Ada"}, **where), {"returnValue": True, "text": "Hello Ada"})
            self.assertEqual(client.call("greet", {}, **where),
                             {"returnValue": False, "errorText": "name is missing"})


if __name__ == "__main__":
    unittest.main()
