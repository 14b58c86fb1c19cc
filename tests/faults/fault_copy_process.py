"""Copy processes, and the stock rsync that they run, die or stand still."""

from __future__ import annotations

import signal
from random import Random

from faults.bed import Bed
from faults.fault import Fault, register
from support.processes import Process


class CopyProcessesEnded(Fault):
    """Ends one or all of the copy processes that run."""

    kills = True
    instant = True
    number = signal.SIGKILL
    gap = (0.0, 0.2)

    def inject(self, bed: Bed, rng: Random) -> int:
        found = bed.wait_moment(rng)
        if found and rng.random() < 0.7:
            found = [rng.choice(found)]
        return sum(bed.kill_copy_process(each, self.number) for each in found)


@register
class CopyProcessKilled(CopyProcessesEnded):
    """SIGKILL."""

    name = "copy-killed"
    title = "copy process killed (SIGKILL)"
    rounds = 220


@register
class CopyProcessTerminated(CopyProcessesEnded):
    """SIGTERM."""

    name = "copy-terminated"
    title = "copy process ended (SIGTERM)"
    number = signal.SIGTERM
    rounds = 40


@register
class CopyProcessStopped(Fault):
    """SIGSTOP, and after a while SIGCONT."""

    name = "copy-stopped"
    title = "copy process stopped (SIGSTOP) and continued"
    hold = (0.1, 1.0)
    stopped: list[Process] = []

    def inject(self, bed: Bed, rng: Random) -> int:
        self.stopped = [
            each for each in bed.wait_moment(rng) if bed.send(each, signal.SIGSTOP)
        ]
        return len(self.stopped)

    def heal(self, bed: Bed) -> None:
        for each in self.stopped:
            bed.send(each, signal.SIGCONT)


@register
class StockRsyncKilled(Fault):
    """The rsync that a copy process runs dies: the process that was started, or its own child."""

    name = "stock-rsync-killed"
    title = "stock rsync below a copy process killed"
    kills = True
    instant = True
    gap = (0.0, 0.2)
    rounds = 40

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.wait_moment(rng)
        found = bed.rsync_children()
        if not found:
            return 0
        bed.note_kill()
        return int(bed.send(rng.choice(found), signal.SIGKILL))
