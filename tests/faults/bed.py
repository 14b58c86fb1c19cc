"""The fault bed: a whole installation at work, in which faults are injected, and what it proves.

A seed decides what the detectors produce and which faults strike when. What a fault may use:

    bed.stations                    each: .server, .workload, .ledger, .target, .proxy (or None)
    bed.consumer                    .come(), .leave(), .nap
    bed.behind_relay                with the relay: .kill(), .start(), .fetcher, ...; the consumer is then
                                    a subscriber of it
    bed.kill_daemon(number), bed.start_daemon(), bed.daemon
    bed.copy_processes(), bed.rsync_children()
    bed.send(process, number), bed.kill_copy_process(process, number)
    bed.wait_idle(), bed.wait_copying(), bed.wait_moment(rng), bed.standing_still()

While faults strike, the source is looked at all the time: a file that is gone there has to be whole
at the target. The consumer looks at each file when its record arrives. When the last fault is
healed, the bed waits until all is moved and announced, and `judge` compares file by file.
"""

from __future__ import annotations

import os
import re
import signal
import threading
import time
import traceback
from collections.abc import Iterator, Mapping
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from pathlib import Path
from random import Random
from types import TracebackType
from typing import TYPE_CHECKING

from faults.consumer import CheckingConsumer
from faults.fault import Fault
from faults.ledger import Ledger
from faults.mounts import unmount_all
from faults.proxy import Proxy
from faults.workload import Workload
from support import daemon as skarn
from support.bed import HALF_RECEIVED, SHARES, STATE, TARGETS
from support.detector import list_files
from support.processes import Process, is_stopped, processes
from support.rsync_server import RsyncServer
from support.waiting import wait_until

if TYPE_CHECKING:
    from faults.behind_relay import BehindRelay

MINPAUSE = 30  # milliseconds, so that a run is short
LOST = re.compile(r"^Error: Lost (.*)$", re.MULTILINE)
LEAK_CHECK_FAILED = re.compile(
    r"^==\d+==(LeakSanitizer has encountered a fatal error\.|HINT: .*)\n", re.MULTILINE
)
MOST_IN_VAIN = 50  # faults in a row that found nothing to break
ORPHANS = (skarn.COPY_PROGRAM.name[:15], "rsync", "sh", "mkdir", "chown", "keeper", "cat")
JOURNALS = Path("/var/lib/skarn/journal")
LOOK_EVERY = 0.02  # seconds between two looks at the source


@dataclass
class Station:
    """One detector with all that belongs to it, on both ends of the way."""

    id: str
    server: RsyncServer
    proxy: Proxy | None
    ledger: Ledger
    workload: Workload
    target: Path


@dataclass
class Outcome:
    """What a run came to: the numbers of the table, and what broke the promise in words."""

    injected: int = 0
    daemon_kills: int = 0
    copy_kills: int = 0
    relay_kills: int = 0
    files: int = 0
    bytes: int = 0
    lost: int = 0
    never_announced: int = 0
    announced_twice: int = 0
    excused: int = 0
    withdrawn: int = 0
    cut: int = 0  # moved whole, as they were before the detector changed them again
    recovered_in: float = 0.0
    broken: tuple[str, ...] = ()


def identified_lists() -> set[tuple[Path, int]]:
    """The file lists that are there now, each with its inode: a list of an old name is another."""
    lists = set()
    for path in skarn.file_lists():
        with suppress(FileNotFoundError):  # its daemon has removed it meanwhile
            lists.add((path, path.lstat().st_ino))
    return lists



