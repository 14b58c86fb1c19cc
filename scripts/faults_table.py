#!/usr/bin/python3
"""Puts the table of fault runs into docs/reliability.md, from the committed results.

    faults_table.py [--check] [RESULTS [DOCUMENT]]

RESULTS is a file that scripts/faults.sh wrote (docs/reliability/results.jsonl by default). The
table replaces what stands between the two marker lines of DOCUMENT. With --check nothing is
written, and the status is 1 if the table there is another one.
"""

from __future__ import annotations

import argparse
import json
import sys
from dataclasses import dataclass
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parent.parent
BEGIN = "<!-- table of scripts/faults_table.py: begin -->"
END = "<!-- table of scripts/faults_table.py: end -->"
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
        "  away from the target, after a death, before they could be announced. They are not",
        '  counted as "never announced".',
        f"- {cut:,} of the growing files were taken as they were while the detector paused, and it",
        "  wanted to go on writing afterwards.",
    ]
    return "\n".join(lines) + "\n"


def main() -> int:
    """Returns the exit status."""
    parser = argparse.ArgumentParser(description="Renders the results of fault runs.")
    parser.add_argument("--check", action="store_true")
    results = ROOT / "docs/reliability/results.jsonl"
    parser.add_argument("results", nargs="?", type=Path, default=results)
    parser.add_argument("document", nargs="?", type=Path, default=ROOT / "docs/reliability.md")
    options = parser.parse_args()
    text = options.results.read_text(encoding="utf-8")
    runs = [json.loads(line) for line in text.splitlines() if line]
    document = options.document.read_text(encoding="utf-8")
    before, begin, rest = document.partition(BEGIN + "\n")
    _, end, after = rest.partition(END)
    if not begin or not end:
        sys.exit(f"{options.document} lacks the marker lines of the table")
    wanted = f"{before}{begin}\n{table(runs)}\n{end}{after}"
    if options.check:
        return 0 if wanted == document else 1
    options.document.write_text(wanted, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
