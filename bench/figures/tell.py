"""What it costs that the copy program keeps the figures of each share."""

from __future__ import annotations

from statistics import median

from drain.tell import workload
from results import Data, Plot, Target

# Beside it the rounds of one and the same program differ by more.
LIMIT = 1.02


def ratio(rounds: list[Data], figure: str) -> float:
    """The median of the rounds' ratios, with the figures to without."""
    return float(median(each["with"][figure] / each["without"][figure] for each in rounds))


def targets(data: Data) -> list[Target]:
    listings, drains = data["listings"], data["drains"]
    return [
        Target(
            "processor time of an empty listing, with figures / without",
            ratio(listings["rounds"], "clients"),
            LIMIT,
        ),
        Target(
            f"{workload(drains)}: time of the drain, with figures / without",
            ratio(drains["rounds"], "wall"),
            LIMIT,
        ),
    ]


def tables(data: Data) -> dict[str, str]:
    listings, drains = data["listings"], data["drains"]
    lines = [
        "| | rounds | with figures (from, to) | without (from, to) | ratio, median of the rounds |",
        "|---|---:|---:|---:|---:|",
        row("an empty listing, processor ms", listings["rounds"], "clients", 1e3),
        row(f"a drain of {workload(drains)}, seconds", drains["rounds"], "wall", 1),
        row("the same, processor s of all clients", drains["rounds"], "clients", 1),
    ]
    return {"cost": "\n".join(lines) + "\n"}


def row(what: str, rounds: list[Data], figure: str, scale: float) -> str:
    cells = []
    for way in ("with", "without"):
        every = sorted(each[way][figure] * scale for each in rounds)
        cells.append(f"{median(every):.2f} ({every[0]:.2f}, {every[-1]:.2f})")
    return f"| {what} | {len(rounds)} | {cells[0]} | {cells[1]} | {ratio(rounds, figure):.3f} |"


def plots(_: Data) -> list[Plot]:
    return []
