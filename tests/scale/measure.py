"""How the daemon takes much at a time: its time and memory for a listing of any length."""

from __future__ import annotations

import os
import re
import threading
import time
from collections.abc import Mapping, Sequence
from dataclasses import dataclass

from support import scripted
from support.bed import Bed, compare
from support.consumer import Consumer
from support.daemon import (
    COPY_PROGRAM,
    LOG_FILE,
    Daemon,
    Detector,
    install_password_file,
    write_configuration,
)
from support.processes import processes, status_field
from support.waiting import wait_until

# What a copy process reports, as steps of the scripted copy program.
NEVER_CONFIRMED = ["sent-all"]
REPORTS = {
    "each confirmed at once": ["confirm-all"],
    "all confirmed at the end": ["sent-all", "confirmed-all"],
    "none confirmed": NEVER_CONFIRMED,
}

# The bound on the daemon's peak memory beyond its idle one, for names of about 30 characters.
MOST_BYTES_PER_ENTRY = 200

TARGET = "/srv/images"
LIMIT = 300.0
PROCESSES = 8  # copy processes at most


@dataclass(frozen=True)
class ListingDrain:
    """What one listing took, from its start to the end of the cycle."""

    entries: int
    seconds: float
    processor: float  # the daemon's own seconds, its children not counted
    idle_memory: int  # bytes: the peak before that listing
    peak_memory: int  # bytes: the peak after that cycle

    @property
    def bytes_per_entry(self) -> float:
        return (self.peak_memory - self.idle_memory) / self.entries


def entry_names(count: int) -> list[str]:
    """Names of 29 characters in folders of a thousand, as a detector might use them."""
    return [f"run_{number // 1000:04d}/frame_{number:010d}.raw" for number in range(count)]


def peak_memory(pid: int) -> int:
    """The most memory that the process ever had resident, in bytes."""
    return int(status_field(pid, "VmHWM").split()[0]) * 1024


def processor_time(pid: int) -> float:
    """The processor seconds of a process itself."""
    with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def drain_listing(count: int, report: Sequence[str]) -> ListingDrain:
    """Lets a daemon that has been idle list `count` entries, and the copy processes report.

    The copy program is the scripted one: no file is there. Uses all of the sandbox's places.
    """
    install_password_file()
    scripted.install()
    scripted.set_default_copy(report)
    # One log, whatever is written to it.
    settings = {"logfile": LOG_FILE, "logfile_max_size": "1G"}
    write_configuration(settings, [Detector("1", target=TARGET, minpause=20)])
    names = entry_names(count)
    with Consumer(nap=0.02) as consumer, Daemon() as daemon:
        started = daemon.start()
        assert daemon.detached, started
        scripted.wait_for_calls("listing", 10)
        idle, processor = peak_memory(daemon.pid), processor_time(daemon.pid)
        begin = time.monotonic()
        scripted.add_listing(names)
        wait_until(lambda: ended_cycle(daemon, count), "the cycle to end", LIMIT)
        seconds = time.monotonic() - begin
        processor = processor_time(daemon.pid) - processor
        peak = peak_memory(daemon.pid)
        daemon.end()
        if report != NEVER_CONFIRMED:
            consumer.wait_for(count, LIMIT)
        announced = consumer.names_below(f"{TARGET}/.")
    # Each once; the copy processes run side by side, so not in the listing's order.
    assert sorted(announced) == ([] if report == NEVER_CONFIRMED else names)
    return ListingDrain(count, seconds, processor, idle, peak)


def ended_cycle(daemon: Daemon, entries: int) -> bool:
    """Whether the last file list of a cycle of that many entries has been removed. Only the end of
    the log, which may be long, is looked at.
    """
    last = min(entries // 101 + 1, PROCESSES) - 1
    pattern = rb"^1: Removed file /tmp/file_list_.*_%d\n" % last
    try:
        with open(daemon.log_file, "rb") as log:
            log.seek(max(0, os.fstat(log.fileno()).st_size - 4096))
            return re.search(pattern, log.read(), re.MULTILINE) is not None
    except FileNotFoundError:
        return False


class PeakWatch:
    """Notes the most memory that the processes of each kind ever had, as long as it runs.

    It looks often, but a process that ends right after its peak may have been seen just before.
    """

    def __init__(self) -> None:
        self.peaks: dict[str, int] = {}  # bytes of the largest process of that kind
        self.looks = 0
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)

    def __enter__(self) -> PeakWatch:
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._stop.set()
        self._thread.join(30)

    def _watch(self) -> None:
        while not self._stop.wait(0.03):
            self.looks += 1
            everyone = processes()
            copying = {each.pid for each in everyone if each.name == COPY_PROGRAM.name}
            clients = {each.pid for each in everyone if each.parent in copying}
            for each in everyone:
                if each.pid in copying:
                    self._note("copy program", each.pid)
                elif each.parent in copying or each.parent in clients:
                    self._note("rsync client", each.pid)

    def _note(self, kind: str, pid: int) -> None:
        try:
            self.peaks[kind] = max(self.peaks.get(kind, 0), peak_memory(pid))
        except (OSError, AssertionError):
            pass  # it ended meanwhile


@dataclass(frozen=True)
class ShareDrain:
    """What it took to drain a share of real files."""

    files: int
    seconds: float  # from the daemon's start to the last announcement
    processor: float  # the daemon's own
    peaks: Mapping[str, int]  # bytes of the largest process of each kind
    lost: int
    never_announced: int
    announced_more_than_once: int
    left: int
    copy_processes: int

    @property
    def agrees(self) -> bool:
        """Whether every file arrived as it was, was announced once and is gone at the source."""
        return not (
            self.lost or self.never_announced or self.announced_more_than_once or self.left
        )


def drain_share(count: int, size: int = 1000) -> ShareDrain:
    """Lets the daemon drain a share of `count` files, with the real servers and copy program."""
    with Bed(settings={"logfile_max_size": "1G"}) as bed, PeakWatch() as watch:
        station = bed.stations[0]
        bed.simulator.burst(entry_names(count), size)
        begin = time.monotonic()
        bed.start()
        bed.wait_announced(count, LIMIT)
        seconds = time.monotonic() - begin
        bed.settle(LIMIT)
        pid = bed.daemon.pid
        peaks = {"daemon": peak_memory(pid), **watch.peaks}
        processor = processor_time(pid)
        comparison = compare(station, bed.consumer)
        started = re.findall(r"^1 Starting (\d+) copy", bed.daemon.log(), re.MULTILINE)
        faults = comparison.faults
        return ShareDrain(
            files=count,
            seconds=seconds,
            processor=processor,
            peaks=peaks,
            lost=len(faults["did not arrive"]) + len(faults["arrived with another content"]),
            never_announced=len(faults["not announced"]),
            announced_more_than_once=len(faults["announced more than once"]),
            left=comparison.left,
            copy_processes=sum(int(number) for number in started),
        )
