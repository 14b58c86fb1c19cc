"""A cut of the power at every system call of a copy.

strace stops the copy program after its n-th call of each kind; what it has started goes on for some
milliseconds at most until the disk is copied. Then it is killed, the daemon moves the rest, and the
next cut comes. Afterwards each cut is looked at as after any other (bed.py).
"""

from __future__ import annotations

import signal
import time
from random import Random

from power.bed import Cut, Host, Outcome, end_all
from power.crash_points import PATIENCE, CrashBed, ended, trace
from power.disk import Store
from support.waiting import wait_until


# Calls that change nothing outside the program: a cut after one of them finds what a cut after the
# call before it finds.
INWARD = set(
    "access arch_prctl brk close_range execve exit_group fcntl geteuid getpid getppid getrandom "
    "mmap mprotect munmap pread64 prlimit64 rseq rt_sigaction rt_sigprocmask set_robust_list "
    "set_tid_address signalfd4".split()
)


def cut_at_all(
    disk_kind: str, parts: int, seed: str, reannounce: float, patience: float
) -> Outcome:
    """Cuts at all points of a copy, in an empty sandbox."""
    with Store() as store:
        host = Host(store, seed, reannounce, patience)
        disk = store.new_disk(disk_kind, parts)
        host.start_with(disk)
        taken: list[Cut] = []
        rng = Random(f"cut points {seed}")
        try:
            crash = CrashBed(seed, host.max_verbosity, stations=1)
            with crash.bed as bed:
                crash.install()
                bed.start_daemon()
                station = bed.stations[0]
                for series in crash.count():
                    if series.program != "copy" or not series.is_kill or series.call in INWARD:
                        continue
                    for number in range(1, series.counted + 1):
                        stop = f"inject={series.call}:signal=STOP:when={number}"
                        crash.order(station, "copy", stop)
                        names = crash.produce(station)
                        wait_until(
                            lambda: stopped(crash) or ended(station, "copy"), stop, PATIENCE
                        )
                        if stopped(crash):
                            time.sleep(rng.uniform(0, 0.03))
                            taken.append(host.cut(bed, disk, len(taken)))
                            bed.note_kill()
                            for each in bed.copy_processes():
                                bed.send(each, signal.SIGKILL)
                        crash.wait_right(station, names)
                end_all(bed)
                broken = list(bed.ledger.broken)
        finally:
            disk.detach()
            disk.remove()
        return host.check_all(taken, broken)


def stopped(crash: CrashBed) -> bool:
    """Whether the traced copy of the first station stands still."""
    return any(line.startswith("--- stopped by") for line in trace(crash.bed.stations[0], "copy"))
