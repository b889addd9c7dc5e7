#!/usr/bin/python3
# SPDX-License-Identifier: GPL-3.0-only
"""Writes report.html from the results of runs: a page in one file that loads nothing, with a chart and a table for
each row and each growth series."""

import pathlib
import statistics
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import charts  # noqa: E402
import results  # noqa: E402
from charts import escaped  # noqa: E402

KINDS = {"device": "The device", "server": "The XMPP server"}

STYLE = """
:root { color-scheme: light dark; --page: #ffffff; --card: #f7f8fa; --edge: #d4d9e0; --ink: #1f2328; --soft: #57606a;
  --ours: #1f6feb; --theirs: #8a5a00; --bad: #b3261e; --good: #1a7037; --grid: #e1e5ea; }
@media (prefers-color-scheme: dark) { :root { --page: #0f1318; --card: #171c23; --edge: #343c46; --ink: #e6e9ee;
  --soft: #a0a9b4; --ours: #6aa8ff; --theirs: #e0b45c; --bad: #ff8a80; --good: #6fce8b; --grid: #2a313a; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 2rem 1.25rem 4rem; max-width: 76rem; background: var(--page); color: var(--ink);
  font: 16px/1.5 system-ui, -apple-system, "Segoe UI", "DejaVu Sans", sans-serif; }
h1 { font-size: 1.6rem; margin: 0 0 .25rem; } h2 { font-size: 1.25rem; margin: 2.5rem 0 .5rem; }
h3 { font-size: 1rem; margin: 0 0 .5rem; } p { margin: .25rem 0; } a { color: var(--ours); }
.soft { color: var(--soft); } .wide { overflow-x: auto; }
.card { background: var(--card); border: 1px solid var(--edge); border-radius: 8px; padding: 1rem; margin: 1rem 0;
  display: grid; grid-template-columns: minmax(0, 1fr) minmax(14rem, auto); gap: .5rem 1.5rem; align-items: start; }
.card h3 { grid-column: 1 / -1; }
@media (max-width: 60rem) { .card { grid-template-columns: minmax(0, 1fr); } }
svg { display: block; width: 100%; min-width: 34rem; max-width: 52rem; height: auto; }
table { border-collapse: collapse; font-size: .875rem; font-variant-numeric: tabular-nums; }
caption { text-align: left; color: var(--soft); font-size: .8125rem; padding-bottom: .25rem; }
th, td { text-align: right; padding: .2rem .6rem; border-bottom: 1px solid var(--edge); font-weight: normal; }
thead th { color: var(--soft); white-space: nowrap; } th:first-child, td.words, th.words { text-align: left; }
tfoot th, tfoot td { font-weight: 600; }
.kept, .better { color: var(--good); } .missed, .worse { color: var(--bad); font-weight: 600; }
svg text { fill: var(--ink); font-size: 12.5px; } svg .tick { fill: var(--soft); font-size: 12px; }
svg .grid { stroke: var(--grid); } svg .axis { stroke: var(--soft); } svg .label { font-size: 13px; }
svg .join { fill: none; stroke-width: 1; opacity: .45; } svg .curve { fill: none; stroke-width: 2; }
svg .spread { stroke-width: 6; opacity: .25; } svg .ours { stroke: var(--ours); } svg .theirs { stroke: var(--theirs); }
svg .mark.ours { fill: var(--ours); } svg .mark.theirs { fill: var(--card); stroke-width: 1.8; }
svg .mark.missed { fill: var(--bad); stroke: var(--bad); } svg .median { stroke: var(--ours); opacity: .6; }
svg .same { stroke: var(--soft); stroke-dasharray: 3 3; }
svg .bound { stroke: var(--bad); stroke-width: 1.5; stroke-dasharray: 7 4; } svg .boundlabel { fill: var(--bad); }
"""


def subjects(data):
    """What the filled and what the hollow marks stand for; the second is None when each row has its own reference."""
    if data["subjects"]:
        return "B", "A"
    return "measured", None


def state(data, row):
    """The last cell of a row: kept or missed, or for two builds better, worse or no difference."""
    word = results.changed(row) if data["subjects"] else results.verdict(row)
    return f'<td class="words {escaped(word.lower())}">{escaped(word)}</td>'


def head(cells):
    return "<thead><tr>" + "".join(f'<th scope="col">{escaped(each)}</th>' for each in cells) + "</tr></thead>"


def overview(data, prefix):
    """Every row of the run in one table."""
    lines = ""
    for i, row in enumerate(data["rows"]):
        name, measured, reference, ratio, bound, _ = results.cells(row)
        title = f'<a href="#{prefix}-{i}">{escaped(name)}</a>' if results.is_drawn(row) else escaped(name)
        lines += (f'<tr><th scope="row">{title}</th>'
                  + "".join(f"<td>{escaped(each)}</td>" for each in (measured, reference, ratio, bound))
                  + state(data, row) + "</tr>")
    return ('<div class="wide"><table>' + head(("Figure", "Measured", "Reference of the same run",
                                                "Ratio (least to greatest)", "Bound", ""))
            + f"<tbody>{lines}</tbody></table></div>")


