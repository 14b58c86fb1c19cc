"""The ways of draining a share that are compared: the daemon, and scripts around stock rsync."""

from __future__ import annotations

import subprocess
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

import processor_time
from support.bed import Station
from support.consumer import Consumer
from support.daemon import PASSWORD_FILE, Daemon, file_lists
from support.waiting import wait_until

HERE = Path(__file__).resolve().parent
LIMIT = 180.0

# The consumer does not compete for the processor with what is measured: it rests between reads.
CONSUMER_NAP = 0.005


@dataclass
class Drain:
    """What it took to drain a share, in seconds."""

    wall: float
    daemon: float = 0.0  # the daemon's own processor time, its children apart
    clients: float = 0.0  # that of all on the receiving side, the daemon included
    server: float = 0.0  # that of the rsync server


def drain_by_daemon(
    station: Station, names: list[str], reader: Consumer | None = None
) -> Drain:
    """From the start of the daemon to the last file's line in the pipe, or at another reader."""
    with reader or Consumer(nap=CONSUMER_NAP) as consumer, Daemon() as daemon:
        begin = time.monotonic()
        started = daemon.start()
        assert daemon.detached, started.errors + daemon.log()
        consumer.wait_for(len(names), LIMIT)
        # The processor time of a copy process counts once the daemon has taken its status.
        wait_until(lambda: not file_lists(), "the end of the cycle")
        own = processor_time.of_process(daemon.pid)
        daemon.end()
    assert sorted(consumer.names_below(station.announced_target)) == names
    return Drain(consumer.records()[-1].arrival - begin, own)


def script_command(script: str, station: Station, pause: float, passes: int | None) -> list[str]:
    """How a script of this folder is called; without a number of passes it goes on for ever."""
    command = [str(HERE / f"{script}.sh"), station.server.url, f"{station.target}/"]
    command += [str(PASSWORD_FILE), str(pause)]
    return command if passes is None else [*command, str(passes)]


def drain_by_script(script: str, station: Station) -> Drain:
    """One pass of a script, from its start to its end."""
    begin = time.monotonic()
    subprocess.run(
        script_command(script, station, 0, 1),
        stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL,
        check=True,
        timeout=LIMIT,
    )
    return Drain(time.monotonic() - begin)


WAYS: dict[str, Callable[[Station, list[str]], Drain]] = {
    "skarn": drain_by_daemon,
    "eight_at_once": lambda station, _: drain_by_script("eight_at_once", station),
    "with_parallel": lambda station, _: drain_by_script("with_parallel", station),
    "plain_loop": lambda station, _: drain_by_script("plain_loop", station),
}


@contextmanager
def counted(station: Station, drain: Callable[[], Drain]) -> Iterator[Drain]:
    """Runs the station's server, and within it a drain whose processor time is counted."""
    with station.server:
        before = processor_time.of_ended()
        result = drain()
        clients = processor_time.of_ended()
        station.server.stop()  # only what has ended is accounted for
        result.clients = clients - before
        result.server = processor_time.of_ended() - clients
        yield result
