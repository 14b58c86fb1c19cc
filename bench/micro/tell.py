"""Tells what the micro-benchmarks came to: each piece of work beside its floor."""

from __future__ import annotations

from dataclasses import dataclass
from statistics import median

from results import Data, Plot, Target


@dataclass(frozen=True)
class Comparison:
    """A benchmark and its floor."""

    what: str
    item: str  # what one of the counted things is
    floor: str  # what the floor is made of
    name: str
    floor_name: str
    limit: float = 0  # on the ratio; 0: none


LISTING = "reading a listing"
REPORT = "reading a report and handing files on"
STILL = "pipes filled before"
BUSY = "the other ends at work meanwhile"

COMPARISONS = [
    Comparison(f"{LISTING}, {STILL}", "line", "fgets",
               "listing/still", "listingFloor/still", 2.0),
    Comparison(f"{LISTING}, {BUSY}", "line", "fgets",
               "listing/busy", "listingFloor/busy", 2.0),
    Comparison(f"{REPORT}, {STILL}", "line", "fgets and write",
               "report/still", "reportFloor/still", 1.5),
    Comparison(f"{REPORT}, {STILL}, all confirmed at the end", "line", "fgets and write",
               "report/still_all_at_the_end", "reportFloor/still_all_at_the_end", 1.5),
    Comparison(f"{REPORT}, {BUSY}", "line", "fgets and write",
               "report/busy", "reportFloor/busy", 1.5),
    Comparison("parsing a report's lines alone", "line", "fgets",
               "reportLines", "reportLinesFloor"),
    Comparison("inserting six texts into the log", "log line", "one append",
               "logInsertion/texts", "logInsertionFloor/texts", 3.0),
    Comparison("inserting five texts and a number into the log", "log line", "one append",
               "logInsertion/texts_and_number", "logInsertionFloor/texts_and_number", 3.0),
    Comparison("writing the log out", "write-out", "write",
               "logWriteOut", "logWriteOutFloor"),
    Comparison("writing the log out", "write-out", "open, write, close",
               "logWriteOut", "logWriteOutFloorOpened"),
    Comparison("tokenize", "word", "memchr",
               "tokenize", "tokenizeFloor"),
    Comparison("readVar, the key in the last line", "text of 1 MiB", "memchr",
               "readVarLast", "readVarFloor"),
    Comparison("readVar, the key in the first line", "text of 1 MiB", "memchr",
               "readVarFirst", "readVarFloor"),
    Comparison("dealing names to eight file lists", "name", "as many writes",
               "fileLists", "fileListsFloor"),
    Comparison("rewriting the PID file, eight copy processes", "file", "nine writes",
               "pidFile", "pidFileFloor"),
    Comparison("rewriting the PID file, eight copy processes", "file", "open, nine writes, close",
               "pidFile", "pidFileFloorOpened"),
]  # fmt: skip

MEMORY = "listingMemory/"
MEMORY_LIMIT = 120  # bytes a name
MEMORY_LIMIT_FROM = 100_000  # names; in a short listing each page weighs


def targets(data: Data) -> list[Target]:
    found = [
        Target(f"{each.what}: ratio to {each.floor}", ratio(data, each), each.limit)
        for each in COMPARISONS
        if each.limit
    ]
    for names, figures in memory(data).items():
        if names >= MEMORY_LIMIT_FROM:
            worst = max(figures["peak"], figures["retained"])
            found.append(
                Target(f"memory a listed name, of {names:,}", worst, MEMORY_LIMIT, "bytes")
            )
    return found


def tables(data: Data) -> dict[str, str]:
    return {"work": work_table(data), "memory": memory_table(data)}


def plots(data: Data) -> list[Plot]:
    series: dict[str, list[tuple[float, float]]] = {}
    for names, figures in memory(data).items():
        for name, value in figures.items():
            series.setdefault(name, []).append((names, value))
    return [
        Plot(
            name="micro-memory",
            title="Memory for the names of a listing",
            x_label="names of 30 characters",
            y_label="bytes a name",
            series={
                "at the peak, resident": series["peak"],
                "kept, reserved by the heap": series["retained"],
            },
            x_is_logarithmic=True,
        )
    ]


def times(data: Data, name: str) -> list[float]:
    """Nanoseconds of processor time for one item, of every repetition."""
    found: list[float] = data["runs"][name]["processor"]
    return found


def ratio(data: Data, comparison: Comparison) -> float:
    return median(times(data, comparison.name)) / median(times(data, comparison.floor_name))


def spread(data: Data, comparison: Comparison) -> tuple[float, float]:
    """The least and the greatest ratio of two repetitions, one of each, that have the same
    number.
    """
    pairs = zip(times(data, comparison.name), times(data, comparison.floor_name))
    ratios = [work / floor for work, floor in pairs]
    return min(ratios), max(ratios)


def work_table(data: Data) -> str:
    lines = [
        "| work | floor | item | a second | floor: a second | ns an item | floor: ns | ratio "
        "| least to greatest | at most |",
        "|---|---|---|---:|---:|---:|---:|---:|---:|---:|",
    ]
    for each in COMPARISONS:
        work = median(times(data, each.name))
        floor = median(times(data, each.floor_name))
        least, greatest = spread(data, each)
        lines.append(
            f"| {each.what} | {each.floor} | {each.item} | {1e9 / work:,.0f} | {1e9 / floor:,.0f} "
            f"| {work:,.1f} | {floor:,.1f} | {ratio(data, each):.2f} "
            f"| {least:.2f} to {greatest:.2f} | {each.limit or ''} |"
        )
    lines += [
        "",
        f"Processor time of the measuring thread: medians of {data['repetitions']} repetitions in",
        "random order.",
    ]
    return "\n".join(lines)


def memory(data: Data) -> dict[int, dict[str, float]]:
    """Bytes a name at the peak and retained, by the number of names."""
    found = {
        int(name.split("/")[1]): {figure: median(values) for figure, values in figures.items()}
        for name, figures in data["runs"].items()
        if name.startswith(MEMORY)
    }
    return dict(sorted(found.items()))


def memory_table(data: Data) -> str:
    lines = [
        "| names of 30 characters | bytes a name at the peak | bytes a name kept | at most |",
        "|---:|---:|---:|---:|",
    ]
    for names, figures in memory(data).items():
        limit = str(MEMORY_LIMIT) if names >= MEMORY_LIMIT_FROM else ""
        lines.append(
            f"| {names:,} | {figures['peak']:.0f} | {figures['retained']:.0f} | {limit} |"
        )
    lines += [
        "",
        "The peak is memory resident while the listing is read (VmHWM beyond what was resident",
        "before); what is kept is what the heap has reserved for the names then (mallinfo2).",
    ]
    return "\n".join(lines)
