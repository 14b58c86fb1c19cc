#!/usr/bin/python3
"""Takes the picture of the live view, inside the sandbox: a real drain, watched in a terminal.

Called by scripts/watch-picture.sh, which builds the programs and makes the sandbox.
"""

from __future__ import annotations

import argparse
import ctypes
import math
import re
import sys
import time
from contextlib import ExitStack
from pathlib import Path

from support.bed import TARGETS, Station, install, make_stations
from support.consumer import Consumer
from support.daemon import Daemon
from support.detector import digest_of, frame_names
from support.terminal import Terminal
from terminal_svg import draw

COLUMNS, ROWS = 110, 20
NAMES = ("east", "west")
REFUSING = "north"  # a detector whose server does not run
SIZE = 200_000
SECONDS = 60  # of watching before the picture, so that the row of bars is full
LOG = Path("/var/log/skarn.log")
PR_SET_NAME = 15
BOTH_AT_WORK = re.compile(
    r"^east +copying.*\n.*\nnorth +unreachable.*\n.*\nwest +copying", re.MULTILINE
)


def call_this_process(name: bytes) -> None:
    """Gives this process the name under which the consumer is to be seen."""
    ctypes.CDLL(None).prctl(PR_SET_NAME, name, 0, 0, 0)


def produce(station: Station, seconds: float, factor: float) -> None:
    """Lets a detector write what is due after so many seconds: now more at a time, now less."""
    due = int(factor * (40 * seconds + 150 * math.sin(seconds / 5)))
    station.simulator.burst(frame_names(due)[station.simulator.produced :], SIZE)


def take_away(station: Station, consumer: Consumer, begin: int) -> int:
    """Does what a consumer does with the files announced after the first `begin`: looks at each and
    takes it away. Returns how many were announced by now.
    """
    names = consumer.names_below(station.announced_target)
    for name in names[begin:]:
        path = station.target / name
        frame = station.simulator.frames[name]
        assert digest_of(path.read_bytes()) == frame.digest, f"{name} is not what was sent"
        path.unlink()
    return len(names)


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/watch-picture.sh")
    for name in ("--skarn", "--skarnctl", "--copy-program", "--picture"):
        parser.add_argument(name, type=Path, required=True)
    options = parser.parse_args()

    call_this_process(b"vantrel")
    everything = make_stations(len(NAMES) + 1)
    stations = everything[: len(NAMES)]
    for station, name in zip(everything, (*NAMES, REFUSING)):
        station.id = name
        station.target = TARGETS / name
    install(
        options.copy_program,
        everything,
        {"logfile": LOG, "logfile_max_size": "64K"},
        minpause=500,
        interrun_pause=50,
    )
    with ExitStack() as stack:
        for station in stations:
            stack.enter_context(station.server)
        consumer = stack.enter_context(Consumer())
        daemon = stack.enter_context(Daemon(options.skarn, LOG))
        daemon.start()
        terminal = stack.enter_context(Terminal(COLUMNS, ROWS))
        terminal.run([str(options.skarnctl), "watch"])
        terminal.wait_for("q quit")
        begin = time.monotonic()
        taken = [0, 0]
        captured = ""
        while not captured:
            seconds = time.monotonic() - begin
            assert seconds < 2 * SECONDS, "both detectors were never seen at work at once"
            for index, station in enumerate(stations):
                produce(station, seconds, (1.0, 0.4)[index])
                taken[index] = take_away(station, consumer, taken[index])
            if seconds > SECONDS and BOTH_AT_WORK.search(terminal.text()):
                captured = terminal.styled()
            time.sleep(0.1)
        terminal.press("q")
        produced = sum(station.simulator.produced for station in stations)
        consumer.wait_for(produced, 60)
        for index, station in enumerate(stations):
            taken[index] = take_away(station, consumer, taken[index])
        daemon.end()
        consumer.stop()
    if sum(taken) != produced:
        print(f"{produced} files were sent, but {sum(taken)} announced", file=sys.stderr)
        return 1
    options.picture.write_text(draw(captured, COLUMNS, "skarnctl watch"), encoding="utf-8")
    print(f"{options.picture}: taken while {produced} files were moved; each arrived whole")
    return 0


if __name__ == "__main__":
    sys.exit(main())
