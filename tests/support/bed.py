"""The whole way of a file: simulated detectors, their rsync servers, the daemon, its consumer."""

from __future__ import annotations

import os
import re
from collections import Counter
from collections.abc import Collection, Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from types import TracebackType

from support import daemon as skarn
from support.consumer import Consumer
from support.detector import SimulatedDetector, digest_of_entry, list_files
from support.rsync_server import RsyncServer
from support.waiting import LIMIT, wait_until

SHARES = Path("/srv/shares")
TARGETS = Path("/srv/images")
STATE = Path("/srv/rsyncd")

# How rsync names a file that it is receiving.
HALF_RECEIVED = re.compile(r"\..*\.[A-Za-z0-9]{6}")


@dataclass
class Station:
    """One detector with all that belongs to it, on both ends of the way."""

    id: str
    simulator: SimulatedDetector
    server: RsyncServer
    target: Path

    @property
    def announced_target(self) -> str:
        """The target as the daemon writes it in front of a name."""
        return f"{self.target}/."


@dataclass
class Comparison:
    """What became of the frames of one station: how many are right, and the names of the others."""

    station: Station
    produced: int
    arrived: int
    identical: int
    announced_once: int
    left: int
    faults: dict[str, list[str]] = field(default_factory=dict)

    @property
    def agrees(self) -> bool:
        """Whether every frame arrived unchanged, was announced once and is gone at the source."""
        return not any(self.faults.values())

    def __str__(self) -> str:
        return "; ".join(
            f"detector {self.station.id}: {len(names)} {fault}: {', '.join(names[:5])}"
            + (", ..." if len(names) > 5 else "")
            for fault, names in self.faults.items()
            if names
        )


def make_stations(
    number: int, *, max_verbosity: int | None = 2, server_log: bool = False
) -> list[Station]:
    """Stations "1", "2", ... at 127.0.0.1, 127.0.0.2, ..., each with a share and a target."""
    return [
        Station(
            str(each),
            SimulatedDetector(SHARES / str(each), seed=f"detector {each}"),
            RsyncServer(
                f"127.0.0.{each}",
                SHARES / str(each),
                STATE,
                max_verbosity=max_verbosity,
                log=server_log,
            ),
            TARGETS / str(each),
        )
        for each in range(1, number + 1)
    ]


def install(
    copy_program: Path,
    stations: Sequence[Station],
    settings: Mapping[str, object] | None = None,
    *,
    minpause: int = 50,
    interrun_pause: int = 0,
) -> None:
    """Puts the password, the copy program and a configuration for the stations in their places.

    `settings` are further global keys; "logfile" may be among them.
    """
    skarn.install_password_file()
    skarn.install_copy_program(copy_program)
    skarn.write_configuration(
        {"logfile": skarn.LOG_FILE, **(settings or {})},
        [
            skarn.Detector(
                station.id,
                station.server.address,
                target=str(station.target),
                minpause=minpause,
                interrun_pause=interrun_pause,
            )
            for station in stations
        ],
    )


def compare(
    station: Station,
    consumer: Consumer,
    staying: Collection[str] = frozenset(),
    interrupted: bool = False,
    again: Collection[str] = frozenset(),
) -> Comparison:
    """Compares what a detector produced with what arrived, what was announced and what is left.

    Everything that is not a folder counts, hidden files too. The frames in `staying` are meant to
    stay at the source, untouched and unannounced. Where copying was `interrupted`, rsync may have
    left a file that it was just receiving, under a hidden name of its own. Of the frames in `again`
    a daemon that has ended may have left open whether they were announced.
    """
    everything = station.simulator.frames
    frames = {name: frame for name, frame in everything.items() if name not in staying}
    arrived = set(list_files(station.target)) if station.target.is_dir() else set()
    if interrupted:
        arrived = {name for name in arrived if not HALF_RECEIVED.fullmatch(os.path.basename(name))}
    here = arrived & frames.keys()
    identical = {
        name for name in here if digest_of_entry(station.target / name) == frames[name].digest
    }
    announced = Counter(consumer.names_below(station.announced_target))
    left = set(station.simulator.left())
    untouched = {
        name
        for name in left & set(staying)
        if digest_of_entry(station.simulator.root / name) == everything[name].digest
    }
    return Comparison(
        station,
        produced=len(everything),
        arrived=len(here),
        identical=len(identical),
        announced_once=sum(announced[name] == 1 for name in frames),
        left=len(left),
        faults={
            "did not arrive": sorted(frames.keys() - arrived),
            "arrived but should not": sorted(arrived - frames.keys()),
            "arrived with another content": sorted(here - identical),
            "not announced": sorted(frames.keys() - announced.keys()),
            "announced more than once": sorted(
                n for n, times in announced.items() if times > 1 and n not in again
            ),
            "announced but should not": sorted(announced.keys() - frames.keys()),
            "still at the source": sorted(left - set(staying)),
            "should be at the source as it was": sorted(set(staying) - untouched),
        },
    )


