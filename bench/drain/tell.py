"""What the drains and streams came to: targets, tables, plots."""

from __future__ import annotations

import statistics
from typing import Any

from results import Data, Plot, Target

BARE = "eight_at_once"
PLAIN = "plain_loop"
TITLES = {
    "skarn": "`skarn`",
    BARE: "`eight_at_once.sh`",
    "with_parallel": "`with_parallel.sh`",
    PLAIN: "`plain_loop.sh`",
}
LARGE = {"small": "small files", "large": "large files", "tiny": "tiny files"}


def median(drain: Data, way: str, figure: str = "wall") -> float:
    """The median of a figure over the rounds, a file."""
    return float(
        statistics.median(each[figure] / each["files"] for each in drain["rounds"][way])
    )


def ratio(drain: Data, way: str, figure: str = "wall") -> float:
    """How skarn compares to another way, by the time a file."""
    return median(drain, "skarn", figure) / median(drain, way, figure)


def processor_share(drain: Data) -> float:
    """The daemon's own part of all processor time, in percent."""
    rounds = drain["rounds"]["skarn"]
    return float(
        statistics.median(
            100 * each["daemon"] / (each["clients"] + each["server"]) for each in rounds
        )
    )


def workload(drain: Data) -> str:
    return f"{drain['files']:,} × {size_text(drain['size'])}"


def size_text(size: int) -> str:
    return f"{size // 1_000_000} MB" if size >= 1_000_000 else f"{size // 1_000} kB"


def targets(data: Data) -> list[Target]:
    drains, streams = data["drains"], data["streams"]
    found = []
    for name in LARGE:
        if name in drains:
            what = f"{workload(drains[name])}: time of `skarn` / `eight_at_once.sh`"
            found.append(Target(what, ratio(drains[name], BARE), 1.05))
    for name in ("small", "tiny"):
        if name in drains:
            what = f"{workload(drains[name])}: time of `skarn` / `plain_loop.sh`, a file"
            found.append(Target(what, ratio(drains[name], PLAIN), 0.05))
    for name in LARGE:
        if name in drains:
            what = f"{workload(drains[name])}: the daemon's own part of the processor time"
            found.append(Target(what, processor_share(drains[name]), 2, "%"))
    for name, stream in streams.items():
        if name.startswith("skarn"):
            pause = f"minpause {round(1000 * stream['pause'])}"
            limit = stream["pause"] + 3 * statistics.median(stream["bare_rounds"])
            what = f"stream, {pause}: 99th percentile of the delay"
            found.append(Target(what, stream["delay_percentiles"][98], limit, "s"))
            what = f"stream, {pause}: files on the way at the end / before"
            found.append(Target(what, growth(stream), 1.2))
    return found


def growth(stream: Data) -> float:
    """The mean number of files on the way in the last third, beside that in the middle one."""
    counts = stream["on_the_way"]
    third = len(counts) // 3
    middle = statistics.mean(counts[third : 2 * third])
    return float(statistics.mean(counts[2 * third :]) / middle) if middle else 0.0


def tables(data: Data) -> dict[str, str]:
    return {
        "drains": drains_table(data["drains"]),
        "daemon": daemon_table(data["drains"]),
        "streams": streams_table(data["streams"]),
    }


def drains_table(drains: Data) -> str:
    lines = [
        "| files | way | rounds | seconds, median | fastest to slowest | of `eight_at_once.sh` "
        "| of `plain_loop.sh`, a file | processor s, all clients | server |",
        "|---|---|---:|---:|---:|---:|---:|---:|---:|",
    ]
    for drain in drains.values():
        for way, title in TITLES.items():
            rounds = drain["rounds"][way]
            walls = sorted(each["wall"] for each in rounds)
            files = rounds[0]["files"]
            part = f"the first {files:,} of {workload(drain)}"
            lines.append(
                f"| {workload(drain) if files == drain['files'] else part} | {title} "
                f"| {len(rounds)} | {statistics.median(walls):.3f} "
                f"| {walls[0]:.3f} to {walls[-1]:.3f} "
                f"| {median(drain, way) / median(drain, BARE):.2f} "
                f"| {median(drain, way) / median(drain, PLAIN):.3f} "
                f"| {files * median(drain, way, 'clients'):.2f} "
                f"| {files * median(drain, way, 'server'):.2f} |"
            )
    return "\n".join(lines) + "\n"


def daemon_table(drains: Data) -> str:
    lines = [
        "| files | the daemon's own processor ms | µs a file | % of all | % of the clients' |",
        "|---|---:|---:|---:|---:|",
    ]
    for drain in drains.values():
        own = median(drain, "skarn", "daemon")
        of_clients = statistics.median(
            100 * each["daemon"] / each["clients"] for each in drain["rounds"]["skarn"]
        )
        lines.append(
            f"| {workload(drain)} | {1000 * own * drain['files']:.1f} | {1e6 * own:.1f} "
            f"| {processor_share(drain):.1f} | {of_clients:.1f} |"
        )
    return "\n".join(lines) + "\n"


def streams_table(streams: Data) -> str:
    lines = [
        "| way | pause s | files a second | median delay s | 99th percentile | longest "
        "| files on the way, mean of the last third | not arrived 10 s after the end "
        "| processor s a second, clients | server | the daemon's own |",
        "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|",
    ]
    for name, stream in streams.items():
        percentiles = stream["delay_percentiles"]
        counts = stream["on_the_way"]
        own = f"{stream['daemon'] / stream['seconds']:.3f}" if "daemon" in stream else ""
        lines.append(
            f"| {TITLES[name.split()[0]]} | {stream['pause']:g} | {stream['rate']:.0f} "
            f"| {percentiles[49]:.3f} | {percentiles[98]:.3f} | {stream['longest_delay']:.3f} "
            f"| {statistics.mean(counts[len(counts) * 2 // 3 :]):.0f} "
            f"| {stream.get('left_behind', 0):,} "
            f"| {stream['clients'] / stream['seconds']:.2f} "
            f"| {stream['server'] / stream['seconds']:.2f} | {own} |"
        )
    lines.append("")
    for stream in streams.values():
        if "bare_rounds" in stream:
            lines.append(
                f"- With a pause of {stream['pause']:g} s, a cycle had {stream['bare_files']:,} "
                f"files on the average; one pass of `eight_at_once.sh` over\n  as many takes "
                f"{statistics.median(stream['bare_rounds']):.3f} s (median of "
                f"{len(stream['bare_rounds'])})."
            )
    return "\n".join(lines) + "\n"


def plots(data: Data) -> list[Plot]:
    series: dict[str, list[tuple[float, float]]] = {}
    for name, stream in data["streams"].items():
        way, _, _ = name.partition(" ")
        title = f"{way}, pause {stream['pause']:g} s".replace("_", " ")
        percentiles = stream["delay_percentiles"]
        series[title] = [
            (1000 * percentiles[number - 1], number) for number in (1, *range(5, 100, 5), 99)
        ]
    return [
        Plot(
            "delays",
            "From a file's appearance to its announcement",
            "milliseconds",
            "% of the files",
            series,
            x_is_logarithmic=True,
        )
    ]
