#!/usr/bin/python3
"""Measures what long listings and a full share cost the daemon, and writes it down as a table.

Called by scripts/scale.sh, in the sandbox.
"""

from __future__ import annotations

import argparse
import os
import subprocess
import sys
from pathlib import Path

from conftest import empty_places
from scale import measure
from scale.measure import ListingDrain, ShareDrain
from support import processes
from support.rsync_server import RSYNC

MEGABYTE = 1_000_000


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/scale.sh",
        description="Measures what long listings and a full share cost the daemon.",
        formatter_class=argparse.ArgumentDefaultsHelpFormatter,
    )
    parser.add_argument(
        "--entries", type=int, nargs="*", default=[100_000, 300_000, 1_000_000],
        help="lengths of the listings",
    )
    parser.add_argument(
        "--files", type=int, nargs="*", default=[20_000, 100_000], help="real files in the share"
    )
    parser.add_argument("--record", action="store_true", help="write docs/reliability/scale.md")
    parser.add_argument("--output", type=Path, required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if min([*options.entries, *options.files], default=1) < 1:
        parser.error("a number must be at least 1")
    return options


def fresh() -> None:
    """Ends what the last measurement left, and empties its places."""
    processes.end_descendants()
    empty_places()


def measure_listings(lengths: list[int]) -> dict[str, list[ListingDrain]]:
    """The drains of listings of these lengths, by what the copy processes report."""
    drains: dict[str, list[ListingDrain]] = {}
    for name, report in measure.REPORTS.items():
        for length in sorted(lengths):
            fresh()
            drain = measure.drain_listing(length, report)
            drains.setdefault(name, []).append(drain)
            print(f"{length:9,d} entries, {name}: {drain.seconds:.1f} s, "
                  f"{drain.bytes_per_entry:.0f} bytes an entry", flush=True)
    return drains


def measure_shares(counts: list[int]) -> list[ShareDrain]:
    drains = []
    for count in sorted(counts):
        fresh()
        drain = measure.drain_share(count)
        drains.append(drain)
        print(f"{count:9,d} files: {drain.seconds:.1f} s, "
              f"{'all moved' if drain.agrees else f'NOT all moved: {drain}'}", flush=True)
    return drains


def complaints(listings: dict[str, list[ListingDrain]], shares: list[ShareDrain]) -> list[str]:
    """What is not as it should be."""
    found = []
    for name, drains in listings.items():
        for drain in drains:
            # In a short listing the evaluators' threads weigh more than the entries.
            if drain.entries < 20_000:
                continue
            if drain.bytes_per_entry > measure.MOST_BYTES_PER_ENTRY:
                found.append(f"{drain.entries} entries, {name}: more than "
                             f"{measure.MOST_BYTES_PER_ENTRY} bytes an entry")
        first, last = drains[0], drains[-1]
        # Twice as much for each entry is no noise any more, nor is it linear.
        if last.processor / last.entries > 2 * (first.processor + 0.1) / first.entries:
            found.append(f"{name}: the processor time is not linear in the entries")
    for share in shares:
        if not share.agrees:
            found.append(f"the share of {share.files} files did not drain as it should: {share}")
    return found


def page(
    listings: dict[str, list[ListingDrain]], shares: list[ShareDrain], options: argparse.Namespace
) -> str:
    """The page for docs/reliability."""
    entries = " ".join(str(each) for each in options.entries)
    files = " ".join(str(each) for each in options.files)
    lines = [
        "# Scale",
        "",
        f"Measured by `scripts/scale.sh --entries {entries} --files {files} --record`",
        f"on {os.cpu_count()} processors with {rsync_version()}, everything in memory. The script",
        "writes this page; the test `scale` repeats its short form.",
        "",
        "## Long listings",
        "",
        "A daemon that has been idle is given one listing, with names of 29 characters. A",
        "scripted copy program reports on the files; none is there. Peak memory is the most that",
        "the process ever had resident (VmHWM); the bytes an entry are what that is beyond the",
        f"peak of the idle daemon. The bound is {measure.MOST_BYTES_PER_ENTRY} bytes an entry.",
        "",
        "| entries | reported by the copy processes | seconds | daemon's processor s "
        "| idle MB | peak MB | bytes an entry |",
        "|---:|---|---:|---:|---:|---:|---:|",
    ]
    for name, drains in listings.items():
        for each in drains:
            lines.append(
                f"| {each.entries:,} | {name} | {each.seconds:.1f} | {each.processor:.2f} "
                f"| {each.idle_memory / MEGABYTE:.1f} | {each.peak_memory / MEGABYTE:.1f} "
                f"| {each.bytes_per_entry:.0f} |"
            )
    lines += [
        "",
        "The seconds are those from the beginning of the listing to the end of the cycle, the copy",
        "program's and the consumer's work included.",
        "",
        "## A full share",
        "",
        "Real files of 1,000 bytes in the share of a real rsync server, moved by the confirming",
        "copy program; every byte is compared at the end. Peak memory is that of the largest",
        "process of its kind. Each of the eight copy processes has an eighth of the files.",
        "",
        "| files | lost | never announced | announced twice | left | seconds "
        "| daemon's processor s | daemon MB | copy program MB | rsync client MB |",
        "|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|",
    ]
    for share in shares:
        peaks = [share.peaks.get(kind, 0) for kind in ("daemon", "copy program", "rsync client")]
        lines.append(
            f"| {share.files:,} | {share.lost} | {share.never_announced} "
            f"| {share.announced_more_than_once} | {share.left} | {share.seconds:.1f} "
            f"| {share.processor:.2f} | "
            + " | ".join(f"{peak / MEGABYTE:.1f}" for peak in peaks)
            + " |"
        )
    lines += [
        "",
        "The seconds are those of the loopback, whose packets hold 64 KB: the server's small",
        "messages wait longer for acknowledgements there than in an ordinary network.",
        "[performance.md](../performance.md) has the figures for the packets of one.",
    ]
    return "\n".join(lines) + "\n"


def rsync_version() -> str:
    words = subprocess.run([RSYNC, "--version"], stdout=subprocess.PIPE, check=True).stdout.split()
    return f"rsync {words[2].decode()}"


def main() -> int:
    options = parse_arguments()
    listings = measure_listings(options.entries)
    shares = measure_shares(options.files)
    fresh()
    text = page(listings, shares, options)
    if options.record:
        options.output.parent.mkdir(parents=True, exist_ok=True)
        options.output.write_text(text, encoding="utf-8")
        print(f"\nWritten: {options.output}")
    else:
        print("\n" + text)
    found = complaints(listings, shares)
    for complaint in found:
        print(f"Not as it should be: {complaint}", file=sys.stderr)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
