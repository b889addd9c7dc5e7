# SPDX-License-Identifier: GPL-3.0-only
"""The builds that are measured: this one, or two of a comparison, in turns."""

import pathlib

ROOT = pathlib.Path(__file__).resolve().parent.parent


class Missing(Exception):
    """A folder holds no build that could be measured; the text says what to do, for a person to read."""


class Build:
    """A checkout with its release build."""

    def __init__(self, folder):
        self.root = pathlib.Path(folder).resolve()
        self.bin = self.root / "build" / "release" / "bin"
        self.server = self.root / "ejabberd" / "run"
        self.device = self.root / "scripts" / "device.py"

    def check(self):
        if not self.root.is_dir():
            raise Missing(f"{self.root} is not a folder; --compare takes two checkouts")
        for path in (self.server, self.device):
            if not path.is_file():
                raise Missing(f"{self.root} is not a checkout: {path.relative_to(self.root)} is missing")
        for name in ("pubsubservice", "zelt-host"):
            if not (self.bin / name).is_file():
                raise Missing(f"{self.root} has no release build: build/release/bin/{name} is missing; "
                              f"build it with {self.root}/scripts/build release")


class Turns:
    """Measures each row in rounds. With one subject every round has its reference; with two, A and B, the rounds
    measure A, then B, and A is the reference of B. So other load on the machine affects both halves of a round."""

    def __init__(self, results, subjects):
        self.results, self.subjects = results, list(subjects)

    @property
    def compares(self):
        return len(self.subjects) == 2

    def rounds(self, count, ours, theirs=None):
        """What ours(subject), and theirs(subject) beside it, measured in each round, as pairs; (B, A) of two
        subjects. Without a reference the second of a pair is None."""
        pairs = []
        for _ in range(count):
            if self.compares:
                before = ours(self.subjects[0])
                pairs.append((ours(self.subjects[1]), before))
            else:
                first = ours(self.subjects[0])
                pairs.append((first, theirs(self.subjects[0]) if theirs else None))
        return pairs

    def add(self, name, unit, reference, rounds, figure=None, beside=None, better="more", **bound):
        """A row of what rounds() measured. `figure` takes the row's figure from what was measured, of ours and of the
        reference alike; `beside` takes the reference from what was measured of ours, when both are of one run."""
        self.results.add(name, unit, "A" if self.compares else reference, self.figures(rounds, figure, beside), better,
                         **({} if self.compares else bound))

    def add_value(self, name, unit, values, sign, value):
        """A row without a reference; `values` holds pairs of rounds()."""
        if self.compares:
            self.results.add(name, unit, "A", values, "less")
        else:
            self.results.add_value(name, unit, [ours for ours, _ in values], sign, value)

    def add_series(self, name, what, unit, reference, points, figure=None):
        self.results.add_series(name, what, unit, "A" if self.compares else reference,
                                [(x, self.figures(rounds, figure)) for x, rounds in points])

    def figures(self, rounds, figure=None, beside=None):
        figure = figure or (lambda measured: measured)
        if beside and not self.compares:
            return [(figure(ours), beside(ours)) for ours, _ in rounds]
        if any(theirs is None for _, theirs in rounds):
            return [(figure(ours),) for ours, _ in rounds]
        return [(figure(ours), figure(theirs)) for ours, theirs in rounds]
