"""The rsync servers on the detectors' side die, stand still, or are away for long."""

from __future__ import annotations

import os
import signal
import time
from random import Random

from faults.bed import MINPAUSE, Bed, Station, arguments
from faults.fault import Fault, register
from support.processes import processes


class ServerEnded(Fault):
    """Ends one server and all its connections, by SIGKILL or SIGTERM, and starts it again."""

    kills = True
    hold = (0.0, 0.5)
    rounds = 30
    station: Station

    def wait(self, bed: Bed, rng: Random) -> bool:
        """Waits for the moment to strike; false if it did not come."""
        raise NotImplementedError

    def inject(self, bed: Bed, rng: Random) -> int:
        self.station = rng.choice(bed.stations)
        if not self.wait(bed, rng):
            return 0
        bed.note_kill()
        if rng.random() < 0.7:
            self.station.server.kill()
        else:
            self.station.server.stop()
        return 1

    def heal(self, bed: Bed) -> None:
        self.station.server.start()


@register
class ServerEndedInCopy(ServerEnded):
    """While copy processes run."""

    name = "server-killed-in-copy"
    title = "rsync server killed in copy and restarted"

    def wait(self, bed: Bed, rng: Random) -> bool:
        return bool(bed.wait_moment(rng))


@register
class ServerEndedInListing(ServerEnded):
    """While the share is listed."""

    name = "server-killed-in-listing"
    title = "rsync server killed in listing and restarted"

    def wait(self, bed: Bed, rng: Random) -> bool:
        end = time.monotonic() + 5
        while time.monotonic() < end:
            for each in processes():
                if each.name == "rsync" and "--list-only" in arguments(each.pid):
                    return True
            time.sleep(0.001)
        return False


@register
class ServerStopped(Fault):
    """SIGSTOP to the server and all its connections, and after a while SIGCONT."""

    name = "server-stopped"
    title = "rsync server stopped (SIGSTOP) and continued"
    hold = (0.2, 1.5)
    station: Station

    def inject(self, bed: Bed, rng: Random) -> int:
        self.station = rng.choice(bed.stations)
        os.killpg(self.station.server.pid, signal.SIGSTOP)
        return 1

    def heal(self, bed: Bed) -> None:
        os.killpg(self.station.server.pid, signal.SIGCONT)


@register
class ServerAway(Fault):
    """The server is away for long; it must be found again, and not be asked without a pause."""

    name = "server-away"
    title = "rsync server away for long"
    kills = True
    proxy = True
    rounds = 5
    hold = (4.0, 8.0)
    station: Station
    begin = 0.0
    accepted = 0

    def inject(self, bed: Bed, rng: Random) -> int:
        self.station = rng.choice(bed.stations)
        assert self.station.proxy is not None
        bed.note_kill()
        self.station.server.kill()
        self.begin, self.accepted = time.monotonic(), self.station.proxy.accepted
        return 1

    def heal(self, bed: Bed) -> None:
        assert self.station.proxy is not None
        asked = self.station.proxy.accepted - self.accepted
        # A listing each pause, and some questions of the copy processes that were just running.
        most = (time.monotonic() - self.begin) * 1000 / MINPAUSE + 30
        if asked > most:
            self.station.ledger.complain(f"a server that was away was asked {asked} times")
        if asked == 0:
            self.station.ledger.complain("a server that was away was never asked")
        self.station.server.start()


@register
class ServerConnectionKilled(Fault):
    """The server lives, but the processes that serve its connections are killed."""

    name = "connection-killed"
    title = "server's process of one connection killed"
    kills = True
    instant = True
    rounds = 40

    def inject(self, bed: Bed, rng: Random) -> int:
        station = rng.choice(bed.stations)
        bed.wait_moment(rng)
        killed = 0
        bed.note_kill()
        for pid in station.server.connection_pids():
            try:
                os.kill(pid, signal.SIGKILL)
                killed += 1
            except ProcessLookupError:
                continue  # it ended on its own
        return killed