class Bed:
    """One installation for one run; see the module's description.

    It takes the daemon and the copy program from SKARN_BINARY and CONFIRMING_RSYNC_BINARY, and
    stands on the sandbox: everything in it is its own.
    """

    def __init__(
        self,
        seed: str,
        *,
        stations: int = 1,
        proxy: bool = False,
        relay: type[BehindRelay] | None = None,
        max_verbosity: int | None = 2,
        settings: Mapping[str, object] | None = None,
    ) -> None:
        self.seed = seed
        self._max_verbosity = max_verbosity
        self.stations = [self._station(number, proxy) for number in range(1, stations + 1)]
        self.consumer = CheckingConsumer(
            {f"{each.target}/.": each.ledger for each in self.stations},
            relay.pipe if relay else skarn.FIFO,
        )
        self._relay = relay(self.consumer, self.ledger.complain) if relay else None
        self.daemon = skarn.Daemon()
        self.daemon_kills = 0
        self.copy_kills = 0
        self.settings: dict[str, object] = {
            "logfile_max_size": "1G",  # one whole log, unless a fault wants it otherwise
            **(settings or {}),
        }
        self._daemon_pids: list[int] = []
        self._old_lists: set[tuple[Path, int]] = set()
        self._kill_times: list[float] = []
        self._end = threading.Event()
        self._watch: threading.Thread | None = None
        self._struck: set[Fault] = set()

    def _station(self, number: int, proxied: bool) -> Station:
        name = str(number)
        seen = f"127.0.0.{number}"
        address = f"127.0.1.{number}" if proxied else seen
        share, target = SHARES / name, TARGETS / name
        ledger = Ledger(share, target)
        return Station(
            name,
            RsyncServer(address, share, STATE, max_verbosity=self._max_verbosity, log=True),
            Proxy(seen, address) if proxied else None,
            ledger,
            Workload(share, f"{self.seed} {name}", ledger),
            target,
        )

    # What faults use.

    @property
    def ledger(self) -> Ledger:
        """The first station's ledger, which also takes complaints that concern no one file."""
        return self.stations[0].ledger

    @property
    def behind_relay(self) -> BehindRelay:
        """The relay and its subscribers, of a run that has one."""
        assert self._relay is not None, "this run has no relay"
        return self._relay

    def kill_relay(self) -> None:
        """Kills the relay and counts it; its subscribers may get again what they have."""
        self.note_kill()
        self.behind_relay.kill()

    def start_daemon(self) -> None:
        """Starts a daemon; there must be none."""
        if self._daemon_pids:
            self.note_kill()  # the last one died between what was noted before and now
        # Those of a dead daemon stay, and after 32,768 processes its number comes again.
        self._old_lists = identified_lists()
        # It never ends by itself, and where no process can be had the leak check fails on its own.
        started = self.daemon.start(leak_check=False)
        assert started.status == 0 and self.daemon.detached, started
        self._daemon_pids.append(self.daemon.pid)

    def kill_daemon(self, number: int = signal.SIGKILL) -> int:
        """Ends the daemon by a signal and counts it; returns 1, or 0 if none was running."""
        if not self.daemon.is_running():
            return 0
        self.note_kill()
        self.daemon.send_signal(number)
        with suppress(ProcessLookupError):
            os.kill(self.daemon.pid, signal.SIGCONT)  # it may be stopped, and heed nothing else
        self.daemon.wait_ended()
        self.daemon_kills += 1
        return 1

    def note_kill(self) -> None:
        """Something is about to be killed or cut: a second record of a file may follow."""
        self._kill_times.append(time.monotonic())
        for station in self.stations:
            station.ledger.something_died = True

    @property
    def deaths(self) -> int:
        """How often something was killed or cut so far."""
        return len(self._kill_times)

    def copy_processes(self) -> list[Process]:
        """The copy processes that run now, those of dead daemons included."""
        name = skarn.COPY_PROGRAM.name[:15]
        return [
            each
            for each in processes()
            if each.name == name and not each.is_zombie and "--confirm-files" in arguments(each.pid)
        ]

    def rsync_children(self) -> list[Process]:
        """The stock rsync processes that copy processes have started, and their children."""
        everyone = processes()
        parents = {each.pid for each in self.copy_processes()}
        found: list[Process] = []
        for _ in range(2):  # the one that was started, and the one that it forks
            new = [
                each
                for each in everyone
                if each.parent in parents and each.name == "rsync" and not each.is_zombie
            ]
            found += new
            parents = {each.pid for each in new}
        return found

    def send(self, process: Process, number: int) -> bool:
        """Sends a signal, unless the process has ended meanwhile."""
        try:
            os.kill(process.pid, number)
        except ProcessLookupError:
            return False
        return True

    def kill_copy_process(self, process: Process, number: int = signal.SIGKILL) -> int:
        """Ends one copy process by a signal and counts it; returns 1, or 0 if it had ended."""
        self.note_kill()
        killed = int(self.send(process, number))
        self.copy_kills += killed
        return killed

    def wait_copying(self, timeout: float = 5) -> list[Process]:
        """The copy processes as soon as there are any; an empty list if there are none in time."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            found = self.copy_processes()
            if found:
                return found
            time.sleep(0.002)
        return []

    def wait_moment(self, rng: Random) -> list[Process]:
        """Waits for a moment to strike, and returns the copy processes of that moment: mostly while
        files leave the source, else at the beginning of a copy or at any time.
        """
        kind = rng.random()
        if kind < 0.9:
            self.wait_copying()
        if kind < 0.6:
            moved = self.moved()
            with suppress(AssertionError):
                wait_until(lambda: self.moved() > moved, "files to leave the source", 3)
        self._wait(rng.uniform(0, 0.05 if kind < 0.6 else 0.4))
        return self.copy_processes()

    def moved(self) -> int:
        """How many files have left the sources so far."""
        return sum(each.ledger.moved for each in self.stations)

    def wait_idle(self, timeout: float = 60) -> None:
        """Waits until no copy process is left and no record is under way in the daemon."""
        wait_until(lambda: not self.is_busy(), "the copy processes to end", timeout)

    def is_busy(self) -> bool:
        """Whether a copy process runs, or the daemon still has to hand off what one reported."""
        if self.copy_processes():
            return True
        if not self.daemon.is_running():
            return False
        mine = f"{skarn.FILE_LISTS}{self.daemon.pid}_"
        new = identified_lists() - self._old_lists
        return any(path.name.startswith(mine) for path, _ in new)

    @contextmanager
    def standing_still(self, timeout: float = 30) -> Iterator[bool]:
        """Stops the daemon between two cycles, when no record is under way, for as long as the
        block lasts. Gives False, and stops nothing, if there is no such moment in time.
        """
        still = self._stop_between_cycles(timeout)
        try:
            yield still
        finally:
            if still and self.daemon.is_running():
                self.daemon.send_signal(signal.SIGCONT)

    def _stop_between_cycles(self, timeout: float) -> bool:
        end = time.monotonic() + timeout
        while time.monotonic() < end and self.daemon.is_running():
            if not self.is_busy():
                self.daemon.send_signal(signal.SIGSTOP)
                wait_until(lambda: is_stopped(self.daemon.pid), "the daemon to stand still")
                # File lists are there from before the first copy process starts until the last
                # record is written.
                if not self.is_busy():
                    return True
                self.daemon.send_signal(signal.SIGCONT)
            time.sleep(0.003)
        return False

    def wait_gone(self, names: set[str], station: Station, timeout: float = 60) -> None:
        """Waits until these files have left the source of a station."""
        wait_until(
            lambda: not names & set(station.ledger.present()),
            f"{len(names)} files to leave the source",
            timeout,
        )

    def left(self) -> int:
        """How many files are still at the sources that have to leave them."""
        return sum(each.ledger.look() for each in self.stations)

    # The run.

    def run(self, faults: list[Fault], rounds: int, limit: float) -> Outcome:
        """Injects `rounds` faults, chosen among `faults`, lets all drain, and judges.

        With several, now and then one that is over at once strikes while another one lasts. No
        more are begun when `limit` seconds have passed.
        """
        rng = Random(f"schedule {self.seed}")
        for fault in faults:
            fault.prepare(self)
        self.install()
        if self._relay is not None:
            self._relay.begin()
        self.start_daemon()
        for station in self.stations:
            station.workload.start()
        outcome = Outcome()
        end = time.monotonic() + limit
        instants = [each for each in faults if each.instant] if len(faults) > 1 else []
        vain = 0
        deck: list[Fault] = []
        while outcome.injected < rounds and time.monotonic() < end and vain < MOST_IN_VAIN:
            if not deck:
                deck = rng.sample(faults, len(faults))  # each once before one comes again
            fault = deck.pop()
            self._wait(rng.uniform(*fault.gap))
            injected = fault.inject(self, rng)
            if not injected:
                vain += 1
                continue
            vain = 0
            self._struck.add(fault)
            outcome.injected += injected
            hold = rng.uniform(*fault.hold)
            if instants and not (fault.instant or fault.alone) and rng.random() < 0.4:
                self._wait(hold / 2)
                hold /= 2
                second = rng.choice(instants)
                struck = second.inject(self, rng)
                if struck:
                    self._struck.add(second)
                    outcome.injected += struck
                    second.heal(self)
            self._wait(hold)
            fault.heal(self)
        for station in self.stations:
            station.workload.stop()
        if not outcome.injected:
            self.ledger.complain("no fault could be injected")
        outcome.recovered_in = self._drain(max(each.drain for each in faults))
        self._end_daemon(faults)
        self.judge(faults, outcome)
        return outcome

    def _wait(self, seconds: float) -> None:
        self._end.wait(seconds)

    def install(self) -> None:
        """Puts the password, the copy program and the configuration in their places."""
        skarn.install_password_file()
        skarn.install_copy_program(Path(os.environ["CONFIRMING_RSYNC_BINARY"]))
        skarn.write_configuration(
            {"logfile": skarn.LOG_FILE, **self.settings},
            [
                skarn.Detector(
                    each.id,
                    each.proxy.address if each.proxy else each.server.address,
                    target=str(each.target),
                    minpause=MINPAUSE,
                )
                for each in self.stations
            ],
        )

    def _drain(self, limit: float) -> float:
        """Waits until all is moved and announced, and says how long that took; never fails."""
        begin = time.monotonic()
        done = begin
        while done - begin < limit:
            if not self.left():
                self._note_told_lost()
                if not any(each.ledger.unannounced() for each in self.stations):
                    break
            self._wait(0.05)
            done = time.monotonic()
        else:
            self.ledger.complain(f"not all was moved and announced; {self.describe()}")
        return done - begin

    def _note_told_lost(self) -> None:
        """Tells the ledgers of targets that a fault took away what the log has as lost."""
        away = [each.ledger for each in self.stations if len(each.ledger.places) > 1]
        if any(ledger.unannounced() for ledger in away):
            lost = set(LOST.findall(self.daemon.archived_log()))
            for ledger in away:
                ledger.told_lost = lost

    def describe(self) -> str:
        """What is there and runs at this moment, for whoever asks why it stands still."""
        lines = [] if self._relay is None else [self._relay.describe()]
        lines += [f"{self.left()} files left; {self.consumer.records} records read; what runs:"]
        for each in processes():
            if not each.is_zombie:
                where = {each.pid: each.name, **threads(each.pid)}
                words = " ".join(arguments(each.pid))
                lines.append(f"{each.pid} of {each.parent}, {each.state}: {words} {where}")
        lines += [f"{path}: {path.stat().st_size} bytes" for path in skarn.file_lists()]
        for path in sorted(JOURNALS.rglob("*")):
            with suppress(OSError):
                lines.append(f"{path}:\n{path.read_text(encoding='utf-8', errors='replace')[:500]}")
        return "\n".join(lines)

    def _end_daemon(self, faults: list[Fault]) -> None:
        """Ends what a run started, when all is quiet."""
        try:
            self.wait_idle()
        except AssertionError as error:
            self.ledger.complain(str(error))
        for fault in faults:
            if fault in self._struck:
                fault.check(self)
        if self.daemon.is_running():
            self.daemon.end()
        else:
            self.ledger.complain("the daemon ended on its own")
        if self._relay is not None:
            wanted, allowed = self._paths()
            self._relay.judge(wanted, allowed)
        self.consumer.leave()

    def _paths(self) -> tuple[set[str], set[str]]:
        """As they are announced: of all files that had to be, and of those that may have been."""
        wanted: set[str] = set()
        allowed: set[str] = set()
        for station in self.stations:
            for entry in station.ledger.entries():
                free = entry.withdrawn or entry.excused or entry.stays or entry.gone is None
                (allowed if free else wanted).add(f"{station.target}/./{entry.name}")
        return wanted, allowed

    def judge(self, faults: list[Fault], outcome: Outcome) -> None:
        """Compares all that is there with the promise, file by file; nothing may run any more."""
        kills = any(fault.kills for fault in faults)
        for station in self.stations:
            self._judge_station(station, kills, outcome)
        self.judge_log()
        self._judge_leftovers()
        outcome.daemon_kills, outcome.copy_kills = self.daemon_kills, self.copy_kills
        outcome.relay_kills = 0 if self._relay is None else self._relay.kills
        outcome.broken = tuple(line for each in self.stations for line in each.ledger.broken)

    def _judge_station(self, station: Station, kills: bool, outcome: Outcome) -> None:
        ledger = station.ledger
        entries = ledger.entries()
        outcome.files += len(entries)
        outcome.bytes += ledger.bytes
        produced = set()
        for entry in entries:
            produced.add(entry.name)
            at_source = os.path.lexists(entry.source)
            if entry.withdrawn:
                outcome.withdrawn += 1
                if at_source:
                    ledger.complain(f"{entry.name} was deleted by the detector and is back")
                continue
            if entry.stays:
                if not at_source:
                    outcome.lost += 1
                    ledger.complain(f"{entry.name} can't be carried and is gone")
                continue
            if at_source:
                ledger.complain(f"{entry.name} is still at the source")
            if not at_source and not ledger.is_whole(entry):
                outcome.lost += 1
                ledger.complain(f"{entry.name} is lost: neither at the source nor whole here")
            elif not at_source and not ledger.is_whole(entry, final=True):
                outcome.cut += 1
            if not at_source and not entry.records:
                if entry.excused:
                    outcome.excused += 1
                else:
                    outcome.never_announced += 1
                    ledger.complain(f"{entry.name} was never announced")
            if len(entry.records) > 1:
                outcome.announced_twice += 1
                second = entry.records[1]
                across = any(entry.born <= moment <= second for moment in self._kill_times)
                if not kills or not across:
                    after = [f"{moment - entry.born:.3f}" for moment in entry.records]
                    ledger.complain(
                        f"{entry.name} was announced twice though nothing died: "
                        f"{', '.join(after)} s after it was written"
                    )
        for place in ledger.places:
            for name in list_files(place) if place.is_dir() else []:
                half = HALF_RECEIVED.fullmatch(os.path.basename(name)) is not None
                if name not in produced and not (half and self._kill_times):
                    ledger.complain(f"{place / name} is at the target and was never produced")

    def judge_log(self) -> None:
        """Compares what the log says with what was produced, and looks for a sanitizer's words."""
        log = self.daemon.archived_log()
        names = {entry.name for each in self.stations for entry in each.ledger.entries()}
        for name in LOST.findall(log):
            if name not in names:
                self.ledger.complain(f"the log says that {name!r} is lost, which never was")
        # What a sanitizer has to say of the copy program comes out where its errors go. That its
        # leak check can't start where no process can be had says nothing of the program.
        log = LEAK_CHECK_FAILED.sub("", log)
        for sign in ("Sanitizer", "runtime error:"):
            if sign in log:
                start = log.index(sign)
                self.ledger.complain(f"in the log: {log[max(0, start - 200) : start + 1500]}")
        reports = skarn.sanitizer_reports()
        if reports:
            self.ledger.complain(reports)

    def _judge_leftovers(self) -> None:
        def ours() -> list[Process]:
            return [
                each
                for each in processes()
                if each.name in (skarn.COPY_PROGRAM.name[:15], self.daemon.binary.name[:15])
                and not each.is_zombie
            ]

        with suppress(AssertionError):
            wait_until(lambda: not ours(), "the last processes to end", 20)
        for each in ours():
            self.ledger.complain(f"a process is left: {each}")
        dead = tuple(f"{skarn.FILE_LISTS}{pid}_" for pid in self._daemon_pids[:-1])
        for path in skarn.file_lists():
            if not path.name.startswith(dead or ("/",)):
                self.ledger.complain(f"{path} is left")

    # Its beginning and end.

    def __enter__(self) -> Bed:
        for station in self.stations:
            station.server.start()
            if station.proxy:
                station.proxy.start()
        if self._relay is not None:
            self._relay.hold_pipe()
        self.consumer.come()
        threading.excepthook = self._thread_failed
        self._watch = threading.Thread(target=self._look, daemon=True)
        self._watch.start()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        for station in self.stations:
            station.workload.stop()
        if self.daemon.is_running():
            self.daemon.end(signal.SIGKILL)
        if self._relay is not None:
            self._relay.end()
        self.consumer.leave()
        self._end.set()
        if self._watch is not None:
            self._watch.join(60)
        for station in self.stations:
            if station.proxy:
                station.proxy.stop()
            station.server.kill()
        unmount_all()

    def _thread_failed(self, failure: threading.ExceptHookArgs) -> None:
        """A thread of the bed itself that fails must not let the run look good."""
        traceback.print_exception(failure.exc_value)
        self.ledger.complain(f"the bed itself failed: {failure.exc_value!r}")

    def _look(self) -> None:
        """Looks at the sources, and takes the status of orphans, as init would."""
        while not self._end.is_set():
            self.left()
            reap_orphans()
            self._end.wait(LOOK_EVERY)


def arguments(pid: int) -> list[str]:
    """The command line of a process; empty if it has ended."""
    try:
        words = Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
    except OSError:
        return []
    return [os.fsdecode(word) for word in words]


def threads(pid: int) -> dict[int, str]:
    """What each thread of a process is waiting in, as the kernel names it."""
    found: dict[int, str] = {}
    with suppress(OSError):
        for task in Path(f"/proc/{pid}/task").iterdir():
            with suppress(OSError):
                found[int(task.name)] = (task / "wchan").read_text(encoding="ascii")
    return found


def reap_orphans() -> None:
    """Takes the status of what ended when its parent was dead.

    The servers are this process's own: their sessions' leaders are waited for elsewhere.
    """
    me = os.getpid()
    for each in processes():
        if each.parent != me or not each.is_zombie or each.name not in ORPHANS:
            continue
        if each.name != "rsync" or each.session != each.pid:
            with suppress(ChildProcessError):
                os.waitpid(each.pid, os.WNOHANG)