class Bed:
    """A number of stations, the daemon that serves them and the consumer, for one test.

    The copy program is the one that the environment variable CONFIRMING_RSYNC_BINARY names. The
    servers and the consumer start with the bed, the daemon with `start`.
    """

    def __init__(
        self,
        stations: int = 1,
        *,
        max_verbosity: int | None = 2,
        settings: Mapping[str, object] | None = None,
    ) -> None:
        self.stations = make_stations(stations, max_verbosity=max_verbosity, server_log=True)
        self.consumer = Consumer()
        self.daemon = skarn.Daemon()
        program = Path(os.environ["CONFIRMING_RSYNC_BINARY"])
        install(program, self.stations, settings)

    @property
    def simulator(self) -> SimulatedDetector:
        """The first station's detector."""
        return self.stations[0].simulator

    @property
    def server(self) -> RsyncServer:
        """The first station's server."""
        return self.stations[0].server

    @property
    def target(self) -> Path:
        """The first station's target directory."""
        return self.stations[0].target

    def start(self, *arguments: str) -> None:
        """Starts the daemon, which must detach, and waits until it has written its PID file.

        The start command ends before, and whoever looked then would find no daemon.
        """
        started = self.daemon.start(*arguments)
        assert started.status == 0 and started.errors == "" and self.daemon.detached, started
        wait_until(
            lambda: self.daemon.pid in self.daemon.pids_in_file() or not self.daemon.is_running(),
            "the daemon's PID file",
        )

    def announced(self) -> list[str]:
        """The names announced so far for the first station."""
        return self.consumer.names_below(self.stations[0].announced_target)

    def wait_announced(self, count: int, timeout: float = LIMIT) -> None:
        """Waits until `count` files were announced; shows the log if they were not."""
        try:
            self.consumer.wait_for(count, timeout)
        except AssertionError as error:
            raise AssertionError(f"{error}; the log's end:\n{self.daemon.log()[-3000:]}") from None

    def settle(self, timeout: float = LIMIT) -> None:
        """Waits until each worker has begun and ended a whole cycle: what it could do is done."""
        for station in self.stations:
            # Three connections: the first may belong to the cycle that runs, the second is the
            # next listing or copy, and when the third is there the second has ended.
            wanted = station.server.connections() + 3

            def reached(server: RsyncServer = station.server, count: int = wanted) -> bool:
                return server.connections() >= count

            wait_until(reached, f"cycles of detector {station.id} to go by", timeout)
            assert self.daemon.is_running(), "the daemon ended on its own"

    def check(
        self,
        staying: Collection[str] = frozenset(),
        interrupted: bool = False,
        again: Collection[str] = frozenset(),
    ) -> None:
        """Asserts that all frames of all stations arrived, once announced, gone at the source.

        Those of the first station that are named in `staying` must be where they were instead.
        Where copying was `interrupted`, the log may name files as lost that a later cycle moved,
        and rsync may have left a half file. Those in `again` may be announced twice.
        """
        for station in self.stations:
            expected = staying if station is self.stations[0] else frozenset()
            comparison = compare(station, self.consumer, expected, interrupted, again)
            assert comparison.agrees, str(comparison)
        log = self.daemon.archived_log()
        assert interrupted or "Error: Lost " not in log, log
        # What a sanitizer has to say of the copy program comes out where its errors go.
        assert "Sanitizer" not in log and "runtime error:" not in log, log

    def finish(
        self,
        staying: Collection[str] = frozenset(),
        interrupted: bool = False,
        again: Collection[str] = frozenset(),
        timeout: float = LIMIT,
    ) -> None:
        """Waits until all frames but those staying were announced, and what the daemon makes of
        the rest is known; then checks everything.
        """
        produced = sum(station.simulator.produced for station in self.stations)
        self.wait_announced(produced - len(staying), timeout)
        self.settle(timeout)
        self.check(staying, interrupted, again)

    def __enter__(self) -> Bed:
        for station in self.stations:
            station.server.start()
        self.consumer.start()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        for station in self.stations:
            station.simulator.stop()
        self.daemon.__exit__(kind, error, trace)
        self.consumer.stop()
        for station in self.stations:
            station.server.kill()
