# SPDX-License-Identifier: GPL-3.0-only
"""What `cmake --install` puts on a device: which files, where, and that they fit together."""

import configparser
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

from stage import BIN, ROOT

BUILD = BIN.parent
SERVICES = ("accountservices", "appinstaller", "connectionmanager", "host", "power", "systemmanager")
PROGRAMS = ["bin/pubsubctl", "bin/pubsubservice", "bin/zelt-host", "bin/zelt-unifiedpush"]
DATA = sorted([
    "lib/systemd/system/pubsubservice.service",
    "lib/systemd/system/zelt-host.service",
    "lib/systemd/system/zelt-private-bus.service",
    "lib/systemd/user/zelt-unifiedpush.service",
    "lib/tmpfiles.d/zelt.conf",
    "share/dbus-1/services/org.unifiedpush.Distributor.pubsubservice.service",
    "share/dbus-1/system.d/com.zelt.pubsubservice.conf",
    "share/zelt/private-bus.conf",
    *(f"share/zelt/private-services/com.zelt.{service}.service" for service in SERVICES),
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
                            ("share/zelt/private-services", "D-BUS Service"),
                            ("share/dbus-1/services", "D-BUS Service")):
            for path in sorted((root / folder).iterdir()):
                entry = configparser.ConfigParser(interpolation=None)
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
            self.assertEqual(bus, "/usr/bin/dbus-daemon --config-file=/usr/share/zelt/private-bus.conf --nofork")
            self.assertEqual(found, {
                "pubsubservice.service": f"{prefix}/bin/pubsubservice",
                "zelt-host.service": f"{prefix}/bin/zelt-host",
                "zelt-unifiedpush.service": f"{prefix}/bin/zelt-unifiedpush",
                "org.unifiedpush.Distributor.pubsubservice.service": f"{prefix}/bin/zelt-unifiedpush",
                **{f"com.zelt.{service}.service": f"{prefix}/bin/zelt-host" for service in SERVICES}})

    def test_no_placeholder_is_left(self):
        root = self.install("/usr")
        self.assertEqual([path for path in DATA if re.search(r"@\w+@", (root / path).read_text(encoding="utf-8"))], [])

    def test_the_page_on_operations_names_every_file(self):
        page = (ROOT / "docs/operations.md").read_text(encoding="utf-8")
        folders = {str(pathlib.PurePosixPath("/usr", path).parent) for path in DATA}
        self.assertEqual([folder for folder in sorted(folders) if folder + "/" not in page], [])
        names = [pathlib.PurePosixPath(path).name for path in PROGRAMS + DATA if "private-services" not in path]
        self.assertEqual([name for name in names if f"{name}`" not in page], [])
        self.assertIn("cmake --install build/product --prefix /usr", page)


if __name__ == "__main__":
    unittest.main()
