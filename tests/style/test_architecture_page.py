# SPDX-License-Identifier: GPL-3.0-only
"""The page of the architecture keeps up with the session: its table of owners names every map and list."""

import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGE = (ROOT / "docs/architecture.md").read_text(encoding="utf-8")
SESSION = (ROOT / "src/session/pubsubsession.h").read_text(encoding="utf-8")


def containers():
    """The maps, lists and sets among the session's members."""
    code = re.sub(r"//.*", "", SESSION)
    return re.findall(r"^ +std::(?:unordered_)?(?:map|list|set|deque|vector)<[^;()]*>\s+(\w+);", code, re.MULTILINE)


def owners():
    """Member -> files and folders that write it, as the table has them."""
    section = PAGE.split("\n## Who owns what\n")[1]
    rows = [line[2:].split(" | ") for line in section.splitlines() if re.match(r"\| `\w+`", line)]
    return {member: re.findall(r"`([\w/]+(?:\.cpp|/))`", row[1])
            for row in rows for member in re.findall(r"`(\w+)`", row[0]) if len(row) == 4}


class ArchitecturePage(unittest.TestCase):
    def test_every_map_and_list_of_the_session_has_its_owner(self):
        self.assertTrue(containers())
        self.assertEqual(sorted(set(containers()) - set(owners())), [])

    def test_every_owner_is_a_file_that_names_what_it_writes(self):
        for member, files in owners().items():
            with self.subTest(member):
                self.assertTrue(files)
                first = (ROOT / "src" / files[0]).read_text(encoding="utf-8")
                self.assertTrue(re.search(rf"\b{member}\b", first), f"{files[0]} does not name it")
                self.assertEqual([file for file in files if not (ROOT / "src" / file).exists()], [])

    def test_every_member_and_source_that_is_named_exists(self):
        sources = "".join(path.read_text(encoding="utf-8") for path in (ROOT / "src").rglob("*.h"))
        self.assertEqual([name for name in re.findall(r"`(m_\w+)`", PAGE) if not re.search(rf"\b{name}\b", sources)], [])
        paths = re.findall(r"`((?:src|tests|docs|scripts|ejabberd)/[\w/.-]+)`", PAGE)
        self.assertEqual([path for path in paths if not (ROOT / path).exists()], [])


if __name__ == "__main__":
    unittest.main()
