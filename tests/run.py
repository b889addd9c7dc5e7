#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
"""Builds with the sanitizers and runs the tests, kind by kind; the last line is "N passed, N failed".

Without a kind those of TESTS run. Those of GATES, which need builds of their own or take long, run when they are
named. PUBSUB_TEST_PRESET=coverage builds so that lines are counted, and the kind coverage then reads the counts of the
unit and contract tests that ran before it."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor

ROOT = pathlib.Path(__file__).resolve().parent.parent
PRESET = os.environ.get("PUBSUB_TEST_PRESET", "asan")
BIN = ROOT / "build" / PRESET / "bin"
TESTS = ("style", "unit", "contract", "server", "e2e")
BUILT = {"unit", "contract", "e2e"}  # need the programs of PRESET
GATES = ("peers", "clang", "tidy", "coverage", "installed", "database")
PROGRAM_DEADLINE = 600  # seconds for one test program
COVERED = {"unit", "contract"}  # count the lines that they run, where PRESET counts any
COUNTS = ROOT / "build" / "coverage" / "counts"  # theirs; those of the other kinds are nobody's
NO_COUNTS = ROOT / "build" / "coverage" / "no-counts"

ENVIRONMENT = dict(
    os.environ,
    ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:detect_stack_use_after_return=1",
    UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1",
    PUBSUB_PRESET=PRESET,
    PUBSUB_NO_BUILD="1",
    PUBSUB_EBIN_CACHE=str(ROOT / "build" / "ebin"),
    PYTHONDONTWRITEBYTECODE="1",
)
if PRESET == "coverage":
    ENVIRONMENT["GCOV_PREFIX"] = str(NO_COUNTS)


class Result:
    """The counts of one test program, the seconds it took, its output, and why it did not run if it did not."""

    def __init__(self, name, passed, failed, seconds, output, skipped=""):
        self.name, self.passed, self.failed = name, passed, failed
        self.seconds, self.output, self.skipped = seconds, output, skipped


def run_program(command, **environment):
    """Runs a command; returns (exit status, output). A program that passes its deadline is killed."""
    process = subprocess.Popen(
        command, cwd=ROOT, env=dict(ENVIRONMENT, **environment), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, text=True, errors="replace")
    try:
        output, _ = process.communicate(timeout=PROGRAM_DEADLINE)
        return process.returncode, output
    except subprocess.TimeoutExpired:
        process.kill()
        output, _ = process.communicate()
        return 1, output + f"\nkilled: not done after {PROGRAM_DEADLINE} s\n"


def run_googletest(path):
    start = time.monotonic()
    with tempfile.NamedTemporaryFile(suffix=".json") as report:
        status, output = run_program([str(path), "--gtest_brief=1", f"--gtest_output=json:{report.name}"],
                                     GCOV_PREFIX=str(COUNTS))
        try:
            counts = json.load(open(report.name))
            failed, total = counts["failures"] + counts["errors"], counts["tests"] - counts["disabled"]
        except (ValueError, KeyError):
            failed, total = 1, 1  # it died before it could report
    if status and not failed:  # a leak or another sanitizer report at exit
        failed, total = 1, total + 1
    return Result(path.name, total - failed, failed, time.monotonic() - start, output)


def run_counting(name, command):
    """A program that ends its output with the line "N passed, N failed"."""
    start = time.monotonic()
    status, output = run_program(command)
    found = re.findall(r"^(\d+) passed, (\d+) failed", output, re.MULTILINE)
    passed, failed = map(int, found[-1]) if found else (0, 1)
    if status and not failed:
        failed = 1
    return Result(name, passed, failed, time.monotonic() - start, output)


def run_build(preset):
    """One check: the preset is built. What the compiler says is printed as it comes."""
    print(f"Building ({preset})", flush=True)
    start = time.monotonic()
    command = [str(ROOT / "scripts/build"), preset]
    failed = int(subprocess.run(command, stdin=subprocess.DEVNULL, check=False).returncode != 0)
    return Result(f"build {preset}", 1 - failed, failed, time.monotonic() - start, "The build failed.")


def run_check(name, command):
    """A command whose exit status is all that it says."""
    start = time.monotonic()
    status, output = run_program(command)
    return Result(name, int(not status), int(bool(status)), time.monotonic() - start, output)


def run_aloud(name, command):
    """A longer program that ends with the line "N passed, N failed", or with "skipped: REASON" where it cannot run; its
    other lines are printed as they come."""
    start = time.monotonic()
    passed = failed = None
    skipped = ""
    with subprocess.Popen(command, cwd=ROOT, env=ENVIRONMENT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace") as process:
        for line in process.stdout:
            counts = re.fullmatch(r"(\d+) passed, (\d+) failed\n", line)
            reason = re.fullmatch(r"skipped: (.+)\n", line)
            if counts:
                passed, failed = map(int, counts.groups())
            elif reason:
                passed, failed, skipped = 0, 0, reason[1]
            else:
                print(line, end="", flush=True)
    if failed is None or (process.returncode and not failed):
        passed, failed = passed or 0, 1
    return Result(name, passed, failed, time.monotonic() - start, "The lines above say why.", skipped)


def clear_counts():
    """Before the tests of a build that counts. Some of their processes run as other users."""
    for folder in (COUNTS, NO_COUNTS):
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
        folder.chmod(0o1777)


def tidy_programs():
    """One check for each source of the product, with the commands of the build with clang."""
    if not shutil.which("clang-tidy"):
        yield "clang-tidy", lambda: Result("clang-tidy", 0, 1, 0, "clang-tidy is missing; scripts/install-packages")
        return
    configured, output = run_program(["cmake", "--preset", "clang"])
    if configured:
        yield "configure", lambda: Result("configuring the clang build", 0, 1, 0, output)
        return
    for path in sorted((ROOT / "src").rglob("*.cpp")):
        name = str(path.relative_to(ROOT))
        command = ["clang-tidy", "--quiet", "-p", "build/clang", name]
        yield name, lambda name=name, command=command: run_check(name, command)


def server_program(name, word):
    """The tests of tests/server whose names have the word."""
    command = ["/usr/bin/python3", str(ROOT / "tests/server/run_tests.py"), word]
    return name, lambda: run_counting(f"server/{name}", command)


def programs_of(kind, counted):
    """The test programs of a kind as (name, function without arguments). `counted`: the lines that tests run have been
    counted already."""
    if kind in ("unit", "contract"):
        for path in sorted(BIN.glob(kind + "_*")):
            yield path.name, lambda path=path: run_googletest(path)
    elif kind == "clang":
        yield kind, lambda: run_build("clang")
    elif kind == "tidy":
        yield from tidy_programs()
    elif kind == "coverage":
        read = ["--read"] if counted else []
        yield kind, lambda: run_aloud("coverage", ["/usr/bin/python3", str(ROOT / "tests/coverage.py"), *read])
    elif kind == "installed":
        yield kind, lambda: run_aloud("installed", ["/usr/bin/python3", str(ROOT / "tests/installed/test_machine.py")])
    elif kind == "server":
        for path in sorted((ROOT / "tests/server").glob("test_*.py")):
            if not path.stem.startswith("test_sql"):
                yield server_program(path.stem, path.stem + ".")
    elif kind == "database":
        yield server_program("test_sql", "test_sql.")
        contract = (ROOT / "tests/server/test_sql_contract.py").read_text(encoding="utf-8")
        for module in re.findall(r"^import (test_\w+)$", contract, re.MULTILINE):
            yield server_program(module + " over PostgreSQL", f"test_sql_contract.{module}_")
    else:
        for path in sorted((ROOT / "tests" / kind).glob("test_*.py")):
            command = ["/usr/bin/python3", str(ROOT / "tests/run_unittest.py"), str(path)]
            yield path.stem, lambda path=path, command=command: run_counting(f"{path.parent.name}/{path.stem}", command)


def report(result):
    if result.skipped and not result.failed:
        print(f"SKIPPED {result.name}: {result.skipped}", flush=True)
        return
    state = "ok    " if not result.failed else "FAILED"
    print(f"{state} {result.name}: {result.passed} passed, {result.failed} failed ({result.seconds:.1f} s)",
          flush=True)
    if result.failed:
        print(result.output, flush=True)


def run_stage(kinds, workers, counted):
    """Runs the programs of the kinds side by side; yields their results in the order of the programs."""
    with ThreadPoolExecutor(max_workers=workers) as pool:
        begun = [(kind, [pool.submit(run) for _, run in programs_of(kind, counted)]) for kind in kinds]
        for kind, futures in begun:
            print(f"== {kind}", flush=True)
            if not futures:
                yield Result(kind, 0, 1, 0, f"no test programs of the kind {kind} were found")
            for future in futures:
                yield future.result()


def main(kinds):
    unknown = [kind for kind in kinds if kind not in TESTS + GATES]
    if unknown:
        print(f"unknown kind of test: {', '.join(unknown)}; there are: {', '.join(TESTS + GATES)}", file=sys.stderr)
        return 2
    kinds = [kind for kind in TESTS + GATES if kind in (kinds or TESTS)]
    passed = failed = 0
    counted = PRESET == "coverage" and COVERED <= set(kinds)
    if PRESET == "coverage":
        clear_counts()
    if set(kinds) & BUILT and run_build(PRESET).failed:
        print("The build failed.", flush=True)
        failed = 1
        kinds = [kind for kind in kinds if kind not in BUILT]
    # The tests wait for one another's processes half of their time; the gates compute all of it.
    processors = os.cpu_count() or 2
    stages = [([kind for kind in kinds if kind in TESTS], processors + 1)]
    stages += [([kind], processors) for kind in kinds if kind in GATES]
    for kinds_of_stage, workers in stages:
        for result in run_stage(kinds_of_stage, workers, counted):
            report(result)
            passed, failed = passed + result.passed, failed + result.failed
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
