"""One run of the power bed from the command line; scripts/power.sh calls it inside the sandbox.

    run.py --disk ext4|xfs|btrfs --life drain|stream|points|relay|relay-points [--parts 1|2]
           --seed N [--cuts N] [--reannounce SECONDS] [--patience SECONDS]

"points" is a cut at each system call of a copy; it has as many cuts as there are calls. "relay" cuts
at random under the relay's log, "relay-points" after each of its calls.

Prints what the cuts came to, and their numbers as one line of JSON. The status is 0 if the promise
held, 1 if not, and 77 if this machine can't have such disks.
"""

from __future__ import annotations

import argparse
import json
import os
import shlex
import sys
from dataclasses import asdict

from power import crash_points
from power.bed import LIVES, Host, Outcome
from power.cut_points import cut_at_all
from power.disk import MAKERS, Store, missing
from power.relay_cuts import cut_at_calls, cut_at_random
from support import processes

PATIENCE = 20.0
REANNOUNCE = 60.0
CUTS = 12
POINTS = "points"
RELAY = "relay"
RELAY_POINTS = "relay-points"


def cuts(
    disk: str,
    life: str,
    parts: int,
    seed: int,
    number: int = CUTS,
    reannounce: float = REANNOUNCE,
    patience: float = PATIENCE,
) -> Outcome:
    """One life in an empty sandbox."""
    whole_seed = f"{disk} {life} {parts} {seed}"
    if life == POINTS:
        return cut_at_all(disk, parts, whole_seed, reannounce, patience)
    if life == RELAY:
        return cut_at_random(disk, whole_seed, number)
    if life == RELAY_POINTS:
        return cut_at_calls(disk, whole_seed)
    with Store() as store:
        host = Host(store, whole_seed, reannounce, patience)
        return host.live(disk, parts, life, number)


def command(disk: str, life: str, parts: int, seed: int, number: int) -> str:
    """What makes the same run again."""
    words = ["--disk", disk, "--life", life, "--parts", str(parts), "--seed", str(seed)]
    return shlex.join(["scripts/power.sh", *words, "--cuts", str(number), "--rounds", "1"])


def summary(outcome: Outcome) -> str:
    """What a run came to, in one line for people."""
    return (
        f"  {outcome.cuts} cuts, {outcome.files} files had left the source: {outcome.lost} lost, "
        f"{outcome.never_announced} never announced, {outcome.again} announced again; "
        f"{outcome.went_on} files moved afterwards, {outcome.stayed} not; "
        f"all right {outcome.recovered_in:.1f} s after the start"
    )


def main() -> int:
    """Returns the exit status."""
    parser = argparse.ArgumentParser(description="One run of the power bed.")
    parser.add_argument("--disk", choices=list(MAKERS), required=True)
    parser.add_argument("--life", choices=[*LIVES, POINTS, RELAY, RELAY_POINTS], required=True)
    parser.add_argument("--parts", type=int, choices=(1, 2), default=1)
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--cuts", type=int, default=CUTS)
    parser.add_argument("--reannounce", type=float, default=REANNOUNCE)
    parser.add_argument("--patience", type=float, default=PATIENCE)
    options = parser.parse_args()
    if not processes.in_sandbox():
        parser.error("it uses the daemon's fixed places: run it with tests/support/sandbox")
    os.umask(0o022)
    lack = missing((options.disk,)) or (
        crash_points.lack() if options.life in (POINTS, RELAY_POINTS) else ""
    )
    if lack:
        print(f"skipped: {lack}", file=sys.stderr)
        return 77
    again = command(options.disk, options.life, options.parts, options.seed, options.cuts)
    print(f"{again} ...", flush=True)
    outcome = cuts(
        options.disk,
        options.life,
        options.parts,
        options.seed,
        options.cuts,
        options.reannounce,
        options.patience,
    )
    print(summary(outcome))
    for sentence in outcome.broken[:15]:
        print(f"  broken: {sentence!r}")
    values = asdict(outcome)
    values["recovered_in"] = round(outcome.recovered_in, 2)
    values["broken"] = outcome.broken[:10]
    row = {"disk": options.disk, "life": options.life, "parts": options.parts}
    print(json.dumps({**row, "seed": options.seed, **values, "command": again}), flush=True)
    return 1 if outcome.broken else 0


if __name__ == "__main__":
    sys.exit(main())
