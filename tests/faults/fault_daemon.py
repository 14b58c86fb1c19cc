"""The daemon dies at any moment and is started again over the same share and target."""

from __future__ import annotations

import signal
from random import Random

from faults.bed import Bed
from faults.fault import Fault, register


class DaemonEnded(Fault):
    """Ends the daemon by a signal; whoever watches over it starts another one at once."""

    kills = True
    instant = True
    number = signal.SIGKILL
    gap = (0.0, 0.2)

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.wait_moment(rng)
        return bed.kill_daemon(self.number)

    def heal(self, bed: Bed) -> None:
        bed.start_daemon()


@register
class DaemonKilled(DaemonEnded):
    """SIGKILL."""

    name = "daemon-killed"
    title = "daemon killed (SIGKILL) and started again"
    rounds = 220


@register
class DaemonTerminated(DaemonEnded):
    """SIGTERM."""

    name = "daemon-terminated"
    title = "daemon ended (SIGTERM) and started again"
    number = signal.SIGTERM


@register
class DaemonStopped(Fault):
    """SIGSTOP, and after a while SIGCONT: its copy processes go on and fill their pipes."""

    name = "daemon-stopped"
    title = "daemon stopped (SIGSTOP) and continued"
    hold = (0.1, 1.0)

    def inject(self, bed: Bed, rng: Random) -> int:
        if not bed.daemon.is_running():
            return 0
        bed.daemon.send_signal(signal.SIGSTOP)
        return 1

    def heal(self, bed: Bed) -> None:
        if bed.daemon.is_running():
            bed.daemon.send_signal(signal.SIGCONT)


@register
class AllKilled(DaemonEnded):
    """The daemon, its copy processes and their rsync die in the same moment."""

    name = "all-killed"
    title = "daemon, copy processes and rsync killed at once"
    rounds = 60

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.wait_moment(rng)
        children = bed.rsync_children()
        for each in bed.copy_processes():
            bed.kill_copy_process(each)
        for each in children:
            bed.send(each, signal.SIGKILL)
        return bed.kill_daemon()
