"""What a part of the benchmarks gives: targets that are met or not, and plots.

A part is a folder here with two modules. `measure.py` has

    measure(quick: bool) -> Data

which takes the numbers, in the sandbox, or raises CannotMeasure; the quick form only shows that all
of it works. `tell.py` has what is made of them, without measuring anything:

    targets(data: Data) -> list[Target]
    tables(data: Data) -> dict[str, str]      Markdown, by the name that docs/performance.md uses
    plots(data: Data) -> list[Plot]
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any

# The numbers as they were measured, every round of them, as JSON can hold them.
Data = dict[str, Any]


class CannotMeasure(Exception):
    """This machine lacks what a part needs; the text says what."""


@dataclass(frozen=True)
class Target:
    """A bound on a figure, and what it came to."""

    what: str
    value: float
    limit: float
    unit: str = ""

    @property
    def is_met(self) -> bool:
        return self.value <= self.limit


@dataclass(frozen=True)
class Plot:
    """A picture of points, one line for each series."""

    name: str  # of the file, without its ending
    title: str
    x_label: str
    y_label: str
    series: dict[str, list[tuple[float, float]]]
    x_is_logarithmic: bool = False
    y_is_logarithmic: bool = False
    settings: list[str] = field(default_factory=list)  # further lines for gnuplot
