#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
"""Runs the server extension's tests against servers of their own: run_tests.py [WORD]...

Words choose the tests whose name holds one of them. The last line is the count; the exit status is 0 when all passed.
"""
import os
import sys
import time
import unittest

sys.dont_write_bytecode = True
HERE = os.path.dirname(os.path.abspath(__file__))


class Printed(unittest.TestResult):
    """Prints a line for each test when it ends, with the failure and the end of the server's log."""

    passed = 0

    def startTest(self, test):
        super().startTest(test)
        self.began = time.monotonic()

    def addSuccess(self, test):
        super().addSuccess(test)
        self.passed += 1
        print("ok      %s (%.2f s)" % (name_of(test), time.monotonic() - self.began), flush=True)

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self.tell(test, self.failures[-1][1])

    def addError(self, test, err):
        super().addError(test, err)
        self.tell(test, self.errors[-1][1])

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            found = self.failures if issubclass(err[0], test.failureException) else self.errors
            self.tell(subtest, found[-1][1])

    @staticmethod
    def tell(test, text):
        print("FAILED  %s\n%s" % (name_of(test), text), flush=True)
        instance = getattr(test, "instance", None)
        if instance is not None:
            lines = instance.log().splitlines()
            worse = [line for line in lines if "[info]" not in line][-20:]
            print("the server's log ends:\n%s" % "\n".join(worse + ["..."] + lines[-10:]), flush=True)


def name_of(test):
    return test.id().split(".", 1)[-1].replace("_", " ") if isinstance(test, unittest.TestCase) else str(test)


def flatten(suite):
    for each in suite:
        if isinstance(each, unittest.TestSuite):
            yield from flatten(each)
        else:
            yield each


def main():
    tests = flatten(unittest.defaultTestLoader.discover(HERE, pattern="test_*.py"))
    words = sys.argv[1:]
    chosen = [each for each in tests if not words or any(word in each.id() for word in words)]
    result = Printed()
    unittest.TestSuite(chosen).run(result)
    failed = len(result.failures) + len(result.errors)
    print("%d passed, %d failed" % (result.passed, failed))
    return 0 if failed == 0 and result.passed > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
