"""One run of the fault bed from the command line; scripts/faults.sh calls it inside the sandbox.

    run.py --list | --names
    run.py --fault NAME --seed N [--rounds N] [--limit SECONDS] [--log FILE]

NAME is a fault, or "mixed" for all that can be mixed, or "mixed-relay" for those of the relay. Prints what the run came to, and its
numbers as one line of JSON. The status is 0 if the promise held, 1 if not.
"""

from __future__ import annotations

import argparse
import json
import os
import shlex
import sys
from dataclasses import asdict
from pathlib import Path

from faults.bed import Bed, Outcome
from faults.behind_relay import BehindRelay
from faults.fault import Fault, load
from support import processes

# Runs of many faults: which, and what the table calls them.
MIXED = "mixed"
MIXED_RELAY = "mixed-relay"
MIXED_TITLES = {
    MIXED: "all of these without the relay mixed, two detectors",
    MIXED_RELAY: "all of the relay, and deaths of all others, mixed, two detectors",
}
MIXED_ROUNDS = 150


def chosen(name: str) -> list[Fault]:
    """The faults of a run; mixed ones in the order of their names, as the seed wants."""
    kinds = load()
    if name == MIXED:
        return [kind() for kind in kinds.values() if kind.mixes and not kind.relay]
    if name == MIXED_RELAY:
        return [kind() for kind in kinds.values() if kind.mixes and (kind.relay or dies(kind))]
    if name not in kinds:
        sys.exit(f"there is no fault {name!r}; run.py --list names them")
    return [kinds[name]()]


def dies(kind: type[Fault]) -> bool:
    """Whether it is the death of a process, over at once, for which no proxy is needed."""
    return kind.instant and kind.kills and not kind.proxy


def run(name: str, seed: int, rounds: int | None, limit: float, log: Path | None) -> Outcome:
    """One run in an empty sandbox; keeps a copy of the daemon's log if a place is given."""
    faults = chosen(name)
    mixed = name in MIXED_TITLES
    wanted = rounds or (MIXED_ROUNDS if mixed else faults[0].rounds)
    settings: dict[str, object] = {}
    for fault in faults:
        settings.update(fault.settings())
    with Bed(
        f"{name} {seed}",
        stations=2 if mixed else 1,
        proxy=any(fault.proxy for fault in faults),
        relay=BehindRelay if any(fault.relay for fault in faults) else None,
        settings=settings,
    ) as bed:
        try:
            return bed.run(faults, wanted, limit)
        finally:
            if log is not None:
                log.parent.mkdir(parents=True, exist_ok=True)
                log.write_bytes(bed.daemon.archived_log().encode("utf-8", "surrogateescape"))


def command(name: str, seed: int, rounds: int | None) -> str:
    """What makes the same run again."""
    words = ["scripts/faults.sh", "--fault", name, "--seed", str(seed)]
    if rounds is not None:
        words += ["--rounds", str(rounds)]
    return shlex.join(words)


def row(name: str, seed: int, outcome: Outcome, again: str) -> dict[str, object]:
    """The run as one line of the results file."""
    titles = {kind.name: kind.title for kind in load().values()}
    values = asdict(outcome)
    values["recovered_in"] = round(outcome.recovered_in, 2)
    values["broken"] = list(outcome.broken[:10])
    title = titles.get(name) or MIXED_TITLES[name]
    return {"fault": name, "title": title, "seed": seed, **values, "command": again}


def summary(outcome: Outcome) -> str:
    """What a run came to, in one line for people."""
    return (
        f"  {outcome.injected} faults, {outcome.files} files: {outcome.lost} lost, "
        f"{outcome.never_announced} never announced, {outcome.announced_twice} announced twice, "
        f"all right {outcome.recovered_in:.1f} s after the last fault"
    )


def main() -> int:
    """Returns the exit status."""
    parser = argparse.ArgumentParser(description="One run of the fault bed.")
    parser.add_argument("--list", action="store_true", help="names all faults and ends")
    parser.add_argument("--names", action="store_true", help="their names alone")
    parser.add_argument("--fault")
    parser.add_argument("--seed", type=int)
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--limit", type=float, default=600.0)
    parser.add_argument("--log", type=Path)
    options = parser.parse_args()
    if options.names:
        print("\n".join([*load(), *MIXED_TITLES]))
        return 0
    if options.list:
        for kind in load().values():
            print(f"{kind.name:28} {kind.title}")
        for name, title in MIXED_TITLES.items():
            print(f"{name:28} {title}")
        return 0
    if options.fault is None or options.seed is None:
        parser.error("--fault and --seed are needed")
    if not processes.in_sandbox():
        parser.error("it uses the daemon's fixed places: run it with tests/support/sandbox")
    os.umask(0o022)
    again = command(options.fault, options.seed, options.rounds)
    print(f"{again} ...", flush=True)
    outcome = run(options.fault, options.seed, options.rounds, options.limit, options.log)
    print(summary(outcome))
    for sentence in outcome.broken[:10]:
        print(f"  broken: {sentence!r}")
    if outcome.broken:
        print(f"  and more: {len(outcome.broken)} in all; the daemon's log: {options.log}")
    line = row(options.fault, options.seed, outcome, again)
    print(json.dumps(line, ensure_ascii=False), flush=True)
    return 1 if outcome.broken else 0


if __name__ == "__main__":
    sys.exit(main())
