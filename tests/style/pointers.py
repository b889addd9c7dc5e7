# SPDX-License-Identifier: GPL-3.0-only
"""Pointers from a page to tests: `FILE` `TEST`, `TEST`; `FILE` `TEST`, with files below tests/."""

import ast
import functools
import pathlib
import re

TESTS = pathlib.Path(__file__).resolve().parent.parent


@functools.lru_cache(maxsize=None)
def _python_names(path):
    names = set()
    for each in ast.parse(path.read_text(encoding="utf-8")).body:
        if isinstance(each, ast.ClassDef):
            cases = {method.name for method in each.body if isinstance(method, ast.FunctionDef)}
            names |= {each.name} | cases | {f"{each.name}.{case}" for case in cases}
    return names


def exists(file, name):
    """Whether `file` has the test: a case, SUITE.CASE, or a whole suite or class."""
    path = TESTS / file
    if not path.is_file():
        return False
    if file.endswith(".py"):
        return name in _python_names(path)
    source = path.read_text(encoding="utf-8")
    suite, _, case = name.partition(".")
    if case:
        return re.search(rf"\bTEST(_F|_P)?\({suite},\s*{case}\)", source) is not None
    return re.search(rf"\b(TEST(_F|_P)?\(|INSTANTIATE_TEST_SUITE_P\([^,]*,\s*){suite},", source) is not None


def pointers_of(cell):
    """The (file, test) pairs of a table cell; none when it is not of the form above."""
    pairs = []
    for part in cell.split("; "):
        found = re.fullmatch(r"`([\w/]+\.(?:py|cpp))` (`[\w.]+`(?:, `[\w.]+`)*)", part)
        if not found:
            return []
        pairs += [(found.group(1), name) for name in re.findall(r"`([\w.]+)`", found.group(2))]
    return pairs
