# SPDX-License-Identifier: GPL-3.0-only
"""The page of the architecture keeps up with the session: its table of owners names every map and list."""

import pathlib
import re
import unittest

from test_owners import WRITERS

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGE = (ROOT / "docs/architecture.md").read_text(encoding="utf-8")
SESSION = (ROOT / "src/session/pubsubsession.h").read_text(encoding="utf-8")


def containers():
    """The maps, lists and sets among the session's members."""
    code = re.sub(r"//.*", "", SESSION)
    return re.findall(r"^ +std::(?:unordered_)?(?:map|list|set|deque|vector)<[^;()]*>\s+(\w+);", code, re.MULTILINE)


def owners():
    """Member -> the files that write it and those that call them, as the table has them."""
    section = PAGE.split("\n## Who owns what\n")[1].split("\n\n| Pointer")[0]
    rows = [line[2:].split(" | ") for line in section.splitlines() if re.match(r"\| `\w+`", line)]
    return {member: [re.findall(r"`([\w/]+(?:\.cpp|/))`", part) for part in row[1].partition(", for ")[::2]]
            for row in rows for member in re.findall(r"`(\w+)`", row[0])}


class ArchitecturePage(unittest.TestCase):
    def test_every_map_and_list_of_the_session_has_its_owner(self):
        self.assertTrue(containers())
        self.assertEqual(sorted(set(containers()) - set(owners())), [])

    def test_the_owners_are_those_that_may_write(self):
        for member, (writers, callers) in owners().items():
            with self.subTest(member):
                self.assertEqual(set(writers), WRITERS[member])
                self.assertEqual([file for file in callers if not (ROOT / "src" / file).exists()], [])

    def test_every_member_and_source_that_is_named_exists(self):
        sources = "".join(path.read_text(encoding="utf-8") for path in (ROOT / "src").rglob("*.h"))
        self.assertEqual([name for name in re.findall(r"`(m_\w+)`", PAGE) if not re.search(rf"\b{name}\b", sources)], [])
        paths = re.findall(r"`((?:src|tests|docs|scripts|ejabberd)/[\w/.-]+)`", PAGE)
        self.assertEqual([path for path in paths if not (ROOT / path).exists()], [])


if __name__ == "__main__":
    unittest.main()
