# SPDX-License-Identifier: GPL-3.0-only
"""The pages of the root keep up with the tree: the README's map names every folder, the changelog the version."""

import pathlib
import re
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
README = (ROOT / "README.md").read_text(encoding="utf-8")


def tracked():
    listed = subprocess.run(["git", "-C", str(ROOT), "ls-files"], check=True, capture_output=True, text=True).stdout
    return [pathlib.PurePosixPath(line) for line in listed.splitlines()]


def folders(depth, *parents):
    """The folders of the tree that lie `depth` levels deep below the given parents."""
    return {"/".join(path.parts[:depth]) for path in tracked()
            if len(path.parts) > depth and path.parts[:len(parents)] == parents and not path.parts[0].startswith(".")}


class Map(unittest.TestCase):
    def rows(self):
        section = README.split("\n## Map\n")[1].split("\n## ")[0]
        return [line for line in section.splitlines() if line.startswith("| `")]

    def named(self):
        return re.findall(r"`([\w/.-]+)/`", "\n".join(row.split(" | ")[0] for row in self.rows()))

    def test_names_every_folder_of_the_root_and_of_the_product(self):
        self.assertEqual(sorted((folders(1) | folders(2, "src")) - {"src"} - set(self.named())), [])

    def test_names_no_folder_that_is_not_there_and_none_twice(self):
        named = self.named()
        self.assertEqual([name for name in named if not (ROOT / name).is_dir()], [])
        self.assertEqual(sorted(named), sorted(set(named)))

    def test_names_every_page_of_the_documents(self):
        pages = {str(path) for path in tracked() if path.parts[0] == "docs" and path.suffix == ".md"}
        self.assertEqual(sorted(pages - set(re.findall(r"\]\((docs/[\w.-]+)\)", README))), [])


class Commands(unittest.TestCase):
    def test_every_command_that_a_page_names_can_be_run(self):
        for page in ("README.md", "CONTRIBUTING.md"):
            text = (ROOT / page).read_text(encoding="utf-8")
            commands = re.findall(r"(?<![\w.])\./([\w.-]+)", text) + re.findall(r"\b(scripts/[\w-]+)(?![\w.-])", text)
            self.assertTrue(commands)
            for command in sorted(set(commands)):
                with self.subTest(page=page, command=command):
                    self.assertTrue((ROOT / command).is_file() and (ROOT / command).stat().st_mode & 0o111)


    def test_contributors_are_told_every_kind_of_test(self):
        text = (ROOT / "CONTRIBUTING.md").read_text(encoding="utf-8")
        told = re.search(r"# one kind: ([\w, ]+)$", text, re.MULTILINE).group(1).split(", ")
        runner = (ROOT / "tests/run.py").read_text(encoding="utf-8")
        kinds = [re.search(rf"^{name} = \((.*)\)$", runner, re.MULTILINE).group(1) for name in ("TESTS", "GATES")]
        self.assertCountEqual(told, re.findall(r'"(\w+)"', ",".join(kinds)))


class Links(unittest.TestCase):
    def test_every_link_to_a_file_of_the_tree_leads_to_one(self):
        wrong = []
        for page in tracked():
            if page.suffix != ".md" or not (ROOT / page).exists():
                continue
            for target in re.findall(r"\]\(([^)#\s]+)", (ROOT / page).read_text(encoding="utf-8")):
                if "://" not in target and not (ROOT / page.parent / target).exists():
                    wrong.append(f"{page}: {target}")
        self.assertEqual(wrong, [])


class Changelog(unittest.TestCase):
    def test_begins_with_the_version_that_is_built(self):
        build = (ROOT / "CMakeLists.txt").read_text(encoding="utf-8")
        version = re.search(r"project\(pubsubservice VERSION ([\d.]+)", build).group(1)
        changelog = (ROOT / "CHANGELOG.md").read_text(encoding="utf-8")
        first = re.search(r"^## (\S+) - \d{4}-\d{2}-\d{2}$", changelog, re.MULTILINE)
        self.assertTrue(first, "a version is a heading: ## VERSION - YEAR-MONTH-DAY")
        self.assertEqual(first.group(1), version)


if __name__ == "__main__":
    unittest.main()
