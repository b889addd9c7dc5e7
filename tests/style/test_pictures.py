# SPDX-License-Identifier: GPL-3.0-only
"""The pictures of the documents are drawn from their sources, and the sources are true to the tree."""

import pathlib
import re
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree

from test_includes import allowed, product_sources

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PICTURES = ROOT / "docs/pictures"
FOLDERS = (PICTURES / "folders.txt").read_text(encoding="utf-8")
ROADS = (PICTURES / "roads.txt").read_text(encoding="utf-8")


class Drawn(unittest.TestCase):
    def test_pictures_are_what_the_script_draws_from_their_sources(self):
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run([str(ROOT / "scripts/draw-pictures"), folder], check=True)
            for source in PICTURES.glob("*.txt"):
                drawn = pathlib.Path(folder, source.with_suffix(".svg").name)
                with self.subTest(drawn.name):
                    self.assertTrue(drawn.exists(), "the script draws every source")
                    self.assertTrue(drawn.read_bytes() == (PICTURES / drawn.name).read_bytes(),
                                    "out of date: run scripts/draw-pictures")

    def test_pictures_are_well_formed_and_a_page_shows_each(self):
        pages = "".join(page.read_text(encoding="utf-8") for page in (ROOT / "docs").glob("*.md"))
        pictures = list(PICTURES.glob("*.svg"))
        self.assertTrue(pictures)
        for picture in pictures:
            with self.subTest(picture.name):
                root = xml.etree.ElementTree.parse(picture).getroot()
                self.assertEqual(root.tag, "{http://www.w3.org/2000/svg}svg")
                self.assertTrue(f"](pictures/{picture.name})" in pages, "no page shows it")


class Folders(unittest.TestCase):
    boxes = re.findall(r"^box (\S+) ", FOLDERS, re.MULTILINE)
    arrows = re.findall(r"^arrow src/(\S+) src/(\S+)$", FOLDERS, re.MULTILINE)

    def test_every_folder_of_the_product_is_a_box_and_no_other(self):
        self.assertCountEqual(self.boxes, {f"src/{path.parent}" for path in product_sources()})

    def test_every_arrow_is_an_include_that_is_allowed(self):
        self.assertTrue(self.arrows)
        wrong = [pair for pair in self.arrows if not allowed(pathlib.PurePosixPath(pair[0], "any.cpp"), f"{pair[1]}/any.h")]
        self.assertEqual(wrong, [])

    def test_every_arrow_is_an_include_that_is_there(self):
        included = {(str(path.parent), str(pathlib.PurePosixPath(header).parent)) for path in product_sources()
                    for header in re.findall(r'#include "(.+)"', (ROOT / "src" / path).read_text(encoding="utf-8"))}
        self.assertEqual([pair for pair in self.arrows if pair not in included], [])


class Roads(unittest.TestCase):
    def test_every_function_member_and_file_that_is_named_is_in_the_product(self):
        product = "".join((ROOT / "src" / path).read_text(encoding="utf-8") for path in product_sources())
        steps = "\n".join(line for line in ROADS.splitlines() if not line.startswith("#"))
        names = re.findall(r"(\w+)\(", steps) + re.findall(r"\bm_\w+", steps)
        self.assertTrue(names)
        self.assertEqual([name for name in names if not re.search(rf"\b{name}\b", product)], [])
        for folder, file in re.findall(r"^party \w+ \[\w+\]: (\w+/) \| (\w+\.cpp)$", steps, re.MULTILINE):
            self.assertTrue((ROOT / "src" / folder / file).is_file(), folder + file)


if __name__ == "__main__":
    unittest.main()
