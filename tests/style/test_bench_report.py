# SPDX-License-Identifier: GPL-3.0-only
"""The benchmark's results as data, and the report that is drawn from them: every row and series is there, marks and
bound lines stand where their values say, and the page loads nothing."""

import contextlib
import html
import io
import json
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ET

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "bench"))
import builds  # noqa: E402
import report  # noqa: E402
import results  # noqa: E402

NASTY = "<script>alert(\"x\")</script> & 'y'"


def device_run():
    run = results.Results("device")
    run.add("calls", "calls/s", "echo", [(90, 100), (105, 100), (110, 100)], at_least=0.9)
    run.add("CPU a call", "us", "echo", [(6, 4), (7, 4), (5, 4)], better="less", at_most=1.25)
    run.add(NASTY, NASTY, NASTY, [(1, 2), (2, 2)], at_least=0.5)
    run.add("beside another", "us", "broker", [(3, 1), (4, 1)], better="less")
    run.add_value("bytes written", "bytes", [700, 1300, 800], "<", 1000)
    run.add_value("switches", "", [2], "<=", 0)
    run.add_series("publishing", "items held", "items/s", "engine",
                   [(0, [(50, 100), (60, 110)]), (300, [(40, 100), (45, 90)]), (1000, [(30, 95), (20, 99)])])
    run.add_series(NASTY, NASTY, NASTY, "", [(1, [(5,), (6,)]), (10, [(6,), (7,)]), (100, [(7,), (8,)])])
    return run


def compared_run():
    run = results.Results("server", subjects=("/builds/<old>", "/builds/new"))
    run.add("faster", "items/s", "A", [(12, 10), (13, 10), (11, 10)])
    run.add("slower", "us", "A", [(12, 10), (13, 10), (11, 10)], better="less")
    run.add("as before", "items/s", "A", [(12, 10), (8, 10), (13, 10)])
    run.add("two rounds", "items/s", "A", [(12, 10), (13, 10)])
    return run


