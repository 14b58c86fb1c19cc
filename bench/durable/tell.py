"""What the drains and the stream onto a disk's file system came to: targets, tables."""

from __future__ import annotations

import statistics

from drain.tell import BARE, TITLES, workload
from results import Data, Plot, Target

LIMIT = 1.1


def ratio(drain: Data, figure: str = "wall") -> float:
    """The median of the rounds' ratios, skarn's to the script's."""
    return float(
        statistics.median(each["skarn"][figure] / each[BARE][figure] for each in drain["rounds"])
    )


def targets(data: Data) -> list[Target]:
    return [
        Target(
            f"{drain['kind']}, {workload(drain)}: time of `skarn` / `eight_at_once.sh` and "
            "`sync -f`",
            ratio(drain),
            LIMIT,
        )
        for drain in data["drains"].values()
    ]


def tables(data: Data) -> dict[str, str]:
    return {"drains": drains_table(data["drains"]), "streams": streams_table(data["streams"])}


def drains_table(drains: Data) -> str:
    lines = [
        "| target | files | way | rounds | seconds, median | fastest to slowest "
        "| ratio, median of the rounds | processor s, all clients | server |",
        "|---|---|---|---:|---:|---:|---:|---:|---:|",
    ]
    for drain in drains.values():
        for way in ("skarn", BARE):
            rounds = [each[way] for each in drain["rounds"]]
            walls = sorted(each["wall"] for each in rounds)
            title = TITLES[way] + ("" if way == "skarn" else ", then `sync -f`")
            lines.append(
                f"| {drain['kind']} | {workload(drain)} | {title} | {len(rounds)} "
                f"| {statistics.median(walls):.3f} | {walls[0]:.3f} to {walls[-1]:.3f} "
                f"| {ratio(drain) if way == 'skarn' else 1:.2f} "
                f"| {statistics.median(each['clients'] for each in rounds):.2f} "
                f"| {statistics.median(each['server'] for each in rounds):.2f} |"
            )
    return "\n".join(lines) + "\n"


def streams_table(streams: Data) -> str:
    lines = [
        "| target | pause s | files a second | median delay s | 99th percentile | longest "
        "| files in a cycle | processor s a second, clients | server | the daemon's own |",
        "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|",
    ]
    for kind, stream in streams.items():
        percentiles, seconds = stream["delay_percentiles"], stream["seconds"]
        lines.append(
            f"| {kind} | {stream['pause']:g} | {stream['rate']:.0f} | {percentiles[49]:.3f} "
            f"| {percentiles[98]:.3f} | {stream['longest_delay']:.3f} "
            f"| {stream['files'] / stream['cycles']:.0f} | {stream['clients'] / seconds:.2f} "
            f"| {stream['server'] / seconds:.2f} | {stream['daemon'] / seconds:.3f} |"
        )
    return "\n".join(lines) + "\n"


def plots(_: Data) -> list[Plot]:
    return []
