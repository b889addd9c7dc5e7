#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
"""Runs the unittest cases of one file and ends with the line "N passed, N failed"."""

import importlib.util
import pathlib
import sys
import unittest


def main(path):
    path = pathlib.Path(path).resolve()
    sys.path.insert(0, str(path.parent))
    spec = importlib.util.spec_from_file_location(path.stem, path)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    suite = unittest.defaultTestLoader.loadTestsFromModule(module)
    result = unittest.TextTestRunner(stream=sys.stdout, verbosity=2).run(suite)
    failed = len(result.failures) + len(result.errors) + len(result.unexpectedSuccesses) + len(result.skipped)
    print(f"{max(result.testsRun - failed, 0)} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(f"usage: {sys.argv[0]} FILE (one: each file's tests run in a process of their own)")
    sys.exit(main(sys.argv[1]))
