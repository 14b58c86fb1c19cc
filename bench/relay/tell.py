"""What the relay costs beside what it cannot do without."""

from __future__ import annotations

from statistics import median

from drain.tell import workload
from results import Data, Plot, Target

# At least 0.8 of what a bare insert reaches, told as a time that is at most so many times as long.
MOST_OF_INSERT = 1.25
MOST_OF_DRAIN = 1.02
MOST_MEMORY = 64.0
SLOWEST_PER_MILLION = 10.0  # seconds: 100,000 records a second


def targets(data: Data) -> list[Target]:
    backlog = data["backlog"]
    found = [
        Target(
            "from the pipe into the log: time against a bare insert of the same records",
            1 / median(each["ratio"] for each in data["intake"]),
            MOST_OF_INSERT,
        ),
        Target(
            f"{backlog['records']:,} records behind: largest resident memory",
            backlog["resident_mib"],
            MOST_MEMORY,
            "MiB",
        ),
    ]
    found += [
        Target(
            f"catching up with {backlog['records']:,} records {how}, a million",
            1e6 / backlog[key],
            SLOWEST_PER_MILLION,
            "s",
        )
        for key, how in (("http_per_second", "over HTTP"), ("pipe_per_second", "by a pipe"))
    ]
    drains = data["drains"]
    found.append(
        Target(
            f"{workload(drains)}: time with the relay / with a plain reader",
            ratio_of_drains(drains["rounds"]),
            MOST_OF_DRAIN,
        )
    )
    return found


def tables(data: Data) -> dict[str, str]:
    return {
        "intake": intake(data["intake"]),
        "delay": delay(data["delay"]),
        "backlog": backlog_table(data["backlog"]),
        "drain": drains_table(data["drains"]),
    }


def plots(_: Data) -> list[Plot]:
    return []


def ratio_of_drains(rounds: list[Data]) -> float:
    """The median of the rounds' ratios."""
    return float(median(each["relay"]["wall"] / each["plain reader"]["wall"] for each in rounds))


def spread(values: list[float]) -> str:
    """The median, and from where to where."""
    every = sorted(values)
    return f"{median(every):,.0f} ({every[0]:,.0f}, {every[-1]:,.0f})"


def intake(rounds: list[Data]) -> str:
    lines = [
        f"| {rounds[0]['lines']:,} lines, {len(rounds)} rounds | records a second (from, to) |",
        "|---|---:|",
    ]
    lines += [
        f"| {what} | {spread([each['lines'] / each[key] for each in rounds])} |"
        for what, key in (
            ("a bare reader of the pipe", "bare_reader"),
            ("a bare insert of the same records in as many transactions", "bare_insert"),
            ("the relay, from the pipe into its log", "intake"),
        )
    ]
    ratios = sorted(each["ratio"] for each in rounds)
    lines.append(
        f"| the relay against the bare insert | {median(ratios):.2f} ({ratios[0]:.2f}, "
        f"{ratios[-1]:.2f}) |"
    )
    return "\n".join(lines) + "\n"


def delay(data: Data) -> str:
    lines = [f"| at {data['rate']} a second | median | 99 of 100 | longest |", "|---|---:|---:|---:|"]
    for what, key in (
        ("from the daemon's write to a subscriber's pipe", "lines"),
        ("one flush of one page on the same disk", "flushes"),
    ):
        every = data[key]
        values = (median(every), every[len(every) * 99 // 100], every[-1])
        lines.append(f"| {what} | " + " | ".join(f"{each * 1e3:.2f} ms" for each in values) + " |")
    return "\n".join(lines) + "\n"


def backlog_table(data: Data) -> str:
    rows = (
        ("into the log, records a second", f"{data['into_log_per_second']:,}"),
        ("fetched over HTTP, records a second", f"{data['http_per_second']:,}"),
        ("read from a subscriber's pipe, records a second", f"{data['pipe_per_second']:,}"),
        ("largest resident memory", f"{data['resident_mib']:.1f} MiB"),
        ("the log", f"{data['log_mib']:,.0f} MiB"),
    )
    lines = [f"| {data['records']:,} records | |", "|---|---:|"]
    lines += [f"| {what} | {value} |" for what, value in rows]
    return "\n".join(lines) + "\n"


def drains_table(data: Data) -> str:
    lines = [
        f"| {workload(data)}, {len(data['rounds'])} rounds | seconds (from, to) |",
        "|---|---:|",
    ]
    for way in ("plain reader", "relay"):
        every = sorted(each[way]["wall"] for each in data["rounds"])
        lines.append(f"| {way} | {median(every):.2f} ({every[0]:.2f}, {every[-1]:.2f}) |")
    ratio = ratio_of_drains(data["rounds"])
    lines.append(f"| ratio, median of the rounds | {ratio:.3f} |")
    return "\n".join(lines) + "\n"