def row(run, name):
    return next(each for each in run.data["rows"] if each["name"] == name)


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as folder:
            files = [pathlib.Path(folder, name) for name in ("device.json", "compare.json")]
            cls.runs = [device_run(), compared_run()]
            for run, path in zip(cls.runs, files):
                run.write(path)
            target = pathlib.Path(folder, "new", "report.html")
            report.write(files, target)
            cls.text = target.read_text(encoding="utf-8")
        cls.pictures = [ET.fromstring(each) for each in re.findall(r"<svg.*?</svg>", cls.text, re.DOTALL)]

    def assert_on_page(self, words):
        self.assertTrue(words in self.text, f"not on the page: {words}")

    def picture(self, name):
        return next(each for each in self.pictures if each.findtext("title") == name)

    @staticmethod
    def marks(picture, kind):
        return [each for each in picture.iter() if kind in each.get("class", "").split() and each.get("data-value")]

    @staticmethod
    def place(each):
        """Where a mark or a line stands from top to bottom."""
        if each.tag == "rect":
            return float(each.get("y")) + float(each.get("height")) / 2
        return float(each.get("cy") or each.get("y1"))

    def axis(self, picture, left):
        """A function from values to places: the axis of the plot that begins at `left`, by its least and its greatest
        line."""
        lines = {float(each.get("data-tick")): float(each.get("y1")) for each in picture.iter("line")
                 if each.get("data-tick") and (float(each.get("x1")) > 450) == left}
        low, high = min(lines), max(lines)
        self.assertGreater(lines[low], lines[high])
        return lambda value: lines[low] + (lines[high] - lines[low]) * (value - low) / (high - low)

    def test_every_row_is_in_the_tables_and_every_row_with_rounds_has_a_chart(self):
        rows = [each for run in self.runs for each in run.rows]
        for each in rows:
            self.assert_on_page(html.escape(each["name"]))
        series = [each["name"] for each in self.runs[0].data["series"]]
        self.assertEqual(sorted(each.findtext("title") for each in self.pictures),
                         sorted([each["name"] for each in rows if each["name"] != "switches"] + series))

    def test_every_chart_has_a_title_and_a_description_and_a_table_beside_it(self):
        self.assertEqual(self.text.count('<section class="card"'), len(self.pictures))
        for card in re.findall(r'<section class="card".*?</section>', self.text, re.DOTALL):
            self.assertIn("<svg", card)
            self.assertIn("<table>", card)
        identities = re.findall(r'\bid="([^"]*)"', self.text)
        self.assertEqual(len(identities), len(set(identities)))
        for each in self.pictures:
            self.assertEqual(each.get("role"), "img")
            self.assertEqual(each.get("aria-labelledby").split(),
                             [each.find("title").get("id"), each.find("desc").get("id")])
            self.assertTrue(each.findtext("desc"))

    def test_the_page_loads_nothing(self):
        self.assertEqual(re.findall(r"https?:|//[a-z]|@import|url\(|<script|<link|<img|<iframe|\bsrc=", self.text), [])
        for target in re.findall(r'href="([^"]*)"', self.text):
            self.assert_on_page(f'id="{target.removeprefix("#")}"')
            self.assertTrue(target.startswith("#"), target)

    def test_texts_are_escaped(self):
        self.assertFalse(re.findall("<script|<old>", self.text))
        self.assert_on_page("A is /builds/&lt;old&gt;")
        self.assertEqual(self.picture(NASTY).findtext("title"), NASTY)

    def test_marks_of_both_series_stand_where_their_values_say(self):
        picture, rounds = self.picture("calls"), row(self.runs[0], "calls")["rounds"]
        figures, ratios = self.axis(picture, False), self.axis(picture, True)
        theirs = self.marks(picture, "theirs")
        self.assertEqual([float(each.get("data-value")) for each in theirs], [each[1] for each in rounds])
        ours = self.marks(picture, "ours")
        self.assertEqual([float(each.get("data-value")) for each in ours],
                         [each[0] for each in rounds] + [each[0] / each[1] for each in rounds])
        for each, at in zip(theirs + ours, [figures] * 6 + [ratios] * 3):
            self.assertAlmostEqual(self.place(each), at(float(each.get("data-value"))), delta=0.2)

    def test_the_bound_is_a_line_where_its_value_says(self):
        for name, of_ratio, value, words in (("calls", True, 0.9, "bound >= 0.9"), ("CPU a call", True, 1.25, "bound <= 1.25"),
                                             ("bytes written", False, 1000, "bound < 1,000")):
            with self.subTest(name):
                picture = self.picture(name)
                lines = [each for each in picture.iter("line") if each.get("class") == "bound"]
                self.assertEqual([float(each.get("data-value")) for each in lines], [value])
                self.assertAlmostEqual(self.place(lines[0]), self.axis(picture, of_ratio)(value), delta=0.1)
                self.assertIn(words, [each.text for each in picture.iter("text")])
        self.assertEqual([each for each in self.picture("beside another").iter() if each.get("class") == "bound"], [])

    def test_missed_bounds_are_marked_and_kept_ones_are_not(self):
        self.assert_on_page("3 of 5 bounds were kept")
        self.assert_on_page("Missed: CPU a call; switches</p>")
        self.assert_on_page("<h3>CPU a call – MISSED</h3>")
        self.assert_on_page("<h3>calls</h3>")
        self.assertEqual(len(self.marks(self.picture("CPU a call"), "missed")), 3)
        self.assertEqual(self.marks(self.picture("calls"), "missed"), [])

    def test_growth_is_drawn_through_the_medians(self):
        picture = self.picture("publishing")
        at, points = self.axis(picture, False), self.runs[0].data["series"][0]["points"]
        for column, kind in enumerate(("ours", "theirs")):
            medians = [statistics.median(each[column] for each in point["rounds"]) for point in points]
            marks = self.marks(picture, kind)
            self.assertEqual([float(each.get("data-value")) for each in marks], medians)
            for each, median in zip(marks, medians):
                self.assertAlmostEqual(self.place(each), at(median), delta=0.2)

    def test_growth_is_scaled_evenly_from_0_and_else_by_the_logarithm(self):
        by_logarithm = [each for each in self.pictures if each.findtext("title") == NASTY][-1]
        for picture, part in ((self.picture("publishing"), 0.3), (by_logarithm, 0.5)):
            across = [float(each.get("cx")) for each in self.marks(picture, "ours")]
            self.assertAlmostEqual((across[1] - across[0]) / (across[2] - across[0]), part, delta=0.01)

    def test_two_builds_are_called_better_or_worse_only_when_every_round_says_so(self):
        lines = {name: re.search(rf'{name}</a></th>.*?class="words ([a-z ]+)"', self.text).group(1)
                 for name in ("faster", "slower", "as before", "two rounds")}
        self.assertEqual(lines, {"faster": "better", "slower": "worse", "as before": "no difference",
                                 "two rounds": "no difference"})
        with contextlib.redirect_stdout(io.StringIO()) as output:
            self.runs[1].print_table()
        self.assertEqual([line.rsplit(" | ", 1)[1] for line in output.getvalue().splitlines()[2:]],
                         ["better |", "worse |", "no difference |", "no difference |"])


