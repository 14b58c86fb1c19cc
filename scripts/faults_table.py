#!/usr/bin/python3
"""Puts the table of fault runs, or of cuts of the power, into docs/reliability.md, from the
committed results.

    faults_table.py [--power] [--check] [RESULTS [DOCUMENT]]

RESULTS is a file that scripts/faults.sh wrote (docs/reliability/results.jsonl by default), or with
--power one that scripts/power.sh wrote (docs/reliability/power.jsonl). The table replaces what
stands between its two marker lines of DOCUMENT. With --check nothing is written, and the status is
1 if the table there is another one.
"""

from __future__ import annotations

import argparse
import json
import sys
from dataclasses import dataclass
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parent.parent
MARKER = "<!-- table of scripts/faults_table.py: {} -->"
POWER_MARKER = "<!-- table of scripts/faults_table.py --power: {} -->"
HEAD = (
    "| fault | `--fault` | runs | faults | files | lost | never announced | announced twice "
    "| recovered in |"
)


@dataclass
class Row:
    """All runs of one fault together."""

    title: str
    name: str
    runs: int = 0
    faults: int = 0
    files: int = 0
    lost: int = 0
    never: int = 0
    twice: int = 0
    recovered: float = 0.0

    def add(self, run: dict[str, Any]) -> None:
        """Adds one line of the results."""
        self.runs += 1
        self.faults += run["injected"]
        self.files += run["files"]
        self.lost += run["lost"]
        self.never += run["never_announced"]
        self.twice += run["announced_twice"]
        self.recovered = max(self.recovered, run["recovered_in"])

    def __str__(self) -> str:
        name = f"`{self.name}`" if self.name else ""
        return (
            f"| {self.title} | {name} | {self.runs} | {self.faults:,} | {self.files:,} "
            f"| {self.lost} | {self.never} | {self.twice} | {self.recovered:.1f} s |"
        )


def table(runs: list[dict[str, Any]]) -> str:
    """The table, and what else the results say."""
    rows: dict[str, Row] = {}
    total = Row("**all**", "")
    for run in runs:
        rows.setdefault(run["fault"], Row(run["title"], run["fault"])).add(run)
        total.add(run)
    daemons, copies, excused, cut = (
        sum(run[key] for run in runs) for key in ("daemon_kills", "copy_kills", "excused", "cut")
    )
    lines = [
        HEAD,
        "|---|---|" + "---:|" * 7,
        *map(str, rows.values()),
        str(total),
        "",
        f"- {daemons:,} deaths of the daemon and {copies:,} of copy processes are among them.",
        '- "Recovered in" is the longest time from the end of the last fault of a run until all',
        "  was moved and announced.",
        f"- {excused:,} files were moved while there was no pipe to announce them in, or taken",
        "  away from the target before they could be announced: after a death, or named as lost.",
        '  They are not counted as "never announced".',
        f"- {cut:,} of the growing files were taken as they were while the detector paused, and it",
        "  wanted to go on writing afterwards.",
    ]
    return "\n".join(lines) + "\n"


LIVES = {
    "stream": "a detector that writes all the time",
    "drain": "a share full of files",
    "points": "each system call of a copy",
}
POWER_HEAD = (
    "| file system | what was under way | target and journals on | cuts | files that had left the "
    "source before one | lost | never announced | files moved afterwards | all right in |"
)


@dataclass
class PowerRow:
    """All lives of one kind over one file system together."""

    what: str
    cuts: int = 0
    files: int = 0
    lost: int = 0
    never: int = 0
    went_on: int = 0
    recovered: float = 0.0

    def add(self, run: dict[str, Any]) -> None:
        """Adds one line of the results."""
        self.cuts += run["cuts"]
        self.files += run["files"]
        self.lost += run["lost"]
        self.never += run["never_announced"]
        self.went_on += run["went_on"]
        self.recovered = max(self.recovered, run["recovered_in"])

    def __str__(self) -> str:
        return (
            f"| {self.what} | {self.cuts:,} | {self.files:,} | {self.lost} | {self.never} "
            f"| {self.went_on:,} | {self.recovered:.1f} s |"
        )


def power_table(runs: list[dict[str, Any]]) -> str:
    """The table of cuts."""
    rows: dict[str, PowerRow] = {}
    total = PowerRow("**all** | |")
    for run in runs:
        place = "one file system" if run["parts"] == 1 else "two"
        what = f"{run['disk']} | {LIVES[run['life']]} | {place}"
        rows.setdefault(what, PowerRow(what)).add(run)
        total.add(run)
    lines = [POWER_HEAD, "|---|---|---|" + "---:|" * 6, *map(str, rows.values()), str(total)]
    return "\n".join(lines) + "\n"


def main() -> int:
    """Returns the exit status."""
    parser = argparse.ArgumentParser(description="Renders the results of fault runs and cuts.")
    parser.add_argument("--power", action="store_true")
    parser.add_argument("--check", action="store_true")
    parser.add_argument("results", nargs="?", type=Path)
    parser.add_argument("document", nargs="?", type=Path, default=ROOT / "docs/reliability.md")
    options = parser.parse_args()
    name = "power.jsonl" if options.power else "results.jsonl"
    marker = POWER_MARKER if options.power else MARKER
    begin_line, end_line = marker.format("begin"), marker.format("end")
    text = (options.results or ROOT / "docs/reliability" / name).read_text(encoding="utf-8")
    runs = [json.loads(line) for line in text.splitlines() if line]
    make = power_table if options.power else table
    document = options.document.read_text(encoding="utf-8")
    before, begin, rest = document.partition(begin_line + "\n")
    _, end, after = rest.partition(end_line)
    if not begin or not end:
        sys.exit(f"{options.document} lacks the marker lines of the table")
    wanted = f"{before}{begin}\n{make(runs)}\n{end}{after}"
    if options.check:
        return 0 if wanted == document else 1
    options.document.write_text(wanted, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
