# SPDX-License-Identifier: GPL-3.0-only
"""Who may include whom, and what every source file starts with."""

import pathlib
import re
import shutil
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
SOURCE = ROOT / "src"  # the product; its includes are written from here

OPERATION_MAY = {"request", "session", "util", "platform", "xmpp"}

# Folder -> folders and single headers of the project that it may include, beside itself. From the roof down; nothing
# points back up, and the four folders of operations do not know one another.
MAY_INCLUDE = {
    "service": {"nodes", "delivery", "endpoints", "maintenance", "request", "session", "util", "platform", "xmpp"},
    "nodes": OPERATION_MAY,
    "delivery": OPERATION_MAY,
    "endpoints": OPERATION_MAY,
    "maintenance": OPERATION_MAY,
    "request": {"session", "util", "platform", "xmpp"},
    "session": {"util", "platform", "xmpp"},
    "xmpp": {"util"},
    "platform": {"util"},
    "util": set(),
    "tools": {"platform/bus", "unifiedpush", "util", "xmpp"},
    "unifiedpush": {"platform/bus", "util"},
}

# Outside headers that only some folders may see.
ENGINES = {
    r"systemd/sd-bus": {"platform", "unifiedpush"},
    r"sqlite3\.h": {"platform"},
    r"gnutls/": {"xmpp", "tools"},
    r"gloox/": {"xmpp", "session", "request", "nodes", "delivery", "endpoints", "maintenance", "service", "util",
                "tools"},
}


def sources():
    listed = subprocess.run(
        ["git", "-C", str(ROOT), "ls-files", "*.cpp", "*.h"], check=True, capture_output=True, text=True).stdout
    return [pathlib.PurePosixPath(line) for line in listed.splitlines()]


def product_sources():
    return [path.relative_to("src") for path in sources() if path.parts[0] == "src"]


def includes_of(file):
    text = file.read_text(encoding="utf-8")
    return re.findall(r'^\s*#\s*include\s+(["<])([^">]+)[">]', text, re.MULTILINE)


def allowed(path, header):
    if header.split("/")[0] == path.parts[0]:
        return True
    return any(header == entry or header.startswith(entry + "/") for entry in MAY_INCLUDE[path.parts[0]])


class Includes(unittest.TestCase):
    def test_every_folder_includes_only_what_it_may(self):
        wrong = []
        for path in product_sources():
            for mark, header in includes_of(SOURCE / path):
                if mark == '"' and not allowed(path, header):
                    wrong.append(f"{path} includes {header}")
        self.assertEqual(wrong, [])

    def test_project_headers_are_included_from_the_source_root(self):
        wrong = []
        for path in sources():
            for mark, header in includes_of(ROOT / path):
                if mark == '"' and not any((folder / header).is_file() for folder in (SOURCE, ROOT)):
                    wrong.append(f"{path} includes {header}")
        self.assertEqual(wrong, [])

    def test_engines_are_seen_only_by_the_layer_above_them(self):
        wrong = []
        for path in product_sources():
            for _, header in includes_of(SOURCE / path):
                for engine, folders in ENGINES.items():
                    if re.match(engine, header) and path.parts[0] not in folders:
                        wrong.append(f"{path} includes {header}")
        self.assertEqual(wrong, [])

    def test_util_sees_of_gloox_the_tag_alone(self):
        wrong = []
        for path in product_sources():
            for _, header in includes_of(SOURCE / path):
                if path.parts[0] == "util" and header.startswith("gloox/") and header != "gloox/tag.h":
                    wrong.append(f"{path} includes {header}")
        self.assertEqual(wrong, [])


class LogCalls(unittest.TestCase):
    def test_a_log_line_takes_its_place_from_the_call(self):
        wrong = []
        for path in product_sources():
            text = (SOURCE / path).read_text(encoding="utf-8")
            if str(path) not in ("util/log.cpp", "util/log.h") and re.search(r"__func__|__LINE__|__FUNCTION__", text):
                wrong.append(str(path))
        self.assertEqual(wrong, [])


class FileForm(unittest.TestCase):
    def test_every_source_names_its_licence_first(self):
        wrong = [str(path) for path in sources()
                 if not (ROOT / path).read_text(encoding="utf-8").startswith("// SPDX-License-Identifier: GPL-3.0-only\n")]
        self.assertEqual(wrong, [])

    def test_no_source_is_longer_than_500_lines(self):
        wrong = [str(path) for path in sources()
                 if len((ROOT / path).read_text(encoding="utf-8").splitlines()) > 500]
        self.assertEqual(wrong, [])

    def test_product_sources_are_formatted(self):
        self.assertTrue(shutil.which("clang-format"), "clang-format is missing; run scripts/install-packages")
        files = [str(SOURCE / path) for path in product_sources()]
        done = subprocess.run(["clang-format", "--dry-run", "--Werror", *files], cwd=ROOT, capture_output=True,
                              text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr[:4000])


if __name__ == "__main__":
    unittest.main()
