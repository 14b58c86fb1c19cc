#!/usr/bin/python3
"""The soak, inside the sandbox: the daemon works and idles in turn for long, and is measured.

Called by scripts/soak.sh, which builds the programs and makes the sandbox, and in a short form by
ctest. The status is 0 only if everything stayed flat and no file was lost. Leaves samples.csv and
summary.md in the folder of the results.
"""

from __future__ import annotations

import argparse
import csv
import random
import sys
import textwrap
import threading
import time
from collections.abc import Sequence
from contextlib import ExitStack
from dataclasses import astuple, fields
from pathlib import Path

from soak.judge import EXCESS_LIMIT, RISE_LIMIT, Sample, Verdict, judge
from soak.measure import Meter
from support.bed import Station, compare, install, make_stations
from support.consumer import Consumer
from support.daemon import LOG_FILE, Daemon
from support.waiting import wait_until

LOG_SIZE = 200_000  # bytes, so that the log is rotated many times
BURSTS = (1, 1, 5, 20, 101, 250, 450)  # files, for one to five copy processes
LARGEST = 20_000  # bytes of a file
STALL_LIMIT = 120.0  # seconds that one burst may take
PAIRS = 16  # of a busy and an idle phase, if all of them were of the usual length
BUSY_SHARE = 0.4  # of such a pair
# Two idle phases are long, one in each half: when they begin, and which share of the run each has.
# To what the first one leaves behind, the second one must not add.
NIGHTS, NIGHT_SHARE = (0.2, 0.6), 0.2


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/soak.sh", description=(__doc__ or "").splitlines()[0]
    )
    parser.add_argument(
        "minutes", nargs="?", type=float, default=10, help="how long it runs at least (default 10)"
    )
    parser.add_argument(
        "--cycles", type=int, default=0, help="go on until so many cycles were made"
    )
    parser.add_argument("--detectors", type=int, default=4, help="1 to 20 (default 4)")
    parser.add_argument("--seed", type=int, help="decides the workload; a fresh one by default")
    parser.add_argument("--only-check-options", action="store_true", help=argparse.SUPPRESS)
    for hidden in ("--skarn", "--copy-program", "--results"):
        parser.add_argument(hidden, type=Path, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.minutes <= 0 or options.cycles < 0 or not 1 <= options.detectors <= 20:
        parser.error("minutes above 0, cycles not below 0, 1 to 20 detectors")
    return options


class Workload(threading.Thread):
    """Lets the detectors produce bursts and pauses in turn, and checks every file.

    `phase` and `files` may be read at any time, `verdicts` and `error` when it has ended.
    """

    def __init__(
        self,
        stations: Sequence[Station],
        consumer: Consumer,
        generator: random.Random,
        seconds: float,
    ) -> None:
        super().__init__(daemon=True)
        self.phase = "full"
        self.files = 0  # announced so far
        self.verdicts: list[Verdict] = []
        self.error: BaseException | None = None
        self.enough = threading.Event()  # set by the caller: this phase is the last but one
        self._stations = stations
        self._consumer = consumer
        self._random = generator
        self._seconds = seconds
        self._produced = 0

    def run(self) -> None:
        try:
            faults: list[str] = []
            length = self._seconds / PAIRS
            nightfalls = [time.monotonic() + self._seconds * begin for begin in NIGHTS]
            while True:
                last = self.enough.is_set()
                self.phase = "full"
                # The last one only brings what waits in memory into the log.
                self._work(0 if last else length * BUSY_SHARE)
                faults += self._check()
                if last:
                    break
                self.phase = "idle"
                night = bool(nightfalls) and time.monotonic() >= nightfalls[0]
                if night:
                    nightfalls.pop(0)
                self.enough.wait(
                    self._seconds * NIGHT_SHARE if night else length * (1 - BUSY_SHARE)
                )
            self.verdicts.append(
                Verdict(
                    "files: whole, announced once, gone at the source",
                    not faults,
                    "; ".join(faults[:5]) or f"{self._produced} of {self._produced}",
                )
            )
        except BaseException as error:  # pylint: disable=broad-except
            self.error = error

    def _work(self, seconds: float) -> None:
        end = time.monotonic() + seconds
        first = True
        while first or time.monotonic() < end:
            first = False
            for station in self._stations:
                for _ in range(self._random.choice(BURSTS)):
                    self._produced += 1
                    name = f"frame_{self._produced:08d}.raw"
                    station.simulator.write(name, self._random.randrange(LARGEST))
            self._consumer.wait_for(self._produced, STALL_LIMIT)
            self.files = self._produced

    def _check(self) -> list[str]:
        """What is wrong with the files since the last call; they are removed and forgotten."""
        faults = []
        for station in self._stations:
            comparison = compare(station, self._consumer)
            if not comparison.agrees:
                faults.append(str(comparison))
            for name in station.simulator.frames:
                (station.target / name).unlink(missing_ok=True)
            station.simulator.frames.clear()
        self._consumer.forget()
        return faults


def run(options: argparse.Namespace, seed: int) -> tuple[list[Sample], list[Verdict]]:
    """Lets the daemon work, and returns what was measured and what it means."""
    stations = make_stations(options.detectors, server_log=True)
    # No pause when idle, so that there are as many cycles as the machine can make.
    settings = {"logfile": LOG_FILE, "logfile_max_size": LOG_SIZE}
    install(options.copy_program, stations, settings, minpause=0)
    seconds = options.minutes * 60
    interval = min(1.0, max(0.1, seconds / 300))
    samples: list[Sample] = []
    with ExitStack() as stack:
        for station in stations:
            station.server.start()
            stack.callback(station.server.kill)
        consumer = stack.enter_context(Consumer())
        daemon = stack.enter_context(Daemon(options.skarn))
        started = daemon.start()
        assert daemon.detached, started
        wait_until(LOG_FILE.exists, "the log")
        meter = Meter(daemon.pid, LOG_FILE, stations)
        stack.callback(meter.log.close)
        workload = Workload(stations, consumer, random.Random(seed), seconds)
        workload.start()
        begin = time.monotonic()
        told = begin
        while workload.is_alive() and daemon.is_running():
            now = time.monotonic()
            samples.append(meter.sample(now - begin, workload.phase, workload.files))
            if now - begin > seconds and samples[-1].cycles >= options.cycles:
                workload.enough.set()
            if now - told > 60:
                told = now
                print(f"{now - begin:6.0f} s: {progress(samples[-1])}", flush=True)
            time.sleep(interval)
        lived = daemon.is_running()
        if workload.error is not None:
            raise workload.error
        if lived:
            samples.append(meter.sample(time.monotonic() - begin, workload.phase, workload.files))
            daemon.end()
        meter.log.look()
        cycles = meter.log.separators.total()
    return samples, [
        *judge(samples),
        *workload.verdicts,
        Verdict("the daemon", lived, "ran to the end" if lived else "ended on its own"),
        Verdict(
            "cycles, by their separators in the log",
            cycles >= max(options.cycles, 1),
            f"{cycles}, {options.cycles} wanted",
        ),
    ]


def progress(sample: Sample) -> str:
    """One line for whoever waits."""
    return (
        f"{sample.cycles} cycles, {sample.files} files, {sample.resident} kB resident, "
        f"{sample.separators} separators waiting"
    )


def write_samples(path: Path, samples: Sequence[Sample]) -> None:
    """Writes the samples as CSV, with what is derived from them behind."""
    with path.open("w", encoding="ascii", newline="") as file:
        writer = csv.writer(file)
        names = [field.name for field in fields(Sample)]
        writer.writerow([*names, "separators_kb", "resident_apart", "full"])
        for sample in samples:
            derived = (sample.separators_kb, sample.resident_apart, int(sample.phase == "full"))
            row = [*astuple(sample), *derived]
            writer.writerow([round(each, 2) if isinstance(each, float) else each for each in row])


def summary(
    options: argparse.Namespace, samples: Sequence[Sample], verdicts: Sequence[Verdict]
) -> str:
    """The results for people, without anything that changes with the day."""
    last = samples[-1]
    idle = sum(sample.phase == "idle" for sample in samples)
    most = max(samples, key=lambda sample: sample.separators)
    lines = [
        "| what | result | numbers |",
        "|---|---|---|",
        *(
            f"| {verdict.subject} | {'holds' if verdict.holds else '**fails**'} "
            f"| {verdict.numbers} |"
            for verdict in verdicts
        ),
        *paragraph(
            f"{options.detectors} detectors, {last.time / 60:.1f} minutes, {len(samples)} samples "
            f"({idle} while idle), {last.cycles} cycles, {last.files} files. At most "
            f"{most.separators} separators ({most.separators_kb:.0f} kB) waited in memory for the "
            "next line of the log. Idle, the journal's folder has one file for each detector."
        ),
        *paragraph(
            "Flat means, for memory: while the daemon is busy in the second half of the run, so "
            f"that next to no separators wait, the fitted line rises by at most {RISE_LIMIT} kB "
            f"and no sample is more than {EXCESS_LIMIT} kB above the median; for everything "
            "counted: its median while idle is not higher in the last quarter than in the second."
        ),
    ]
    return "\n".join(lines) + "\n"


def paragraph(text: str) -> list[str]:
    """An empty line and the text in lines of the usual length."""
    return ["", *textwrap.wrap(text, 100)]


def main() -> int:
    options = parse_arguments()
    if options.only_check_options:
        return 0
    seed = random.SystemRandom().randrange(1 << 32) if options.seed is None else options.seed
    print(f"Soaking for at least {options.minutes:g} minutes, seed {seed}", flush=True)
    samples, verdicts = run(options, seed)
    options.results.mkdir(parents=True, exist_ok=True)
    write_samples(options.results / "samples.csv", samples)
    text = summary(options, samples, verdicts)
    (options.results / "summary.md").write_text(text, encoding="ascii")
    print(text)
    failed = sum(not verdict.holds for verdict in verdicts)
    print(f"{len(verdicts) - failed} passed, {failed} failed, 0 skipped")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
