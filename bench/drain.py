#!/usr/bin/python3
"""Drains a full share by skarn and by bare rsync processes, and compares the wall times.

Called by scripts/bench-drain.sh, in the sandbox. How it is measured:

- Source, target and everything else are in memory, client and server on loopback. One rsync
  server, the same for both ways, whose share holds all files before the clock starts.
- skarn: the time runs from its start, right before its first listing, to the moment the consumer
  has read the last record from the named pipe. The consumer reads every 5 ms, not to compete for
  the processor with what is measured. The moments of the first record and of the last source's
  removal are reported too.
- bare: the time runs from the start of one listing, with skarn's own listing options, over
  dealing the names round-robin onto eight lists, to the end of eight rsync processes started at
  once on them, with skarn's copy options (but for --confirm-files, which stock rsync does not
  know) and --sockopts=TCP_NODELAY, their output thrown away.
- The processor time is that of all clients and servers of one drain. Where other programs compete
  for the machine it is the steadier number.
- Both are repeated in turn, bare first in every other round, after one round that is not counted.
  Medians are compared. The target is emptied before each, outside the measured time, and each
  result is checked: all files there, none left.
"""

from __future__ import annotations

import argparse
import os
import random
import shlex
import shutil
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from support.bed import STATE, Station, install, make_stations
from support.consumer import Consumer
from support.daemon import PASSWORD_FILE, Daemon, file_lists
from support.detector import frame_names
from support.rsync_server import RSYNC
from support.waiting import wait_until

LISTING_OPTIONS = ["-mrlDHW", "--list-only", "--exclude=**.tmp"]
COPY_OPTIONS = shlex.split(
    "-vthlDHW --remove-source-files --numeric-ids --out-format='SENT: %n' --sockopts=TCP_NODELAY"
)
PROCESSES = 8
JOURNALS = Path("/var/lib/skarn/journal")
LIMIT = 120.0


@dataclass
class Drain:
    """The seconds until one share was drained, its sources were gone, the first file was announced
    (skarn only), and the processor time that clients and server took for it.
    """

    done: float
    emptied: float
    first: float = 0
    processor: float = 0


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/bench-drain.sh",
        description="Drains a share by skarn and by bare rsync processes and compares.",
        formatter_class=argparse.ArgumentDefaultsHelpFormatter,
    )
    parser.add_argument("--files", type=int, default=8000, help="files in the share")
    parser.add_argument("--size", type=int, default=20000, help="bytes of each file")
    parser.add_argument("--rounds", type=int, default=7, help="measured rounds")
    parser.add_argument(
        "--limit", type=float, default=0, help="fail when the ratio is above this; 0: never"
    )
    for hidden in ("--skarn", "--copy-program"):
        parser.add_argument(hidden, type=Path, required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.files < 1 or options.size < 0 or options.rounds < 1:
        parser.error("--files and --rounds must be at least 1, --size not below 0")
    return options


class EmptyWatch:
    """Notes when a folder in memory has no entries any more: its size says so, at no cost."""

    def __init__(self, folder: Path) -> None:
        self._folder = folder
        with tempfile.TemporaryDirectory(dir=folder.parent) as empty:
            self._empty_size = os.stat(empty).st_size
        self._emptied = 0.0
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)
        self._thread.start()

    def emptied(self) -> float:
        """When it was found empty (time.monotonic); waits for it."""
        self._thread.join(LIMIT)
        self._stop.set()
        assert self._emptied > 0, "the share was not emptied"
        return self._emptied

    def _watch(self) -> None:
        while not self._stop.wait(0.005):
            if os.stat(self._folder).st_size == self._empty_size:
                self._emptied = time.monotonic()
                return


def drain_by_skarn(options: argparse.Namespace, station: Station, names: list[str]) -> Drain:
    """One drain by the daemon."""
    with Consumer(nap=0.005) as consumer, Daemon(options.skarn) as daemon:
        watch = EmptyWatch(station.simulator.root)
        begin = time.monotonic()
        started = daemon.start()
        assert daemon.detached, started.errors + daemon.log()
        consumer.wait_for(len(names), LIMIT)
        emptied = watch.emptied()
        # The processor time of a copy process counts once the daemon has taken its status.
        wait_until(lambda: not file_lists(), "the end of the cycle")
        daemon.end()
    assert sorted(consumer.names_below(station.announced_target)) == names
    arrivals = [record.arrival for record in consumer.records()]
    return Drain(arrivals[-1] - begin, emptied - begin, arrivals[1] - begin)