class Data(unittest.TestCase):
    def test_a_row_holds_the_rounds_their_medians_and_whether_the_bound_was_kept(self):
        run = device_run()
        self.assertEqual(row(run, "calls"), {
            "name": "calls", "unit": "calls/s", "reference": "echo", "rounds": [[90, 100], [105, 100], [110, 100]],
            "value": 105, "reference_value": 100, "ratio": 1.05, "better": "more",
            "bound": {"of": "ratio", "sign": ">=", "value": 0.9}, "kept": True})
        self.assertEqual([(each["name"], each["kept"]) for each in run.rows[1:] if each["name"] != NASTY],
                         [("CPU a call", False), ("beside another", None), ("bytes written", True), ("switches", False)])
        self.assertFalse(run.all_kept())
        self.assertTrue(compared_run().all_kept())

    def test_a_ratio_is_the_median_of_the_rounds_own(self):
        run = results.Results("device")
        run.add("x", "", "y", [(1, 10), (20, 10), (30, 100)], at_least=0.3)
        self.assertEqual((run.rows[0]["ratio"], run.rows[0]["kept"]), (0.3, True))

    def test_a_reference_of_zero_has_no_ratio_and_keeps_no_bound(self):
        run = results.Results("device")
        run.add("x", "", "y", [(1, 0)], at_least=0.3)
        self.assertEqual((run.rows[0]["ratio"], run.rows[0]["kept"]), (None, False))
        self.assertIn("MISSED", report.page([run.data]))

    def test_a_file_says_what_the_machine_was(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "run.json")
            device_run().write(path)
            self.assertEqual(set(results.read(path)["machine"]),
                             {"date", "cores", "kernel", "load", "load_after", "commit"})


