#!/usr/bin/python3
"""Measures what it costs to watch skarn while it moves small files as fast as it can.

Called by scripts/bench-watch.sh, in the sandbox. How it is measured:

- Source, target and everything else are in memory, client and server on loopback. The shares hold
  all files before the daemon starts; it drains them with eight copy processes for each detector.
- Beside it run `skarnctl watch --json --interval 1` and the full-screen view in a terminal of
  120 by 40 characters that takes what it is given, each with a look every second.
- Their processor time is what the scheduler has charged to their threads between the start of the
  daemon and the last announced file; beginning and end of the programs are not in it. It is
  compared with the time that went by: 1 per cent is a hundredth of one core.
- The log is rotated at 64 KiB, so that rotations are part of it.
"""

from __future__ import annotations

import argparse
import fcntl
import json
import os
import pty
import select
import signal
import statistics
import struct
import subprocess
import sys
import termios
import threading
import time
from pathlib import Path

from support.bed import STATE, Station, install, make_stations
from support.consumer import Consumer
from support.daemon import LOG_FILE, Daemon
from support.detector import frame_names
from support.folders import remove
from support.waiting import wait_until

JOURNALS = Path("/var/lib/skarn/journal")
FIGURES = Path("/run/skarn")
LIMIT = 300.0
ROWS, COLUMNS = 40, 120


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/bench-watch.sh",
        description="Measures what skarnctl watch costs beside a daemon at full speed.",
        formatter_class=argparse.ArgumentDefaultsHelpFormatter,
    )
    parser.add_argument("--detectors", type=int, default=2, help="detectors")
    parser.add_argument("--files", type=int, default=20000, help="files of each detector")
    parser.add_argument("--size", type=int, default=2000, help="bytes of each file")
    parser.add_argument("--rounds", type=int, default=5, help="measured rounds")
    parser.add_argument(
        "--limit", type=float, default=0, help="fail above this per cent of a core; 0: never"
    )
    for hidden in ("--skarn", "--skarnctl", "--copy-program"):
        parser.add_argument(hidden, type=Path, required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if min(options.detectors, options.files, options.rounds) < 1 or options.size < 0:
        parser.error("--detectors, --files and --rounds must be at least 1, --size not below 0")
    return options


def processor_time(pid: int) -> float:
    """Seconds that the threads of a process have run so far."""
    total = 0
    for thread in os.listdir(f"/proc/{pid}/task"):
        try:
            text = Path(f"/proc/{pid}/task/{thread}/schedstat").read_text(encoding="ascii")
        except FileNotFoundError:
            continue  # ended meanwhile
        total += int(text.split()[0])
    return total / 1e9


class Watcher:
    """One skarnctl watch; what it prints goes into `output`, read by a thread of its own."""

    def __init__(self, skarnctl: Path, daemon: Path, arguments: list[str], terminal: bool) -> None:
        command = [str(skarnctl), "--daemon", str(daemon), "watch", *arguments]
        environment = {**os.environ, "TERM": "xterm-256color", "LC_ALL": "C.UTF-8"}
        self.output = b""
        if terminal:
            self._descriptor, inside = pty.openpty()
            fcntl.ioctl(inside, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
        else:
            self._descriptor, inside = os.pipe()
        self._process = subprocess.Popen(
            command,
            stdin=inside if terminal else subprocess.DEVNULL,
            stdout=inside,
            stderr=inside,
            env=environment,
            start_new_session=True,
        )
        os.close(inside)
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()
        wait_until(lambda: len(self.output) > 0, "the first look")

    def _read(self) -> None:
        while True:
            select.select([self._descriptor], [], [])
            try:
                piece = os.read(self._descriptor, 65536)
            except OSError:
                return  # the terminal has no other end any more
            if not piece:
                return
            self.output += piece

    def time(self) -> float:
        """Processor seconds so far."""
        assert self._process.poll() is None, self.output[-2000:]
        return processor_time(self._process.pid)

    def stop(self) -> None:
        self._process.send_signal(signal.SIGTERM)
        self._process.wait(30)
        self._thread.join(30)
        os.close(self._descriptor)


def prepare(stations: list[Station], names: list[str], size: int) -> None:
    """Empties targets, log, journals and figures, and fills the shares."""
    remove(JOURNALS)
    remove(FIGURES)
    remove(LOG_FILE.parent)
    LOG_FILE.parent.mkdir(parents=True)
    STATE.mkdir(parents=True, exist_ok=True)
    for station in stations:
        remove(station.target)
        station.simulator.root.mkdir(parents=True, exist_ok=True)
        content = bytes(size)
        for name in names:
            (station.simulator.root / name).write_bytes(content)


def one_round(options: argparse.Namespace, stations: list[Station]) -> dict[str, float]:
    """Drains the shares once; the per cent of a core of each view, and the files a second."""
    names = frame_names(options.files)
    prepare(stations, names, options.size)
    wanted = len(names) * len(stations)
    for station in stations:
        station.server.start()
    with Consumer(nap=0.005) as consumer, Daemon(options.skarn) as daemon:
        watchers = {
            "json": Watcher(
                options.skarnctl, options.skarn, ["--json", "--interval", "1"], terminal=False
            ),
            "screen": Watcher(options.skarnctl, options.skarn, ["--interval", "1"], terminal=True),
        }
        before = {view: watcher.time() for view, watcher in watchers.items()}
        begin = time.monotonic()
        started = daemon.start()
        assert daemon.detached, started.errors + daemon.log()
        consumer.wait_for(wanted, LIMIT)
        took = time.monotonic() - begin
        used = {view: watcher.time() - before[view] for view, watcher in watchers.items()}

        def last_count() -> int:
            lines = watchers["json"].output.split(b"\n")
            count: int = json.loads(lines[-2])["total"]["files"]
            return count

        # What is cheap but does not see everything would be no use.
        wait_until(lambda: last_count() == wanted, lambda: f"{wanted} files; {last_count()} seen")
        for watcher in watchers.values():
            watcher.stop()
        daemon.end()
    for station in stations:
        station.server.stop()
    result = {view: 100 * seconds / took for view, seconds in used.items()}
    return {**result, "rate": wanted / took, "took": took}


def measure(options: argparse.Namespace) -> float:
    stations = make_stations(options.detectors)
    install(
        options.copy_program, stations, {"logfile_max_size": "64K", "logfile_max_number": 10}
    )
    print(
        f"{options.detectors} detectors, {options.files} files of {options.size} bytes each; "
        "per cent of a core while they are moved"
    )
    print("    round    seconds   files/s      json    screen")
    results = []
    for number in range(options.rounds):
        this = one_round(options, stations)
        results.append(this)
        print(
            f"  {number + 1:>7}    {this['took']:7.2f}  {this['rate']:8.0f}"
            f"  {this['json']:8.2f}  {this['screen']:8.2f}",
            flush=True,
        )
    medians = {view: statistics.median(each[view] for each in results) for view in results[0]}
    print(f"medians: json {medians['json']:.2f} %, screen {medians['screen']:.2f} % of a core")
    return max(medians["json"], medians["screen"])


def main() -> int:
    options = parse_arguments()
    worst = measure(options)
    if options.limit and worst > options.limit:
        print(f"That is above {options.limit:.2f} %.")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