def drain_by_rsync(station: Station, names: list[str]) -> Drain:
    """One drain by bare rsync processes."""
    password = f"--password-file={PASSWORD_FILE}"
    watch = EmptyWatch(station.simulator.root)
    begin = time.monotonic()
    listing = subprocess.run(
        [RSYNC, *LISTING_OPTIONS, password, station.server.url],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        check=True,
        timeout=LIMIT,
    )
    listed = [line.split(None, 4)[4] for line in listing.stdout.splitlines()]
    listed = [name for name in listed if not name.startswith(b".")]
    processes = []
    for number in range(PROCESSES):
        file_list = STATE / f"list_{number}"
        file_list.write_bytes(b"".join(name + b"\n" for name in listed[number::PROCESSES]))
    for number in range(PROCESSES):
        files_from = f"--files-from={STATE}/list_{number}"
        processes.append(
            subprocess.Popen(
                [
                    RSYNC,
                    *COPY_OPTIONS,
                    password,
                    files_from,
                    station.server.url,
                    f"{station.target}/",
                ],
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
            )
        )
    statuses = [process.wait(LIMIT) for process in processes]
    end = time.monotonic()
    assert statuses == [0] * PROCESSES, statuses
    assert len(listed) == len(names)
    return Drain(end - begin, watch.emptied() - begin)


def prepare(station: Station, names: list[str], size: int) -> None:
    """Empties the target and fills the share; each file has its own content.

    The copy program finds no journals: those of the round before are of a dead daemon, and to
    decide about them is no part of a drain.
    """
    shutil.rmtree(station.target, ignore_errors=True)
    shutil.rmtree(JOURNALS, ignore_errors=True)
    station.target.mkdir(parents=True)
    station.simulator.root.mkdir(parents=True, exist_ok=True)
    STATE.mkdir(parents=True, exist_ok=True)
    block = random.Random("drain").randbytes(size + len(names))
    for number, name in enumerate(names):
        (station.simulator.root / name).write_bytes(block[number : number + size])


def check(station: Station, names: list[str], size: int) -> None:
    arrived = sorted(os.listdir(station.target))
    assert arrived == names, f"{len(arrived)} of {len(names)} files arrived"
    assert all((station.target / name).stat().st_size == size for name in names)
    assert not os.listdir(station.simulator.root), "files are left at the source"


def drain(
    way: Callable[[], Drain], station: Station, names: list[str], options: argparse.Namespace
) -> Drain:
    """One drain in one of the ways, from the preparation to the check."""
    prepare(station, names, options.size)
    before = os.times()
    with station.server:
        result = way()
        station.server.stop()  # only what has ended is accounted for
    after = os.times()
    result.processor = (
        after.children_user + after.children_system - before.children_user - before.children_system
    )
    check(station, names, options.size)
    return result


def measure(options: argparse.Namespace) -> float:
    names = sorted(frame_names(options.files))
    (station,) = make_stations(1)
    install(options.copy_program, [station])
    ways: dict[str, Callable[[], Drain]] = {
        "skarn": lambda: drain_by_skarn(options, station, names),
        "bare": lambda: drain_by_rsync(station, names),
    }
    results: dict[str, list[Drain]] = {way: [] for way in ways}
    print(f"{options.files} files of {options.size} bytes; seconds until all is done")
    print("            --------------- skarn ---------------    ---------- bare ----------")
    print("    round    done   first    gone  processor          done    gone  processor   ratio")
    for round_number in range(options.rounds + 1):
        this = {
            way: drain(ways[way], station, names, options)
            for way in sorted(ways, reverse=round_number % 2 == 1)
        }
        skarn, bare = this["skarn"], this["bare"]
        print(
            f"  {round_number or 'warm-up':>7}"
            f"   {skarn.done:5.3f}   {skarn.first:5.3f}   {skarn.emptied:5.3f}      "
            f"{skarn.processor:5.2f}         {bare.done:5.3f}   {bare.emptied:5.3f}      "
            f"{bare.processor:5.2f}    {skarn.done / bare.done:5.2f}",
            flush=True,
        )
        if round_number > 0:
            for way, result in this.items():
                results[way].append(result)
    medians = {way: statistics.median(d.done for d in drains) for way, drains in results.items()}
    processor = {
        way: statistics.median(d.processor for d in drains) for way, drains in results.items()
    }
    ratio = medians["skarn"] / medians["bare"]
    print(
        f"medians: skarn {medians['skarn']:.3f} s, bare {medians['bare']:.3f} s, "
        f"ratio {ratio:.2f}; "
        f"processor time {processor['skarn']:.2f} s and {processor['bare']:.2f} s"
    )
    return ratio


def main() -> int:
    options = parse_arguments()
    ratio = measure(options)
    if options.limit and ratio > options.limit:
        print(f"The ratio is above {options.limit:.2f}.")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
