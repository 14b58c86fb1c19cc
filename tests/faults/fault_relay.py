"""The relay in the consumer's place: it, its log and its subscribers die, stand still and fail.

The account: every file that left the source is in its log once, and has come to each subscriber in
the log's order.
"""

from __future__ import annotations

import os
import signal
import time
from contextlib import suppress
from random import Random

from faults.bed import Bed
from faults.behind_relay import FAILS, HANGS, HOOK
from faults.fault import Fault, register
from faults.mounts import (
    allow_writing,
    forbid_writing,
    give_back,
    mount_memory,
    use_up_space,
)
from support.processes import is_stopped
from support.relay_process import LOG, skarn_relay
from support.waiting import wait_until


class RelayFault(Fault):
    """Strikes while files leave the source."""

    relay = True
    gap = (0.0, 0.3)


class RelayDies(RelayFault):
    """The relay dies; whoever watches over it starts another one at once."""

    kills = True
    instant = True

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.wait_moment(rng)
        bed.kill_relay()
        return 1

    def heal(self, bed: Bed) -> None:
        bed.behind_relay.start()


@register
class RelayKilled(RelayDies):
    """SIGKILL, also while it starts."""

    name = "relay-killed"
    title = "relay killed (SIGKILL) and started again"
    rounds = 500

    def inject(self, bed: Bed, rng: Random) -> int:
        if rng.random() < 0.5:
            return super().inject(bed, rng)
        bed.kill_relay()
        bed.behind_relay.start(wait=False)
        time.sleep(rng.uniform(0, 0.06))
        bed.kill_relay()
        return 2


@register
class RelayKilledBeforeTakingOut(RelayDies):
    """Killed where what is logged still stands in the pipe."""

    name = "relay-killed-before-taking-out"
    title = "relay killed between its commit and taking the lines out of the pipe"
    rounds = 250

    def inject(self, bed: Bed, rng: Random) -> int:
        HOOK.touch()
        try:
            wait_until(lambda: is_stopped(bed.behind_relay.pid), "the relay to stop there", 5)
            stopped = True
        except AssertionError:
            stopped = False
        HOOK.unlink()
        bed.kill_relay()
        if not stopped:
            self.heal(bed)
        return int(stopped)


@register
class RelayAndDaemonKilled(RelayDies):
    """The one shortly after the other, now and then with all copy processes."""

    name = "relay-and-daemon-killed"
    title = "relay and daemon, now and then copy processes, too, killed at once"
    rounds = 200

    def inject(self, bed: Bed, rng: Random) -> int:
        copies = bed.wait_moment(rng) if rng.random() < 0.5 else []
        for each in copies:
            bed.kill_copy_process(each)
        if rng.random() < 0.5:
            bed.kill_relay()
            return 1 + bed.kill_daemon()
        daemon = bed.kill_daemon()
        bed.kill_relay()
        return 1 + daemon

    def heal(self, bed: Bed) -> None:
        super().heal(bed)
        if not bed.daemon.is_running():
            bed.start_daemon()


@register
class RelayStopped(RelayFault):
    """SIGSTOP, and after a while SIGCONT: the pipe fills."""

    name = "relay-stopped"
    title = "relay stopped (SIGSTOP) and continued"
    hold = (0.1, 1.5)
    alone = True

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.wait_moment(rng)
        os.kill(bed.behind_relay.pid, signal.SIGSTOP)
        return 1

    def heal(self, bed: Bed) -> None:
        os.kill(bed.behind_relay.pid, signal.SIGCONT)


class LogFault(RelayFault):
    """The file system of the relay's log is tampered with."""

    kills = True
    hold = (0.2, 1.5)
    alone = True  # a relay could not be started meanwhile

    def prepare(self, bed: Bed) -> None:
        mount_memory(LOG)


@register
class RelayLogFull(LogFault):
    """Nothing is left, or a little; now and then the relay dies meanwhile."""

    name = "relay-log-full"
    title = "relay's disk full, then space again; now and then it is killed meanwhile"

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.wait_moment(rng)
        if not use_up_space(LOG, rng.choice((0, 0, 1, 5, 30))):
            return 0
        if rng.random() < 0.4:
            bed.kill_relay()
            bed.behind_relay.start(wait=False)
        return 1

    def heal(self, bed: Bed) -> None:
        give_back(LOG)
        bed.behind_relay.start_if_ended()


@register
class RelayLogReadOnly(LogFault):
    """What is open for writing keeps a file system writable, so it dies first."""

    name = "relay-log-read-only"
    title = "relay killed, and its disk read-only, then writable"

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.wait_moment(rng)
        bed.kill_relay()
        forbidden = forbid_writing(LOG)
        bed.behind_relay.start(wait=not forbidden)
        return int(forbidden)

    def heal(self, bed: Bed) -> None:
        allow_writing(LOG)
        bed.behind_relay.start_if_ended()