def rounds_table(row, ours, theirs):
    """The same values as the chart of a row."""
    titles = ["Round", f"{ours}, {row['unit']}".rstrip(", ")] + ([theirs, "Ratio"] if row["reference"] else [])

    def cells(figures, ratio):
        return "".join(f"<td>{escaped(each)}</td>" for each in
                       [*map(results.number, figures)] + ([results.two_decimals(ratio)] if row["reference"] else []))

    lines = "".join(f'<tr><th scope="row">{i}</th>'
                    + cells(each, each[0] / each[1] if len(each) == 2 and each[1] else None) + "</tr>"
                    for i, each in enumerate(row["rounds"], 1))
    medians = [row["value"]] + ([row["reference_value"]] if row["reference"] else [])
    return (f"<table>{head(titles)}<tbody>{lines}</tbody><tfoot><tr><th scope=\"row\">median</th>"
            f"{cells(medians, row['ratio'])}</tr></tfoot></table>")


def growth_table(series, ours, theirs):
    """The same values as a growth chart: the median of each point and its spread."""
    columns = [ours] + ([theirs] if series["reference"] else [])
    lines = ""
    for point in series["points"]:
        lines += f'<tr><th scope="row">{escaped(results.number(point["x"]))}</th>'
        for i in range(len(columns)):
            values = [each[i] for each in point["rounds"]]
            lines += f"<td>{escaped(results.number(statistics.median(values)))} ({escaped(results.span(values))})</td>"
        lines += "</tr>"
    return (f"<table><caption>{escaped(series['unit'])}, median (least to greatest)</caption>"
            f"{head([series['x'], *columns])}<tbody>{lines}</tbody></table>")


def card(identity, title, chart, table):
    return (f'<section class="card" id="{identity}"><h3>{escaped(title)}</h3><div class="wide">{chart}</div>'
            f'<div class="wide">{table}</div></section>')


def introduction(data):
    """The machine, and how many bounds were kept."""
    machine = data["machine"]
    busy = " to ".join(results.two_decimals(machine[each][0]) for each in ("load", "load_after") if each in machine)
    facts = [f"{machine['date']}", f"{machine['cores']} cores", f"Linux {machine['kernel']}", f"load average {busy}"]
    facts += [f"commit {machine['commit']}"] if machine.get("commit") else []
    facts += ["a quick run: first impressions, no verdicts"] if data["quick"] else []
    words = f'<p class="soft">{escaped(" · ".join(facts))}</p>'
    if data["subjects"]:
        a, b = data["subjects"]
        return words + (f"<p>A is {escaped(a)}, B is {escaped(b)}, measured in turns. Each ratio is B / A. A row is "
                        "called better or worse when every round of at least three says so.</p>")
    judged = [row for row in data["rows"] if row["bound"]]
    missed = [row["name"] for row in judged if not row["kept"]]
    words += f"<p>{len(judged) - len(missed)} of {len(judged)} bounds were kept.</p>"
    return words + (f'<p class="missed">Missed: {escaped("; ".join(missed))}</p>' if missed else "")


def section(data, number):
    """One run."""
    prefix = f"run{number}"
    ours, theirs = subjects(data)
    title = KINDS.get(data["kind"], data["kind"]) + (": two builds compared" if data["subjects"] else "")
    body = f"<h2>{escaped(title)}</h2>{introduction(data)}{overview(data, prefix)}"
    for i, row in enumerate(data["rows"]):
        if not results.is_drawn(row):
            continue
        beside = theirs or row["reference"]
        name = row["name"] + (" – MISSED" if row["kept"] is False else "")
        body += card(f"{prefix}-{i}", name, charts.rounds_chart(f"{prefix}-{i}", row, ours, beside),
                     rounds_table(row, ours, beside))
    for i, series in enumerate(data["series"]):
        beside = theirs or series["reference"]
        body += card(f"{prefix}-growth-{i}", series["name"],
                     charts.growth_chart(f"{prefix}-growth-{i}", series, ours, beside),
                     growth_table(series, ours, beside))
    return body


def page(runs):
    """The whole page for the results of the runs."""
    body = "".join(section(data, number) for number, data in enumerate(runs, 1))
    return ('<!DOCTYPE html>\n<html lang="en"><head><meta charset="utf-8"><title>Benchmarks</title>'
            '<meta name="viewport" content="width=device-width, initial-scale=1">'
            f"<style>{STYLE}</style></head><body><h1>Benchmarks</h1>"
            '<p class="soft">Filled circles are what is measured, hollow squares the reference of the same round; the '
            "dashed line is the bound.</p>"
            f"{body}</body></html>\n")


def write(files, target):
    """The page of these result files. results.Unreadable when one does not hold results."""
    text = page([results.read(each) for each in files])
    target = pathlib.Path(target)
    target.parent.mkdir(parents=True, exist_ok=True)
    target.write_text(text, encoding="utf-8")
