# SPDX-License-Identifier: GPL-3.0-only
"""The page of methods keeps up with the method tables, and the tests that it points to exist."""

import pathlib
import re
import unittest

from pointers import exists, pointers_of

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
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
