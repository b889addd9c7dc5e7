# SPDX-License-Identifier: GPL-3.0-only
"""Shell scripts have no findings, the benchmarks start, and the files of unit tests are named for what they are."""

import pathlib
import re
import shutil
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
SHELL = re.compile(rb"#!.*\b(ba|da)?sh\b")
GOOGLETEST_CASE = re.compile(r"^(TYPED_)?TEST(_F|_P)?\(", re.MULTILINE)


def tracked(*patterns):
    listed = subprocess.run(["git", "-C", str(ROOT), "ls-files", "-z", *patterns], check=True, capture_output=True,
                            text=True).stdout
    return [ROOT / name for name in listed.split("\0") if name and (ROOT / name).is_file()]


def first_line(path):
    with open(path, "rb") as file:
        return file.readline()


class Scripts(unittest.TestCase):
    def test_shell_scripts_have_no_findings(self):
        self.assertTrue(shutil.which("shellcheck"), "shellcheck is missing; run scripts/install-packages")
        scripts = [str(path) for path in tracked() if SHELL.match(first_line(path))]
        self.assertIn(str(ROOT / "demo"), scripts)
        done = subprocess.run(["shellcheck", *scripts], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              check=False)
        self.assertEqual(done.returncode, 0, done.stdout)


class Benchmarks(unittest.TestCase):
    def test_each_program_answers_a_request_for_help(self):
        programs = [path for path in tracked("bench/*.py") if b"ArgumentParser" in path.read_bytes()]
        self.assertIn(ROOT / "bench/server_growth.py", programs)
        for program in programs:
            done = subprocess.run(["/usr/bin/python3", str(program), "--help"], stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True, check=False)
            self.assertEqual(done.returncode, 0, done.stdout)
            self.assertTrue(done.stdout.startswith("usage:"), done.stdout)


class UnitTests(unittest.TestCase):
    def test_the_files_with_the_cases_and_no_others_end_in_test(self):
        wrong = [str(path.relative_to(ROOT)) for path in tracked("tests/unit/*.cpp")
                 if bool(GOOGLETEST_CASE.search(path.read_text(encoding="utf-8"))) != path.name.endswith("_test.cpp")]
        self.assertEqual(wrong, [])


if __name__ == "__main__":
    unittest.main()
