"""The system refuses descriptors, processes and threads, or memory."""

from __future__ import annotations

import os
import resource
import signal
import subprocess
import time
from contextlib import suppress
from pathlib import Path
from random import Random

from faults.bed import Bed
from faults.fault import Fault, register
from faults.fault_copy_program import good_program, lists_well, put_in_place
from support.daemon import file_lists, install_copy_program
from support.processes import processes, status_field

PID_MAX = Path("/proc/sys/kernel/pid_max")
LAST_PID = Path("/proc/sys/kernel/ns_last_pid")

# Below this number pids are given out only before the count has passed it for the first time.
RESERVED_PIDS = 300

# From this version on, a pid namespace has its own highest pid; before, it is the whole machine's.
OWN_PID_MAX_SINCE = (6, 14)


class ResourceFault(Fault):
    """Strikes while several copy processes are started, one after the other."""

    gap = (0.0, 0.3)
    hold = (0.1, 1.0)
    rounds = 40

    def prepare(self, bed: Bed) -> None:
        for station in bed.stations:
            station.workload.batch = (100, 400)

    def wait_for_start(self, bed: Bed, rng: Random) -> None:
        """Returns when file lists are being written or copy processes started, or now and then at
        any moment.
        """
        if rng.random() < 0.8:
            deadline = time.monotonic() + 2
            while not file_lists() and time.monotonic() < deadline:
                time.sleep(0.0005)
            time.sleep(rng.uniform(0, 0.01))


class DaemonLimit(ResourceFault):
    """A limit of the running daemon is lowered from outside, and raised again.

    What it starts meanwhile inherits the low limit and keeps it.
    """

    kind = resource.RLIMIT_NOFILE
    before: tuple[int, int] = (0, 0)
    pid = 0

    def lower(self, bed: Bed, value: int) -> bool:
        """Sets the soft limit; false if there is no daemon."""
        if not bed.daemon.is_running():
            return False
        self.pid = bed.daemon.pid
        self.before = resource.prlimit(self.pid, self.kind)
        resource.prlimit(self.pid, self.kind, (value, self.before[1]))
        return True

    def heal(self, bed: Bed) -> None:
        with suppress(ProcessLookupError):
            resource.prlimit(self.pid, self.kind, self.before)


@register
class DescriptorsExhausted(DaemonLimit):
    """From "not one" to "enough for some copy processes"."""

    name = "no-descriptors"
    title = "no descriptors left, then enough"

    def inject(self, bed: Bed, rng: Random) -> int:
        self.wait_for_start(bed, rng)
        return int(self.lower(bed, rng.randint(0, 16)))


@register
class MemoryTight(DaemonLimit):
    """The daemon's address space, or what it can write to of it, may not grow, or by little; now
    and then a report is long.

    A daemon that can't have the memory that it needs ends, and is started again.
    """

    name = "memory-tight"
    title = "memory tight; a daemon that ends of it is started again"
    kills = True
    alone = True

    def inject(self, bed: Bed, rng: Random) -> int:
        if not bed.daemon.is_running() or bed.daemon.sanitizer is not None:
            return 0  # a sanitizer's memory knows no such limit
        talks = rng.random() < 0.5
        if talks:
            put_in_place(lists_well("exec yes 'no end' | head -c 20000000\n"))
        self.wait_for_start(bed, rng)
        bed.note_kill()
        # It may end by SIGABRT, of which no trace has to be kept.
        hard = resource.prlimit(bed.daemon.pid, resource.RLIMIT_CORE)[1]
        resource.prlimit(bed.daemon.pid, resource.RLIMIT_CORE, (0, hard))
        self.kind, field = rng.choice(
            ((resource.RLIMIT_AS, "VmSize"), (resource.RLIMIT_DATA, "VmData"))
        )
        size = int(status_field(bed.daemon.pid, field).split()[0]) * 1024
        more = rng.choice((0, 4096, 200_000, 1_000_000) if talks else (0, 200_000, 9_000_000))
        return int(self.lower(bed, size + more))

    def heal(self, bed: Bed) -> None:
        install_copy_program(good_program())
        super().heal(bed)
        if not bed.daemon.is_running():
            status = bed.daemon.wait_ended()
            if status != -signal.SIGABRT:
                bed.ledger.complain(f"for want of memory the daemon ended with {status}")
            bed.note_kill()
            bed.daemon_kills += 1
            bed.start_daemon()


class PidsExhausted(ResourceFault):
    """No process and no thread can be made in the sandbox, or a few at a time.

    Done by the highest pid, of which a pid namespace has its own on new kernels: it is set so low
    that no number is free. The servers can't take connections either meanwhile.
    """

    name = "no-processes"
    title = "no processes and threads to be had, then enough"
    alone = True  # nothing can be started for another fault
    before = ""
    placeholder: subprocess.Popen[bytes] | None = None

    def inject(self, bed: Bed, rng: Random) -> int:
        self.before = PID_MAX.read_text(encoding="ascii")
        # The count has to stand above the reserved numbers, or those are still given out.
        if self.placeholder is None:
            LAST_PID.write_text(f"{RESERVED_PIDS - 1}\n", encoding="ascii")
            self.placeholder = subprocess.Popen(["sleep", "infinity"])
        self.wait_for_start(bed, rng)
        highest = max(each.pid for each in processes())
        free = rng.choice((0, 0, 1, 2, 3, 6))
        lowest = max(RESERVED_PIDS + 1, highest + 1) if free else RESERVED_PIDS + 1
        PID_MAX.write_text(f"{lowest + free}\n", encoding="ascii")
        return 1

    def heal(self, bed: Bed) -> None:
        PID_MAX.write_text(self.before, encoding="ascii")

    def check(self, bed: Bed) -> None:
        if self.placeholder is not None:
            self.placeholder.kill()
            self.placeholder.wait(30)


def has_own_pid_max() -> bool:
    """Whether a low limit on pids stays within the sandbox."""
    version = os.uname().release.split("-")[0].split(".")
    return tuple(int(part) for part in version[:2]) >= OWN_PID_MAX_SINCE


if has_own_pid_max():
    register(PidsExhausted)
