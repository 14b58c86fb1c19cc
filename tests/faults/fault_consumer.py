"""The consumer is slow, away or gone, and the named pipe is not what it should be."""

from __future__ import annotations

import os
import re
import signal
import time
from pathlib import Path
from random import Random

from faults.bed import Bed
from faults.fault import Fault, register
from faults.ledger import Entry, Ledger
from support import daemon as skarn
from support.processes import descriptors

ASIDE = skarn.FIFO.with_name(skarn.FIFO.name + ".aside")


@register
class ConsumerSlow(Fault):
    """Reads a few bytes at a time and rests in between, so that the pipe fills up."""

    name = "consumer-slow"
    title = "consumer slow"
    hold = (0.3, 1.5)

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.consumer.bite, bed.consumer.nap = rng.randint(20, 400), rng.uniform(0.005, 0.05)
        return 1

    def heal(self, bed: Bed) -> None:
        bed.consumer.bite, bed.consumer.nap = 65536, 0.0


@register
class ConsumerAway(Fault):
    """Goes away when no copy process runs, and comes back while some wait for it."""

    name = "consumer-away"
    title = "consumer gone between copy processes, and back"
    hold = (0.2, 1.5)

    def inject(self, bed: Bed, rng: Random) -> int:
        with bed.standing_still() as still:
            if still:
                bed.consumer.leave()
            return int(still)

    def heal(self, bed: Bed) -> None:
        bed.consumer.come()


@register
class ConsumerAbsentAtStart(Fault):
    """The daemon starts without a consumer, which comes later."""

    name = "consumer-absent-at-start"
    title = "daemon killed, and started without a consumer"
    kills = True
    hold = (0.2, 1.5)

    def inject(self, bed: Bed, rng: Random) -> int:
        with bed.standing_still() as still:
            if not still:
                return 0
            bed.consumer.leave()
            bed.kill_daemon()
        bed.start_daemon()
        return 1

    def heal(self, bed: Bed) -> None:
        bed.consumer.come()


@register
class ConsumerDies(Fault):
    """Closes the pipe while records are being written, which ends the daemon by SIGPIPE."""

    name = "consumer-dies"
    title = "consumer gone while records are written (SIGPIPE)"
    kills = True
    hold = (0.0, 0.3)

    def inject(self, bed: Bed, rng: Random) -> int:
        # Without an end of its own in the daemon, the pipe would forget what was not read.
        if os.path.realpath(skarn.FIFO) not in descriptors(bed.daemon.pid).values():
            return 0
        bed.wait_moment(rng)
        bed.note_kill()
        bed.consumer.leave()
        end = time.monotonic() + 1
        while time.monotonic() < end and bed.daemon.is_running():
            time.sleep(0.01)
        return 1

    def heal(self, bed: Bed) -> None:
        if not bed.daemon.is_running():
            if bed.daemon.wait_ended() != -signal.SIGPIPE:
                bed.ledger.complain(f"the daemon ended with {bed.daemon.wait_ended()}")
            bed.daemon_kills += 1
            bed.consumer.come()
            bed.start_daemon()
        bed.consumer.come()


class PipeReplaced(Fault):
    """Something else stands where the named pipe should be, for some cycles.

    What is moved meanwhile can't be announced. That is how it is meant; the log has to say so.
    """

    hold = (0.3, 1.2)
    rounds = 10
    sign = ""  # what the log says

    def __init__(self) -> None:
        self.deaths = 0
        self.silent: list[tuple[Ledger, Entry]] = []  # moved meanwhile, while nothing died

    def put(self) -> None:
        """Puts the other thing there."""
        raise NotImplementedError

    def take(self) -> None:
        """Takes it away."""
        raise NotImplementedError

    def inject(self, bed: Bed, rng: Random) -> int:
        with bed.standing_still() as still:
            if still:
                self.deaths = bed.deaths
                skarn.FIFO.rename(ASIDE)
                self.put()
            return int(still)

    def heal(self, bed: Bed) -> None:
        with bed.standing_still() as still:
            for station in bed.stations:
                station.ledger.look()
                names = set(station.ledger.unannounced())
                station.ledger.excuse(names)
                if bed.deaths == self.deaths:
                    entries = station.ledger.entries()
                    self.silent += [(station.ledger, e) for e in entries if e.name in names]
            self.take()
            ASIDE.rename(skarn.FIFO)
        if not still:
            bed.ledger.complain("the daemon did not come to an end of a cycle without its pipe")

    def check(self, bed: Bed) -> None:
        silent = any(not entry.records for _, entry in self.silent)
        if self.sign and silent and self.sign not in bed.daemon.archived_log():
            bed.ledger.complain(f"files were not announced, and the log has no {self.sign!r}")


@register
class PipeRemoved(PipeReplaced):
    """There is nothing."""

    name = "pipe-removed"
    title = "named pipe removed, and back"
    sign = "++ Warning: No pipe to VANTREL\n"

    def put(self) -> None:
        return

    def take(self) -> None:
        return


@register
class PipeIsFolder(PipeReplaced):
    """There is a folder."""

    name = "pipe-is-folder"
    title = "named pipe replaced by a folder, and back"
    sign = "++ Error: Failed to pass "

    def put(self) -> None:
        skarn.FIFO.mkdir()

    def take(self) -> None:
        skarn.FIFO.rmdir()

    def check(self, bed: Bed) -> None:
        log = bed.daemon.archived_log()
        said = set(re.findall(re.escape(self.sign) + r"(.*) to VANTREL\n", log))
        for ledger, entry in self.silent:
            # What an earlier death had left open may have been announced later.
            if not entry.records and entry.name not in said:
                ledger.complain(f"{entry.name}: the log has no failed hand-off")


@register
class PipeIsFile(PipeReplaced):
    """There is a plain file; the daemon can't tell and writes its records into it."""

    name = "pipe-is-file"
    title = "named pipe replaced by a plain file, and back"

    def put(self) -> None:
        Path(skarn.FIFO).touch(mode=0o600)

    def take(self) -> None:
        os.unlink(skarn.FIFO)
