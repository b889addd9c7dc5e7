# SPDX-License-Identifier: GPL-3.0-only
"""Every test that the page of web push names beside a sentence of a standard exists."""

import pathlib
import unittest

from pointers import exists, pointers_of

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGE = (ROOT / "docs/unifiedpush.md").read_text(encoding="utf-8")


def rows():
    """(row, cell of tests) for each row of the tables whose last column is the test."""
    headed = False
    for line in PAGE.splitlines():
        if line.startswith("|") and line.endswith(" | Test |"):
            headed = True
        elif not line.startswith("|"):
            headed = False
        elif headed and not line.startswith("|---"):
            yield line, line[2:-2].rpartition(" | ")[2]


class UnifiedPushPage(unittest.TestCase):
    def test_every_row_points_to_tests_that_exist_or_says_that_there_is_nothing(self):
        self.assertTrue(list(rows()))
        for row, tests in rows():
            with self.subTest(row):
                pointers = pointers_of(tests)
                self.assertTrue(pointers or tests == "–", "a row ends with `FILE` `TEST`, `TEST`; `FILE` `TEST`")
                self.assertEqual([pointer for pointer in pointers if not exists(*pointer)], [])


if __name__ == "__main__":
    unittest.main()
