# SPDX-License-Identifier: GPL-3.0-only
"""The page of methods and the random payloads keep up with the method tables; the tests that the page points to exist."""

import pathlib
import re
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "tests"))

import fuzz  # noqa: E402
from pointers import exists, pointers_of  # noqa: E402

PAGE = (ROOT / "docs/methods.md").read_text(encoding="utf-8")


def served(table):
    source = (ROOT / "src/service/methods.cpp").read_text(encoding="utf-8")
    body = source.split(f"const QSMethod {table}[] = {{")[1].split("};")[0]
    return re.findall(r'\{\.name = "(\w+)"', body)


def described(heading):
    section = PAGE.split(f"\n## {heading}\n")[1].split("\n## ")[0]
    return re.findall(r"^### (\w+)$", section, re.MULTILINE)


class MethodsPage(unittest.TestCase):
    def test_every_method_of_both_tables_has_its_section(self):
        self.assertCountEqual(described("Public methods"), served("pubMethods"))
        self.assertCountEqual(described("Private methods"), served("methods"))

    def test_random_payloads_are_made_for_every_method(self):
        self.assertCountEqual(fuzz.PUBLIC, served("pubMethods"))
        self.assertCountEqual(fuzz.PRIVATE + fuzz.LEAVING, served("pubMethods") + served("methods"))

    def test_every_row_points_to_a_test_that_exists(self):
        rows = [line for line in PAGE.splitlines() if line.startswith("| ") and not line.startswith("| When ")]
        self.assertTrue(rows)
        for row in rows:
            shown_by = row.rstrip(" |").rpartition(" | ")[2]
            if shown_by == "the same":
                continue
            with self.subTest(row):
                pointers = pointers_of(shown_by)
                self.assertTrue(pointers, "a row ends with `FILE` `TEST`")
                self.assertEqual([pointer for pointer in pointers if not exists(*pointer)], [])


if __name__ == "__main__":
    unittest.main()
