#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
"""Which lines and branches of the product the unit and contract tests run, read from gcov.

With `--read` the tests are not run: their counts are there, from a run of PUBSUB_TEST_PRESET=coverage. Prints a table by
folder. In the folders of GATED each line that no test runs is listed and is a failure, unless the source says why:
`// uncovered: REASON` at the end of the line, or on a line of its own for the rest of the block that follows it. A reason
at lines that the tests run is a failure too. The last line is "N passed, N failed", one check for each of these
folders."""

import collections
import json
import pathlib
import re
import shutil
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

ROOT = pathlib.Path(__file__).resolve().parent.parent
SOURCES = ROOT / "src"
BUILD = ROOT / "build" / "coverage"
COUNTS = BUILD / "counts"  # of tests that ran outside of this program, below the absolute path of the build
GATED = ("service", "session", "request", "nodes", "delivery", "endpoints", "maintenance",
         "unifiedpush")
PROGRAM_DEADLINE = 600  # seconds
REASON = re.compile(r"^(\s*)(\S.*)?// uncovered: \S")
BRACES = re.compile(r"^\s*[{}();,]+\s*(//.*)?$")  # where gcc enters what it runs when an exception passes


def run_program(program):
    """A test program's exit status and output. The counts of the libraries are added up under a lock by gcc."""
    return subprocess.run([str(program), "--gtest_brief=1"], cwd=ROOT, stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, errors="replace", timeout=PROGRAM_DEADLINE, check=False)


def forget_counts():
    for counts in BUILD.rglob("*.gcda"):
        if not counts.is_relative_to(COUNTS):
            counts.unlink()


def take_counts():
    """Puts the counts of tests that have run already where gcov looks for them; the names of those that are missing."""
    forget_counts()
    place = COUNTS / BUILD.relative_to("/")
    for counts in place.rglob("*.gcda"):
        shutil.copy(counts, BUILD / counts.relative_to(place))
    return [] if place.is_dir() else [f"there are no counts in {COUNTS}"]


def run_tests():
    """Builds and runs; the names of the programs that failed."""
    if subprocess.run([str(ROOT / "scripts/build"), "coverage"], check=False).returncode:
        print("The build failed.\n0 passed, 1 failed")
        sys.exit(1)
    forget_counts()
    programs = sorted([*BUILD.glob("bin/unit_*"), *BUILD.glob("bin/contract_*")])
    failed = []
    with ThreadPoolExecutor(max_workers=2) as pool:
        for program, done in zip(programs, pool.map(run_program, programs)):
            print(f"{'FAILED' if done.returncode else 'ran   '} {program.name}", flush=True)
            if done.returncode:
                print(done.stdout + done.stderr)
                failed.append(program.name)
    return failed


def reports():
    """What gcov says of each object file, one JSON document each. A file without counts was never run. The objects
    of the tests are read too: the linker may take their copy of a function that stands in a header."""
    notes = sorted(map(str, BUILD.rglob("*.gcno")))
    command = ["gcov", "--json-format", "--stdout", "--branch-probabilities", "--relative-only", "--source-prefix",
               str(SOURCES)]
    for start in range(0, len(notes), 40):
        done = subprocess.run([*command, *notes[start:start + 40]], cwd=BUILD, capture_output=True, text=True,
                              check=True)
        for line in done.stdout.splitlines():
            yield json.loads(line)


def conditions(found):
    """A line's branches without the pairs of its calls, "returns" and "throws", which say nothing of the tests."""
    kept = []
    for branch in found:
        if branch["throw"]:
            del kept[-1:]
        else:
            kept.append(branch)
    return kept


def read_counts():
    """For each source: runs by line, and runs by branch."""
    lines = collections.defaultdict(collections.Counter)
    branches = collections.defaultdict(collections.Counter)
    for report in reports():
        for entry in report["files"]:
            path = pathlib.Path(report["current_working_directory"], entry["file"]).resolve()
            if not path.is_relative_to(SOURCES) or not path.exists():
                continue
            source = str(path.relative_to(SOURCES))
            starts = {function["name"]: (function["start_line"], function["start_column"])
                      for function in entry["functions"]}
            for line in entry["lines"]:
                number = line["line_number"]
                lines[source][number] += line["count"]
                # The instances of a template are one; a function and its lambda on the same line are two.
                start = starts.get(line.get("function_name"))
                for place, branch in enumerate(conditions(line["branches"])):
                    branches[source][number, start, place] += branch["count"]
    for source, counts in lines.items():
        for number, text in enumerate((SOURCES / source).read_text(encoding="utf-8").splitlines(), 1):
            if BRACES.match(text):
                counts.pop(number, None)
    return lines, branches


def reasons(text):
    """For the line of each reason in a source: the numbers of the lines that it explains."""
    explained = {}
    opened = None  # the reason that holds for the rest of its block, and the indentation of that
    for number, line in enumerate(text.splitlines(), 1):
        indent = len(line) - len(line.lstrip())
        if opened and line.strip() and indent < opened[1]:
            opened = None
        found = REASON.match(line)
        if found and found.group(2):
            explained[number] = {number}
        elif found:
            opened = number, indent
            explained[number] = set()
        elif opened:
            explained[opened[0]].add(number)
    return explained


def ranges(numbers):
    """3, 4, 5, 8 as "3-5, 8"."""
    spans = []
    for number in sorted(numbers):
        if spans and spans[-1][1] == number - 1:
            spans[-1][1] = number
        else:
            spans.append([number, number])
    return ", ".join(str(first) if first == last else f"{first}-{last}" for first, last in spans)


def percent(counts):
    return f"{100 * sum(map(bool, counts)) / len(counts):6.1f} %" if counts else "       -"


def folder_of(source):
    return source.rpartition("/")[0]


def check(source, counts):
    """Whether each line that no test runs has a reason, and each reason such a line; prints those that have not."""
    explained = reasons((SOURCES / source).read_text(encoding="utf-8"))
    bare = {number for number, count in counts.items() if not count}
    needless = {number for number, lines in explained.items() if not lines & bare}
    bare -= set().union(*explained.values())
    if bare:
        print(f"no test runs src/{source}: {ranges(bare)}")
    if needless:
        print(f"the tests run what a reason says they do not, src/{source}: {ranges(needless)}")
    return not bare and not needless


def main():
    broken = take_counts() if sys.argv[1:] == ["--read"] else run_tests()
    lines, branches = read_counts()
    print(f"{'folder':<16} {'lines':>6} {'covered':>8} {'branches':>9} {'covered':>8}")
    for folder in sorted(set(map(folder_of, lines))):
        of_lines = [count for source in lines if folder_of(source) == folder for count in lines[source].values()]
        of_branches = [count for source in lines if folder_of(source) == folder for count in branches[source].values()]
        print(f"{folder:<16} {len(of_lines):>6} {percent(of_lines)} {len(of_branches):>9} {percent(of_branches)}")

    failed = 0
    for folder in GATED:
        sources = sorted(source for source in lines if folder_of(source) == folder)
        failed += not sources or not all([check(source, lines[source]) for source in sources])
    if failed:
        print("A line that no test runs needs one, or the reason at its place: // uncovered: REASON")
    if broken:
        print(f"failed: {', '.join(broken)}")
        failed += 1
    print(f"{len(GATED) + bool(broken) - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
