# SPDX-License-Identifier: GPL-3.0-only
"""Every promise of the security page names tests, and they exist."""

import pathlib
import unittest

from pointers import exists, pointers_of

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGE = (ROOT / "docs/security.md").read_text(encoding="utf-8")


def promises():
    """(promise, cell of tests) for each row of the tables that are headed so."""
    rows = None
    for line in PAGE.splitlines():
        if line == "| Promise | Test |":
            rows = True
        elif not line.startswith("|"):
            rows = None
        elif rows and not line.startswith("|---"):
            promise, _, tests = line[2:-2].rpartition(" | ")
            yield promise, tests


class SecurityPage(unittest.TestCase):
    def test_every_section_of_promises_has_its_table(self):
        sections = PAGE.split("\n## ")[1:]
        self.assertEqual([section.splitlines()[0] for section in sections if "| Promise | Test |" not in section], [])

    def test_every_promise_points_to_tests_that_exist(self):
        self.assertTrue(list(promises()))
        for promise, tests in promises():
            with self.subTest(promise):
                pointers = pointers_of(tests)
                self.assertTrue(pointers, "a row ends with `FILE` `TEST`, `TEST`; `FILE` `TEST`")
                self.assertEqual([pointer for pointer in pointers if not exists(*pointer)], [])


if __name__ == "__main__":
    unittest.main()
