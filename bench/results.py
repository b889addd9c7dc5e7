# SPDX-License-Identifier: GPL-3.0-only
"""What a run measured, as data: rows, growth series and the machine. One JSON file holds it; the table is made of it.

A row has a name, a unit, the rounds and their medians. A round is [figure, reference], or [figure] for a row without
a reference. `better` says whether "more" or "less" is better. The bound of a row holds for its "ratio", the median of
the rounds' own ratios, or for its "value"; a row without a bound is for comparison only, and so are all rows of a
comparison of two builds, whose references are the figures of the first build.

A series has points, each with its x and the rounds measured there.
"""

import json
import os
import pathlib
import platform
import statistics
import subprocess
import time

VERSION = 1
ROUNDS_OF_A_VERDICT = 3  # fewer may agree by chance
SIGNS = {">=": lambda figure, bound: figure >= bound, "<=": lambda figure, bound: figure <= bound,
         "<": lambda figure, bound: figure < bound}


class Unreadable(Exception):
    """A file does not hold the results of a run; the text says why, for a person to read."""


def number(value):
    """A figure as it is printed: thousands separated, and as many decimals as its size calls for."""
    if value is None:
        return "-"
    size = abs(value)
    decimals = 0 if size >= 100 or value == int(value) else 1 if size >= 10 else 2
    return f"{value:,.{decimals}f}"


def span(values, printed=number):
    """Least to greatest, as it is printed."""
    low, high = printed(min(values)), printed(max(values))
    return low if low == high else f"{low} to {high}"


def two_decimals(value):
    return "-" if value is None else f"{value:.2f}"


def ratios(rounds):
    """The ratio of each round that has a reference other than 0."""
    return [each[0] / each[1] for each in rounds if len(each) == 2 and each[1]]


def is_drawn(row):
    """Whether a chart says more of a row than its line of the table: one count needs none."""
    return bool(row["reference"]) or len(row["rounds"]) > 1


def bound_text(bound):
    return f"{bound['sign']} {bound['value']:,g}" if bound else ""


def machine():
    """Where and when this runs, and how busy the machine is before it begins."""
    def git(*arguments):
        done = subprocess.run(["git", "-C", str(pathlib.Path(__file__).parent), *arguments], capture_output=True,
                              text=True, check=False)
        return done.stdout.strip() if done.returncode == 0 else ""
    return {"date": time.strftime("%Y-%m-%dT%H:%M:%S%z"), "cores": len(os.sched_getaffinity(0)),
            "kernel": platform.release(), "load": [round(each, 2) for each in os.getloadavg()],
            "commit": git("describe", "--always", "--dirty", "--exclude=*")}


class Results:
    """The rows and series of a run. `subjects` names the two builds of a comparison."""

    def __init__(self, kind, quick=False, subjects=()):
        self.data = {"version": VERSION, "kind": kind, "quick": quick, "subjects": list(subjects),
                     "machine": machine(), "rows": [], "series": []}

    @property
    def rows(self):
        return self.data["rows"]

    def add(self, name, unit, reference, rounds, better="more", at_least=None, at_most=None):
        """`rounds` holds (figure, reference) of each round."""
        bound = None
        if at_least is not None or at_most is not None:
            bound = {"of": "ratio", "sign": "<=" if at_least is None else ">=",
                     "value": at_most if at_least is None else at_least}
        self._add(name, unit, reference, rounds, better, bound)

    def add_value(self, name, unit, values, sign, value):
        """A figure that needs no reference: a count, or a size with a bound of its own."""
        self._add(name, unit, "", [(each,) for each in values], "less", {"of": "value", "sign": sign, "value": value})

    def _add(self, name, unit, reference, rounds, better, bound):
        medians = [statistics.median(each[i] for each in rounds) for i in range(len(rounds[0]))]
        own = ratios(rounds)
        ratio = statistics.median(own) if own else None
        judged = bound and (ratio if bound["of"] == "ratio" else medians[0])
        self.rows.append({
            "name": name, "unit": unit, "reference": reference, "rounds": [list(each) for each in rounds],
            "value": medians[0], "reference_value": medians[1] if len(medians) == 2 else None, "ratio": ratio,
            "better": better, "bound": bound,
            "kept": None if bound is None else judged is not None and SIGNS[bound["sign"]](judged, bound["value"])})

    def add_series(self, name, what, unit, reference, points):
        """`points` holds (x, rounds); `what` says what x counts. Points without a reference have rounds of one figure."""
        self.data["series"].append({"name": name, "x": what, "unit": unit, "reference": reference, "points": [
            {"x": x, "rounds": [list(each) for each in rounds]} for x, rounds in points]})

    def all_kept(self):
        return all(row["kept"] is not False for row in self.rows)

    def print_table(self):
        print("| Figure | Measured | Reference of the same run | Ratio | Bound | |\n|---|---|---|---|---|---|")
        for row in self.rows:
            *texts, word = cells(row)
            print("| " + " | ".join([*texts, changed(row) if self.data["subjects"] else word]) + " |")

    def write(self, path):
        self.data["machine"]["load_after"] = [round(each, 2) for each in os.getloadavg()]
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(json.dumps(self.data, indent=1) + "\n", encoding="utf-8")


def verdict(row):
    """In words, whether the bound was kept; nothing for a row without one."""
    if row["bound"]:
        return "kept" if row["kept"] else "MISSED"
    return ""


def changed(row):
    """For two builds: "better" or "worse" when every round of at least three says so, else "no difference"."""
    own = ratios(row["rounds"])
    if len(own) < ROUNDS_OF_A_VERDICT or min(own) <= 1 <= max(own):
        return "no difference"
    return "better" if (min(own) > 1) == (row["better"] == "more") else "worse"


def cells(row):
    """A row's texts: figure, measured, reference, ratio with its spread, bound, verdict."""
    own = ratios(row["rounds"])
    reference = f"{row['reference']}: {number(row['reference_value'])}" if row["reference"] else ""
    ratio = "" if row["ratio"] is None else two_decimals(row["ratio"])
    if own and len(own) > 1:
        ratio += f" ({span(own, two_decimals)})"
    return (row["name"], f"{number(row['value'])} {row['unit']}".strip(), reference, ratio, bound_text(row["bound"]),
            verdict(row))


def read(path):
    """The results that a run wrote."""
    try:
        data = json.loads(pathlib.Path(path).read_text(encoding="utf-8"))
    except OSError as error:
        raise Unreadable(f"{path} cannot be read: {error.strerror}") from error
    except ValueError as error:
        raise Unreadable(f"{path} is not JSON: {error}") from error
    if not isinstance(data, dict) or "rows" not in data or data.get("version") != VERSION:
        raise Unreadable(f"{path} does not hold the results of a run of this version of ./bench.sh")
    return data
