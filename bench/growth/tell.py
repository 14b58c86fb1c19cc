"""What the drains of more and more files, and of more and more detectors, say."""

from __future__ import annotations

from collections.abc import Callable
from statistics import median

from results import Data, Plot, Target

# Nothing may grow faster than the files: a quarter is left for noise, and a half where a figure is
# some milliseconds.
MOST_TIME_RATIO = 1.25
MOST_PROCESSOR_RATIO = 1.5
MOST_BYTES_A_FILE = 120


def targets(data: Data) -> list[Target]:
    files, detectors = grouped(data["files"], "files"), grouped(data["detectors"], "detectors")
    few, some, many = sorted(files)[0], sorted(files)[-2], sorted(files)[-1]
    one, most = min(detectors), max(detectors)
    memory = (middle(files[many], "memory") - middle(files[few], "memory")) / (many - few)
    return [
        Target(
            f"time a file, {many:,} files against {some:,}",
            a_file(files[many], "seconds") / a_file(files[some], "seconds"),
            MOST_TIME_RATIO,
        ),
        Target(
            f"daemon's processor time a file, {many:,} files against {some:,}",
            a_file(files[many], "daemon") / a_file(files[some], "daemon"),
            MOST_PROCESSOR_RATIO,
        ),
        Target(
            f"daemon's peak memory, each further file up to {many:,}",
            memory,
            MOST_BYTES_A_FILE,
            "bytes",
        ),
        Target(
            f"time a file, {most} detectors against {one}",
            a_file(detectors[most], "seconds") / a_file(detectors[one], "seconds"),
            MOST_TIME_RATIO,
        ),
        Target(
            f"daemon's processor time a file, {most} detectors against {one}",
            a_file(detectors[most], "daemon") / a_file(detectors[one], "daemon"),
            MOST_PROCESSOR_RATIO,
        ),
    ]


def tables(data: Data) -> dict[str, str]:
    return {
        "more files": table(grouped(data["files"], "files"), "files"),
        "more detectors": table(grouped(data["detectors"], "detectors"), "detectors"),
    }


def plots(data: Data) -> list[Plot]:
    files, detectors = grouped(data["files"], "files"), grouped(data["detectors"], "detectors")
    return [
        Plot(
            "growth-files",
            "One detector, more and more files",
            "files",
            "seconds",
            {
                "from the start to the last record": line(files, lambda of: middle(of, "seconds")),
                "processor, daemon's children": line(files, lambda of: middle(of, "children")),
                "processor, daemon itself": line(files, lambda of: middle(of, "daemon")),
            },
            x_is_logarithmic=True,
            y_is_logarithmic=True,
        ),
        Plot(
            "growth-detectors",
            f"More and more detectors, {detectors[min(detectors)][0]['files']:,} files each",
            "detectors",
            "microseconds a file",
            {
                "from the start to the last record": line(
                    detectors, lambda of: a_file(of, "seconds") * 1e6
                ),
                "processor, daemon's children": line(
                    detectors, lambda of: a_file(of, "children") * 1e6
                ),
                "processor, daemon itself": line(detectors, lambda of: a_file(of, "daemon") * 1e6),
            },
            y_is_logarithmic=True,
        ),
    ]


def grouped(drains: list[Data], key: str) -> dict[int, list[Data]]:
    groups: dict[int, list[Data]] = {}
    for drain in sorted(drains, key=lambda each: int(each[key])):
        groups.setdefault(int(drain[key]), []).append(drain)
    return groups


def middle(drains: list[Data], key: str) -> float:
    return float(median(drain[key] for drain in drains))


def a_file(drains: list[Data], key: str) -> float:
    return middle(drains, key) / float(drains[0]["files"])


def line(
    groups: dict[int, list[Data]], value: Callable[[list[Data]], float]
) -> list[tuple[float, float]]:
    return [(number, value(drains)) for number, drains in groups.items()]


def table(groups: dict[int, list[Data]], key: str) -> str:
    keys = [key] if key == "files" else [key, "files"]
    lines = [
        "| " + " | ".join(keys) + " | rounds | seconds (from, to) | µs a file "
        "| daemon, processor ms | daemon, µs a file | its page faults | its children, processor s "
        "| daemon's peak, MB |",
        "|" + "---:|" * (len(keys) + 8),
    ]
    for drains in groups.values():
        seconds = [drain["seconds"] for drain in drains]
        lines.append(
            "| "
            + " | ".join(f"{drains[0][each]:,}" for each in keys)
            + f" | {len(drains)} | {median(seconds):.2f} ({min(seconds):.2f}, {max(seconds):.2f})"
            f" | {a_file(drains, 'seconds') * 1e6:.0f}"
            f" | {middle(drains, 'daemon') * 1e3:.1f} | {a_file(drains, 'daemon') * 1e6:.2f}"
            f" | {middle(drains, 'faults'):,.0f}"
            f" | {middle(drains, 'children'):.2f} | {middle(drains, 'memory') / 1e6:.1f} |"
        )
    return "\n".join(lines)
