# SPDX-License-Identifier: GPL-3.0-only
"""The charts of a report as inline SVG: the rounds of a row beside its reference, and how a rate grows.

Colours come from classes of the page's style sheet, so that a chart fits a light and a dark page. Ours is a filled
circle, the reference a hollow square: the two can be told apart without their colours. Every mark carries the value
that it stands for as `data-value`.
"""

import html
import math
import statistics

import results

WIDTH, HEIGHT = 720, 230
TOP, BOTTOM = 44, 190  # of the plots
FIGURES = (70, 410)  # left and right of the plot of the figures
RATIOS = (465, 710)
GROWTH = (70, 560)
MARK = 4.5


def escaped(text):
    return html.escape(str(text), quote=True)


def ticks(most, count=4):
    """Round values from 0 to the first that is not below `most`."""
    if most <= 0:
        return [0, 1]
    rough = most / count
    power = 10 ** math.floor(math.log10(rough))
    step = next(power * each for each in (1, 2, 2.5, 5, 10) if power * each >= rough * 0.999)
    return [step * i for i in range(math.ceil(most / step - 1e-9) + 1)]


class Scale:
    """Values to positions: from 0 at `start` to the greatest tick at `end`."""

    def __init__(self, most, start, end):
        self.ticks = ticks(most)
        self._start, self._end = start, end

    def at(self, value):
        return self._start + (self._end - self._start) * value / self.ticks[-1]


def spread_x(count, left, right):
    """The middle of each of `count` columns."""
    return [left + (right - left) * (i + 0.5) / count for i in range(count)]


def line(x1, y1, x2, y2, kind, **more):
    extra = "".join(f' {name.replace("_", "-")}="{escaped(value)}"' for name, value in more.items())
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"{extra}/>'


def text(x, y, content, kind="", anchor="start"):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" class="{kind}">{escaped(content)}</text>'


def mark(x, y, kind, value):
    """A circle of ours or a square of the reference; the pointer on it shows the value. None: a mark of the legend."""
    note = "" if value is None else f"<title>{escaped(results.number(value))}</title>"
    data = "" if value is None else f' data-value="{value:g}"'
    if kind == "theirs":
        return (f'<rect x="{x - MARK + 0.5:.1f}" y="{y - MARK + 0.5:.1f}" width="{2 * MARK - 1:g}" '
                f'height="{2 * MARK - 1:g}" class="mark theirs"{data}>{note}</rect>')
    return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{MARK:g}" class="mark {kind}"{data}>{note}</circle>'


def value_axis(scale, left, right):
    """The horizontal lines of a plot, each with its value."""
    printed = results.number if scale.ticks[-1] >= 10 else lambda value: f"{value:g}"
    return "".join(line(left, scale.at(each), right, scale.at(each), "grid" if each else "axis", data_tick=f"{each:g}")
                   + text(left - 8, scale.at(each) + 4, printed(each), "tick", "end") for each in scale.ticks)


def below(positions, labels, what, left, right):
    """What stands under a plot: a label for each position, and what they are."""
    return ("".join(text(x, BOTTOM + 16, label, "tick", "middle") for x, label in zip(positions, labels))
            + text((left + right) / 2, BOTTOM + 33, what, "tick", "middle"))


def path(points, kind):
    steps = " ".join(f"{'L' if i else 'M'}{x:.1f} {y:.1f}" for i, (x, y) in enumerate(points))
    return f'<path d="{steps}" class="{kind}"/>'


def legend(x, entries):
    """A mark and a name for each series, in one line above the plot."""
    drawn = ""
    for kind, name in entries:
        drawn += mark(x + MARK, 21, kind, None) + text(x + 14, 25, name, "label")
        x += 36 + 7 * len(name)
    return drawn


def svg(identity, title, description, body):
    """A picture with a name and a description for who cannot see it."""
    return (f'<svg viewBox="0 0 {WIDTH} {HEIGHT}" role="img" aria-labelledby="{identity}-t {identity}-d">'
            f'<title id="{identity}-t">{escaped(title)}</title><desc id="{identity}-d">{escaped(description)}</desc>'
            f"{body}</svg>")