@register
class RelayLogDamaged(LogFault):
    """Bytes of the database are overwritten when all that it holds was delivered."""

    name = "relay-log-damaged"
    title = "relay's database damaged when all was delivered"
    hold = (0.0, 0.5)
    mixes = False  # a file that is announced again after a death would be a new one

    def inject(self, bed: Bed, rng: Random) -> int:
        with bed.standing_still() as still:
            if not still:
                return 0
            wait_until(bed.behind_relay.has_all_out, "every subscriber to have all", 30)
            bed.behind_relay.remember_log()
            bed.kill_relay()
            for name in ("relay.db", "relay.db-wal"):
                path = LOG / name
                size = path.stat().st_size if path.exists() else 0
                if size and rng.random() < 0.8:
                    with path.open("r+b") as file:
                        file.seek(rng.choice((0, rng.randrange(size))))
                        file.write(rng.randbytes(rng.choice((1, 100, 20000))))
            bed.behind_relay.start()
        return 1


@register
class SubscriberDies(RelayFault):
    """A program of the command subscriber is killed, and what was fetched is not acknowledged."""

    name = "subscriber-dies"
    title = "subscribers killed before they acknowledge"
    rounds = 60
    instant = True

    def inject(self, bed: Bed, rng: Random) -> int:
        if rng.random() < 0.5:
            bed.behind_relay.fetcher.forgets = rng.randint(1, 3)
            return 1
        with suppress(AssertionError):
            pid = wait_until(bed.behind_relay.programs, "a program to run", 3)[0]
            with suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
                return 1
        return 0


@register
class SubscriberAway(RelayFault):
    """One of them keeps away or stands still; the others must get on."""

    name = "subscriber-away"
    title = "one subscriber away or hanging, while the others go on"
    hold = (0.2, 1.5)
    which = ""

    def inject(self, bed: Bed, rng: Random) -> int:
        self.which = rng.choice(("pipe", "command", "fetcher"))
        if self.which == "pipe":
            bed.consumer.leave()
        elif self.which == "command":
            HANGS.touch()
        else:
            bed.behind_relay.fetcher.hangs = True
        return 1

    def heal(self, bed: Bed) -> None:
        if not self.others_have_more(bed):
            bed.ledger.complain(f"subscriber {self.which} stood still, and so did the others")
        if self.which == "pipe":
            bed.consumer.come()
        HANGS.unlink(missing_ok=True)
        bed.behind_relay.fetcher.hangs = False

    def others_have_more(self, bed: Bed) -> bool:
        """Whether another subscriber has acknowledged, or acknowledges, all that is logged now."""
        last = bed.behind_relay.relay.status()["last"]

        def have_it() -> bool:
            found = bed.behind_relay.relay.status()["subscribers"]
            return all(each["acknowledged"] >= last for each in found if each["name"] != self.which)

        try:
            return wait_until(have_it, "the others", 20)
        except AssertionError:
            return False


@register
class SubscriberTalksNonsense(RelayFault):
    """Acknowledges what is not there, and asks for what makes no sense."""

    name = "subscriber-talks-nonsense"
    title = "subscriber acknowledges nonsense"
    instant = True
    requests = (
        ("POST", "subscribers/fetcher/ack", "seq", "999999999999"),
        ("POST", "subscribers/fetcher/ack", "seq", "-1"),
        ("POST", "subscribers/fetcher/ack", "seq", "1e3"),
        ("POST", "subscribers/nobody/ack", "seq", "1"),
        ("POST", "subscribers/fetcher/reset", "start", "yesterday"),
        ("GET", "subscribers/fetcher/records", "limit", "-5"),
    )

    def inject(self, bed: Bed, rng: Random) -> int:
        method, path, key, value = rng.choice(self.requests)
        try:
            bed.behind_relay.relay.client.request(method, path, [(key, value)])
        except skarn_relay.RelayError:
            return 1
        bed.ledger.complain(f"{method} {path}?{key}={value} was not refused")
        return 1


@register
class SubscriberFails(RelayFault):
    """The command fails for a while: its records become dead letters, which are retried in the end."""

    name = "subscriber-fails"
    title = "command fails; its dead letters are retried in the end"
    hold = (0.3, 2.0)

    def inject(self, bed: Bed, rng: Random) -> int:
        FAILS.touch()
        return 1

    def heal(self, bed: Bed) -> None:
        FAILS.unlink()