class Comparison(unittest.TestCase):
    def turns(self, *subjects):
        run = results.Results("device", subjects=subjects if len(subjects) == 2 else ())
        return run, builds.Turns(run, subjects)

    def test_two_builds_are_measured_in_turns_and_the_first_is_the_reference(self):
        run, turns = self.turns("A", "B")
        order, figures = [], iter((10, 20, 11, 33))
        rounds = turns.rounds(2, lambda subject: order.append(subject) or next(figures), self.fail)
        self.assertEqual(order, ["A", "B", "A", "B"])
        turns.add("rate", "items/s", "engine", rounds, at_least=5)
        turns.add("tail", "us", "p50", rounds, lambda each: each * 2, lambda each: each, better="less", at_most=1)
        turns.add_value("bytes", "bytes", rounds, "<", 1)
        turns.add_series("growth", "nodes", "items/s", "engine", [(1, rounds)])
        self.assertEqual([(each["reference"], each["rounds"], each["ratio"], each["bound"]) for each in run.rows],
                         [("A", [[20, 10], [33, 11]], 2.5, None), ("A", [[40, 20], [66, 22]], 2.5, None),
                          ("A", [[20, 10], [33, 11]], 2.5, None)])
        self.assertEqual(run.data["series"][0]["points"], [{"x": 1, "rounds": [[20, 10], [33, 11]]}])
        self.assertEqual(run.data["series"][0]["reference"], "A")

    def test_one_build_is_measured_beside_the_reference_of_each_row(self):
        run, turns = self.turns("ours")
        rounds = turns.rounds(2, lambda subject: 10, lambda subject: 5)
        turns.add("rate", "items/s", "engine", rounds, at_least=5)
        turns.add("tail", "us", "p50", rounds, lambda each: each * 2, lambda each: each, better="less", at_most=3)
        turns.add_value("bytes", "bytes", turns.rounds(1, lambda subject: 7), "<", 8)
        self.assertEqual([(each["reference"], each["rounds"], each["kept"]) for each in run.rows],
                         [("engine", [[10, 5]] * 2, False), ("p50", [[20, 10]] * 2, True), ("", [[7]], True)])


class Command(unittest.TestCase):
    def bench(self, *arguments):
        done = subprocess.run([str(ROOT / "bench.sh"), *map(str, arguments)], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, check=False, timeout=60)
        return done.returncode, done.stdout, done.stderr

    def test_a_report_is_written_from_files_without_a_build(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "run.json")
            device_run().write(path)
            status, output, errors = self.bench("--report", path, path)
            self.assertEqual((status, errors), (0, ""))
            self.assertEqual(output, f"{folder}/report.html\n")
            drawn = pathlib.Path(folder, "report.html").read_text(encoding="utf-8")
            self.assertEqual(drawn.count("<h2>The device</h2>"), 2)
            _, output, _ = self.bench("--report", path, "--output", f"{folder}/there")
            self.assertEqual(output, f"{folder}/there/report.html\n")

    def test_files_without_results_are_refused_in_words(self):
        with tempfile.TemporaryDirectory() as folder:
            for content, words in ((None, "cannot be read: No such file"), ("{", "is not JSON"),
                                   ("[]", "does not hold the results"),
                                   (json.dumps({"version": 99, "rows": []}), "does not hold the results")):
                path = pathlib.Path(folder, "run.json")
                path.unlink(missing_ok=True)
                if content is not None:
                    path.write_text(content, encoding="utf-8")
                status, output, errors = self.bench("--report", path)
                self.assertEqual((status, output), (1, ""))
                self.assertTrue(errors.startswith(f"{path} {words}"), errors)
                self.assertFalse(pathlib.Path(folder, "report.html").exists())

    def test_folders_without_a_build_are_refused_in_words_before_anything_is_built(self):
        with tempfile.TemporaryDirectory() as folder:
            known = pathlib.Path(folder, "known")
            for path in ("ejabberd/run", "scripts/device.py", "build/release/bin/pubsubservice",
                         "build/release/bin/zelt-host"):
                known.joinpath(path).parent.mkdir(parents=True, exist_ok=True)
                known.joinpath(path).touch()
            unbuilt = pathlib.Path(folder, "unbuilt")
            for path in ("ejabberd/run", "scripts/device.py"):
                unbuilt.joinpath(path).parent.mkdir(parents=True, exist_ok=True)
                unbuilt.joinpath(path).touch()
            pathlib.Path(folder, "empty").mkdir()
            for name, words in (("none", "is not a folder; --compare takes two checkouts"),
                                ("empty", "is not a checkout: ejabberd/run is missing"),
                                ("unbuilt", "has no release build: build/release/bin/pubsubservice is missing; build it "
                                            f"with {unbuilt}/scripts/build release")):
                for pair in ((known, pathlib.Path(folder, name)), (pathlib.Path(folder, name), known)):
                    self.assertEqual(self.bench("--compare", *pair), (1, "", f"{folder}/{name} {words}\n"))


if __name__ == "__main__":
    unittest.main()
