#!/usr/bin/python3
"""The demonstration, inside the sandbox: detectors produce, skarn pulls, a consumer is told.

Called by scripts/demo.sh, which builds the programs and makes the sandbox. The status is 0 only
if everything that was produced arrived, was announced once and is gone at the source.
"""

from __future__ import annotations

import argparse
import os
import shutil
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from pathlib import Path

from behind_relay import BehindRelay
from support.bed import Comparison, Station, compare, install, make_stations
from support.consumer import Consumer
from support.daemon import Daemon
from support.detector import frame_names

STALL_LIMIT = 60.0  # seconds without any progress after which the demonstration gives up


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/demo.sh",
        description="Shows skarn's main job with simulated detectors and real rsync daemons, "
        "in a sandbox of its own.",
        formatter_class=argparse.ArgumentDefaultsHelpFormatter,
    )
    parser.add_argument("--detectors", type=int, default=2, help="how many detectors (1 to 100)")
    parser.add_argument("--files", type=int, default=2000, help="files that each one produces")
    parser.add_argument("--size", type=int, default=20000, help="bytes of each file")
    parser.add_argument("--rate", type=float, default=100, help="files per second of each one")
    parser.add_argument(
        "--relay",
        action="store_true",
        help="put skarn-relay in the consumer's place, with two subscribers, one of which dies",
    )
    parser.add_argument("--only-check-options", action="store_true", help=argparse.SUPPRESS)
    for hidden in ("--skarn", "--copy-program", "--log", "--relay-program"):
        parser.add_argument(hidden, type=Path, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if not 1 <= options.detectors <= 100:
        parser.error("--detectors: from 1 to 100")
    if options.files < 1 or options.size < 0 or options.rate <= 0:
        parser.error("--files and --rate must be above 0, --size not below it")
    return options


def introduce(options: argparse.Namespace, log: Path) -> None:
    total = options.detectors * options.files
    with_relay = """The relay reads that pipe and keeps what it reads in a log. `vantrel`, the consumer, reads a pipe of its
own; a second subscriber, `analysis`, fetches over the relay's socket. It is killed on the way and comes
back: it must have every file, too.

"""
    print(
        f"""
What you are going to see
  {options.detectors} simulated detector(s) write {options.files} frames each, {options.size} \
bytes a frame, {options.rate:g} frames/s,
  as NAME.tmp and then renamed, into a share that a real rsync daemon exports.
  skarn lists the shares, pulls what is there, and has each file deleted at the source once
  it has arrived. It announces each file in a named pipe, which a consumer reads.
  At the end all {total} files are compared: names, checksums, announcements, what is left.

  produced    frames the detectors have written so far
  in share    of these, still at a detector
  copied      whole files in the target directories
  handed off  paths that the consumer has read from the named pipe
  rate        handed off per second, over the last few seconds

{with_relay if options.relay else ""}All of it happens in a sandbox on the loopback interface. skarn's log can be followed with
  tail -F {log}
"""
    )


def count_visible(root: Path, suffix_not: str = "") -> int:
    """How many whole files stand directly in a folder: hidden ones are still being written."""
    try:
        with os.scandir(root) as entries:
            return sum(
                not entry.name.startswith(".")
                and not (suffix_not and entry.name.endswith(suffix_not))
                for entry in entries
            )
    except FileNotFoundError:
        return 0


class Progress:
    """The progress line: rewritten in place on a terminal, a line each second elsewhere."""

    def __init__(self, stations: list[Station], consumer: Consumer, total: int) -> None:
        self._stations = stations
        self._consumer = consumer
        self._total = total
        self._terminal = sys.stdout.isatty()
        self._begin = time.monotonic()
        self._shown = 0.0
        self._history: list[tuple[float, int]] = []

    def show(self, last: bool = False) -> int:
        """Shows how far things are, if it is time to; returns the number handed off."""
        now = time.monotonic()
        handed_off = self._consumer.count()
        if not last and now - self._shown < (0.2 if self._terminal else 1.0):
            return handed_off
        self._shown = now
        self._history = [entry for entry in self._history if entry[0] > now - 3]
        self._history.append((now, handed_off))
        since, before = self._history[0]
        rate = (handed_off - before) / (now - since) if now > since else 0.0
        produced = sum(station.simulator.produced for station in self._stations)
        in_share = sum(count_visible(s.simulator.root, ".tmp") for s in self._stations)
        copied = sum(count_visible(station.target) for station in self._stations)
        seconds = f"{now - self._begin:5.1f} s"
        numbers = (
            f"produced {produced:5d}  in share {in_share:4d}  copied {copied:5d}"
            f"  handed off {handed_off:5d}  {rate:4.0f}/s"
        )
        line = f"{seconds}  {self._bar(handed_off)}  {numbers}"
        if self._terminal:
            # A line that wraps could not be rewritten in place.
            width = shutil.get_terminal_size().columns - 1
            if len(line) > width:
                line = f"{seconds}  {numbers}"[:width]
            print(f"\r{line}\033[K", end="\n" if last else "", flush=True)
        else:
            print(line, flush=True)
        return handed_off

    def _bar(self, done: int, width: int = 20) -> str:
        full = min(width, done * width // self._total)
        return "[" + "#" * full + "." * (width - full) + "]"


@contextmanager
def producing(stations: list[Station], options: argparse.Namespace) -> Iterator[None]:
    """Lets every detector produce at its rate; none does any more when the block is left."""
    names = frame_names(options.files)
    try:
        for station in stations:
            station.simulator.start(names, options.size, options.rate)
        yield
    finally:
        for station in stations:
            station.simulator.stop()


def watch(
    progress: Progress,
    consumer: Consumer,
    daemon: Daemon,
    total: int,
    follow: Callable[[int], None],
) -> str:
    """Follows the transfers until all is handed off, and calls `follow` with how much that is;
    returns what stopped them, if anything.
    """
    handed_off = 0
    moved = time.monotonic()
    while handed_off < total:
        seen = progress.show()
        follow(seen)
        if seen > handed_off:
            handed_off, moved = seen, time.monotonic()
        if not daemon.is_running():
            return "skarn ended on its own"
        if time.monotonic() - moved > STALL_LIMIT:
            return f"nothing moved for {STALL_LIMIT:g} seconds"
        time.sleep(0.02)
    progress.show(last=True)
    return ""


def print_table(rows: list[Comparison]) -> None:
    columns = (
        "detector",
        "address",
        "produced",
        "arrived",
        "same checksum",
        "announced once",
        "left at source",
        "",
    )
    lines = [
        (
            row.station.id,
            row.station.server.address,
            *map(str, (row.produced, row.arrived, row.identical, row.announced_once, row.left)),
            "agrees" if row.agrees else "differs",
        )
        for row in rows
    ]
    widths = [max(map(len, column)) for column in zip(columns, *lines)]
    print()
    for line in (columns, tuple("-" * width for width in widths), *lines):
        print("  " + "  ".join(cell.rjust(width) for cell, width in zip(line, widths)))
    print()


def run(options: argparse.Namespace, kept_log: Path) -> int:
    total = options.detectors * options.files
    stations = make_stations(options.detectors)
    for old in kept_log.parent.glob(kept_log.name + "*"):
        old.unlink()
    # The way to the project may have blanks in it, which a value of the configuration can't have.
    log = Path("/var/log", kept_log.name)
    subprocess.run(["mount", "--bind", kept_log.parent, log.parent], check=True)
    install(options.copy_program, stations, {"logfile": log}, minpause=100, interrun_pause=10)
    with ExitStack() as stack:
        for station in stations:
            stack.enter_context(station.server)
        relay = None
        if options.relay:
            relay = stack.enter_context(BehindRelay(options.relay_program, total))
        consumer = relay.consumer if relay else stack.enter_context(Consumer())
        daemon = stack.enter_context(Daemon(options.skarn, log))
        started = daemon.start()
        if started.status != 0 or not daemon.detached:
            print(f"skarn did not start: status {started.status}\n{started.errors}{daemon.log()}")
            return 1
        begin = time.monotonic()
        with producing(stations, options):
            progress = Progress(stations, consumer, total)
            follow = relay.follow if relay else lambda _: None
            stopped = watch(progress, consumer, daemon, total, follow)
        seconds = time.monotonic() - begin
        if daemon.is_running():
            daemon.end()
        has_all, sentence = relay.conclude() if relay else (True, "")
        consumer.stop()  # reads what is left in the pipe first
    rows = [compare(station, consumer) for station in stations]
    print_table(rows)
    for row in rows:
        if not row.agrees:
            print(row)
    if stopped:
        print(f"The transfers came to a stop: {stopped}. The log's end:\n{daemon.log()[-2000:]}")
    if sentence:
        print(f"{sentence}\n")
    if stopped or not has_all or not all(row.agrees for row in rows):
        return 1
    runs = daemon.archived_log().count("++ RSYNC OUTPUT BEGIN")
    print(
        f"Everything agrees: {total} files ({total * options.size / 1e6:.1f} MB) moved in "
        f"{seconds:.1f} s by {runs} copy processes,\n"
        "none lost, none altered, each announced once, nothing left at the source."
    )
    return 0


def main() -> int:
    options = parse_arguments()
    if options.skarn is None or options.copy_program is None or options.log is None:
        print("show.py is started by scripts/demo.sh", file=sys.stderr)
        return 2
    if options.only_check_options:
        return 0
    introduce(options, options.log)
    try:
        return run(options, options.log)
    except KeyboardInterrupt:
        print("\nInterrupted; nothing is left running.")
        return 130


if __name__ == "__main__":
    sys.exit(main())
