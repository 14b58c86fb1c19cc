"""What an empty cycle costs beside the programs that it cannot do without."""

from __future__ import annotations

from statistics import median

from results import Data, Plot, Target

MOST = 1.1
FEWEST_TOLD = 4  # system calls that deserve a row
WAYS = {
    "daemon": "an empty cycle of the daemon",
    "floor": "the floor: the listing by a shell, `mkdir -p` alone",
    "floor with a shell": "the same, `mkdir -p` by a shell too",
}


def targets(data: Data) -> list[Target]:
    found = []
    for floor, name in (("floor", "its floor"), ("floor with a shell", "that with a second shell")):
        found += [
            Target(
                f"processor time of an empty cycle against {name}",
                ratio_of_processor(data, floor),
                MOST,
            ),
            Target(
                f"system calls of an empty cycle against {name}", ratio_of_calls(data, floor), MOST
            ),
        ]
    return found


def tables(data: Data) -> dict[str, str]:
    return {
        "cost of an empty cycle": costs(data),
        "system calls by program": programs(data),
        "system calls that differ": differences(data),
    }


def plots(data: Data) -> list[Plot]:
    return []


def milliseconds(one: Data) -> float:
    """Processor time of one cycle, in one round."""
    return float(one["own"] + one["children"]) / float(one["cycles"]) * 1e3


def ratio_of_processor(data: Data, floor: str) -> float:
    """The median of the rounds' ratios: what slows the machine slows both ways of a round."""
    return float(
        median(milliseconds(each["daemon"]) / milliseconds(each[floor]) for each in data["rounds"])
    )


def calls(data: Data, way: str) -> float:
    """System calls of one cycle."""
    return float(
        sum(sum(names.values()) for names in data["calls"][way]["programs"].values())
        / data["calls"][way]["cycles"]
    )


def ratio_of_calls(data: Data, floor: str) -> float:
    return calls(data, "daemon") / calls(data, floor)


def costs(data: Data) -> str:
    lines = [
        "| | processor ms (from, to) | daemon against it | system calls | daemon against it |",
        "|---|---:|---:|---:|---:|",
    ]
    for way, title in WAYS.items():
        every = [milliseconds(each[way]) for each in data["rounds"]]
        ratios = (
            ("", "")
            if way == "daemon"
            else (f"{ratio_of_processor(data, way):.2f}", f"{ratio_of_calls(data, way):.2f}")
        )
        lines.append(
            f"| {title} | {median(every):.2f} ({min(every):.2f}, {max(every):.2f}) "
            f"| {ratios[0]} | {calls(data, way):.0f} | {ratios[1]} |"
        )
    own = median(each["daemon"]["own"] / each["daemon"]["cycles"] for each in data["rounds"])
    lines += ["", f"{own * 1e3:.2f} ms of the cycle are the daemon's own, the rest its children's."]
    return "\n".join(lines)


def programs(data: Data) -> str:
    names = sorted({name for way in WAYS for name in data["calls"][way]["programs"]})
    lines = [
        "| program | " + " | ".join(WAYS) + " |",
        "|---|" + "---:|" * len(WAYS),
    ]
    for name in names:
        of = data["calls"]
        lines.append(
            f"| `{name}` | "
            + " | ".join(
                f"{sum(of[way]['programs'].get(name, {}).values()) / of[way]['cycles']:.1f}"
                for way in WAYS
            )
            + " |"
        )
    return "\n".join(lines)


def differences(data: Data) -> str:
    """The calls of which the daemon's cycle has more than the floor, or fewer; most first."""
    ours, floor = by_name(data, "daemon"), by_name(data, "floor")
    more = {name: ours.get(name, 0.0) - floor.get(name, 0.0) for name in ours.keys() | floor.keys()}
    told = {name: count for name, count in more.items() if abs(count) >= FEWEST_TOLD}
    lines = ["| call | more than the floor, a cycle |", "|---|---:|"]
    lines += [
        f"| `{name}` | {count:+.1f} |"
        for name, count in sorted(told.items(), key=lambda item: (-abs(item[1]), item[0]))
    ]
    lines.append(f"| all others | {sum(more.values()) - sum(told.values()):+.1f} |")
    return "\n".join(lines)


def by_name(data: Data, way: str) -> dict[str, float]:
    """Calls of one cycle by their name."""
    total: dict[str, float] = {}
    for names in data["calls"][way]["programs"].values():
        for name, count in names.items():
            total[name] = total.get(name, 0.0) + count / data["calls"][way]["cycles"]
    return total