def rounds_chart(identity, row, ours, theirs):
    """The figures of each round, and to their right the ratios with the bound as a line."""
    rounds = row["rounds"]
    columns = range(2 if row["reference"] else 1)
    kinds = (("ours", ours), ("theirs", theirs))
    bound = row["bound"]
    on_value = bound and bound["of"] == "value"
    figures = Scale(max([each[i] for each in rounds for i in columns] + [bound["value"] if on_value else 0]),
                    BOTTOM, TOP)
    xs = spread_x(len(rounds), *FIGURES)
    body = value_axis(figures, *FIGURES) + legend(FIGURES[0], [kinds[i] for i in columns])
    body += text(8, 25, row["unit"], "tick")
    for i in columns:
        points = [(x, figures.at(each[i])) for x, each in zip(xs, rounds)]
        body += path(points, f"join {kinds[i][0]}")
        body += "".join(mark(*point, kinds[i][0], each[i]) for point, each in zip(points, rounds))
    body += below(xs, range(1, len(rounds) + 1), "round", *FIGURES)
    if on_value:
        body += bound_line(figures, bound, *FIGURES)
    body += ratio_panel(row)
    return svg(identity, row["name"], description(row, ours, theirs), body)


def ratio_panel(row):
    """The ratio of each round, and the bound; nothing for a row without a reference."""
    own = results.ratios(row["rounds"])
    bound = row["bound"] if row["bound"] and row["bound"]["of"] == "ratio" else None
    if not own:
        return ""
    scale = Scale(max(own + [bound["value"] if bound else 1]) * 1.05, BOTTOM, TOP)
    xs = spread_x(len(own), *RATIOS)
    body = value_axis(scale, *RATIOS)
    middle = statistics.median(own)
    body += text(RATIOS[0], 25, f"ratio, median {middle:.2f}", "label")
    body += line(RATIOS[0], scale.at(middle), RATIOS[1], scale.at(middle), "median", data_value=f"{middle:g}")
    body += bound_line(scale, bound, *RATIOS) if bound else \
        line(RATIOS[0], scale.at(1), RATIOS[1], scale.at(1), "same", data_value="1")
    kind = "missed" if row["kept"] is False else "ours"
    body += "".join(mark(x, scale.at(each), kind, each) for x, each in zip(xs, own))
    return body + below(xs, range(1, len(own) + 1), "round", *RATIOS)


def bound_line(scale, bound, left, right):
    """Its label stands above the plot, where no mark can cover it."""
    y = scale.at(bound["value"])
    return (line(left, y, right, y, "bound", data_value=f"{bound['value']:g}")
            + text(right, 25, f"bound {results.bound_text(bound)}", "boundlabel", "end"))


def description(row, ours, theirs):
    """The chart in a sentence."""
    _, measured, _, ratio, bound, verdict = results.cells(row)
    spread = results.span([each[0] for each in row["rounds"]])
    words = f"{ours}: median {measured}, {spread} in {len(row['rounds'])} rounds."
    if row["reference"]:
        words += f" {theirs}: median {results.number(row['reference_value'])}, " \
                 f"{results.span([each[1] for each in row['rounds']])}. Ratio {ratio}."
    return words + (f" Bound {bound}: {verdict.lower()}." if bound else "")


def across(values, left, right):
    """Where the values stand from left to right: by their logarithms, or evenly scaled when one of them is 0."""
    if min(values) > 0:
        values = [math.log10(each) for each in values]
    low, width = min(values), (max(values) - min(values)) or 1
    return [left + (right - left) * (each - low) / width for each in values]


def growth_chart(identity, series, ours, theirs):
    """Medians over x, with the spread of the rounds as a bar through each. x is drawn by its logarithm, unless it
    begins at 0."""
    points = series["points"]
    columns = range(2 if series["reference"] else 1)
    kinds = (("ours", ours), ("theirs", theirs))
    scale = Scale(max(each[i] for point in points for each in point["rounds"] for i in columns), BOTTOM, TOP)
    left, right = GROWTH
    xs = across([point["x"] for point in points], left + 25, right - 25)
    body = value_axis(scale, left, right) + legend(left, [kinds[i] for i in columns])
    body += text(8, 25, series["unit"], "tick")
    for i in columns:
        kind, name = kinds[i]
        medians = [statistics.median(each[i] for each in point["rounds"]) for point in points]
        at = [(x, scale.at(value)) for x, value in zip(xs, medians)]
        for x, point in zip(xs, points):
            values = [each[i] for each in point["rounds"]]
            body += line(x, scale.at(min(values)), x, scale.at(max(values)), f"spread {kind}")
        body += path(at, f"curve {kind}") + "".join(mark(*where, kind, value) for where, value in zip(at, medians))
    body += below(xs, [results.number(point["x"]) for point in points], series["x"], left, right)
    words = "; ".join(f"{results.number(point['x'])}: "
                      f"{results.number(statistics.median(each[0] for each in point['rounds']))}" for point in points)
    return svg(identity, series["name"], f"{ours}, median {series['unit']} over {series['x']}: {words}.", body)
