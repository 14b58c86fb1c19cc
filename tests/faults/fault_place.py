"""The places that the daemon and its copy program write to: full, read-only, gone, occupied."""

from __future__ import annotations

import os
import signal
import time
from contextlib import suppress
from pathlib import Path
from random import Random

from faults.bed import Bed, Station, arguments
from faults.fault import Fault, register
from faults.mounts import (
    allow_writing,
    forbid_writing,
    give_back,
    mount_memory,
    use_up_inodes,
    use_up_space,
)
from support.bed import HALF_RECEIVED, TARGETS
from support.daemon import FILE_LISTS, LISTING_ERRORS, LOG_FILE, PID_FILE, file_lists
from support.processes import is_stopped
from support.waiting import wait_until

TMP = Path("/tmp")
RUN = Path("/run")
JOURNAL = Path("/var/lib/skarn/journal")


def let_one_more_through(bed: Bed) -> None:
    """Lets the detector write one more file and waits until the daemon has done all about it.

    What is wrong with others is told elsewhere.
    """
    station = bed.stations[0]
    names = set(station.workload.write_some(1))
    try:
        bed.wait_gone(names, station)
        wait_until(lambda: not names & set(station.ledger.unannounced()), "a last record")
        bed.wait_idle()
    except AssertionError as error:
        bed.ledger.complain(str(error))


class TargetFault(Fault):
    """The targets lie on a small file system of their own, all of them on one."""

    hold = (0.2, 1.5)

    def prepare(self, bed: Bed) -> None:
        mount_memory(TARGETS)
        for station in bed.stations:
            away = put_away(station)
            if away not in station.ledger.places:
                station.ledger.places.append(away)


def put_away(station: Station) -> Path:
    """Where the files of a target go when the target is taken away."""
    return station.target.with_name(f"put_away_{station.id}")


def take_target_away(station: Station, limit: float = 5) -> bool:
    """Removes a target for good: its files are moved elsewhere one by one, then its folders go.

    A copy process that is at work there finds itself in a folder that is no more.
    """
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        for folder, folders, names in os.walk(station.target, topdown=False):
            for name in names:
                path = Path(folder, name)
                place = put_away(station) / path.relative_to(station.target)
                place.parent.mkdir(parents=True, exist_ok=True)
                with suppress(FileNotFoundError):  # renamed by rsync, which had received it
                    if HALF_RECEIVED.fullmatch(name):
                        path.unlink()
                    else:
                        path.rename(place)
            for name in folders:
                with suppress(OSError):  # something came in meanwhile
                    os.rmdir(os.path.join(folder, name))
        with suppress(OSError):
            station.target.rmdir()
            return True
    return False


@register
class TargetFull(TargetFault):
    """No space is left for data, or next to none."""

    name = "target-full"
    title = "target full, then space again"

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.wait_copying(2)
        return int(use_up_space(TARGETS, rng.choice((0, 0, 1, 5, 50))))

    def heal(self, bed: Bed) -> None:
        give_back(TARGETS)


@register
class TargetWithoutInodes(TargetFault):
    """No further file can be made."""

    name = "target-no-inodes"
    title = "target without inodes, then with"

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.wait_copying(2)
        return int(use_up_inodes(TARGETS, rng.choice((0, 0, 1, 5, 50))))

    def heal(self, bed: Bed) -> None:
        give_back(TARGETS)


@register
class TargetReadOnly(TargetFault):
    """The file system refuses every change, as after an error of the disk."""

    name = "target-read-only"
    title = "target read-only, then writable"

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.wait_copying(2)
        return int(forbid_writing(TARGETS))

    def heal(self, bed: Bed) -> None:
        allow_writing(TARGETS)


@register
class TargetRemoved(TargetFault):
    """The target's folder goes in mid-copy; the next cycle makes it anew."""

    name = "target-removed"
    title = "target removed in mid-copy"
    hold = (0.0, 0.5)

    def inject(self, bed: Bed, rng: Random) -> int:
        bed.wait_copying(2)
        return int(take_target_away(rng.choice(bed.stations)))


@register
class TargetReplaced(TargetFault):
    """A regular file stands where the target was."""

    name = "target-is-a-file"
    title = "target replaced by a regular file"
    replaced: Path | None = None

    def inject(self, bed: Bed, rng: Random) -> int:
        station = rng.choice(bed.stations)
        self.replaced = None
        # The daemon may make the folder anew in between.
        for _ in range(50):
            if not take_target_away(station):
                return 0
            with suppress(FileExistsError):
                with station.target.open("xb") as file:
                    file.write(b"no folder")
                self.replaced = station.target
                return 1
        return 0

    def heal(self, bed: Bed) -> None:
        assert self.replaced is not None
        if self.replaced.read_bytes() != b"no folder":
            bed.ledger.complain(f"{self.replaced} was written to, though it is no folder")
        self.replaced.unlink()


class TmpFault(Fault):
    """/tmp, where the file lists and the listing's errors go."""

    hold = (0.2, 1.0)


@register
class TmpFull(TmpFault):
    """No space, or a few pages: then a file list may end in the middle of a name."""

    name = "tmp-full"
    title = "/tmp full, then space again"

    def inject(self, bed: Bed, rng: Random) -> int:
        return int(use_up_space(TMP, rng.choice((0, 0, 1, 2))))

    def heal(self, bed: Bed) -> None:
        give_back(TMP)


@register
class TmpWithoutInodes(TmpFault):
    """No further file can be made, or a few."""

    name = "tmp-no-inodes"
    title = "/tmp without inodes, then with"

    def inject(self, bed: Bed, rng: Random) -> int:
        # Without the errors' file of former listings no listing can start.
        if rng.random() < 0.5:
            LISTING_ERRORS.unlink(missing_ok=True)
        return int(use_up_inodes(TMP, rng.choice((0, 0, 1, 2))))

    def heal(self, bed: Bed) -> None:
        give_back(TMP)


@register
class TmpReadOnly(TmpFault):
    """Nothing can be written or removed."""

    name = "tmp-read-only"
    title = "/tmp read-only, then writable"

    def inject(self, bed: Bed, rng: Random) -> int:
        return int(forbid_writing(TMP))

    def heal(self, bed: Bed) -> None:
        allow_writing(TMP)
        # What could not be removed meanwhile stays. The log has a line for each, and an operator
        # can remove them; the daemon stands still so that none of them is in use again.
        if not bed.daemon.is_running():
            return
        bed.daemon.send_signal(signal.SIGSTOP)
        wait_until(lambda: is_stopped(bed.daemon.pid), "the daemon to stand still")
        used = {word for each in bed.copy_processes() for word in arguments(each.pid)}
        log = bed.daemon.archived_log()
        for path in file_lists():
            said = f"Error: could not remove {path}\n   Read-only file system\n" in log
            if said and f"--files-from={path}" not in used:
                path.unlink()
        bed.daemon.send_signal(signal.SIGCONT)


@register
class FileListOccupied(Fault):
    """Something stands under the names that the running daemon gives its file lists."""

    name = "file-list-occupied"
    title = "file list's name taken by a folder or a link"
    hold = (0.2, 1.5)
    precious = Path("/srv/precious")
    planted: list[Path] = []

    def inject(self, bed: Bed, rng: Random) -> int:
        self.planted = []
        if not bed.wait_copying(5):
            return 0
        stems = {str(path).rpartition("_")[0] for path in file_lists()}
        mine = f"{TMP}/{FILE_LISTS}{bed.daemon.pid}_"
        self.precious.write_text("nobody writes here", encoding="ascii")
        for stem in sorted(stem for stem in stems if stem.startswith(mine)):
            for slot in range(8):
                if slot == 0 or rng.random() < 0.7:  # most cycles have but one list
                    self._plant(Path(f"{stem}_{slot}"), rng)
        return int(bool(self.planted))

    def _plant(self, place: Path, rng: Random) -> None:
        kind = rng.choice(("folder", "full folder", "full folder", "link", "broken link", "pipe"))
        deadline = time.monotonic() + 1
        while time.monotonic() < deadline:
            with suppress(FileExistsError):  # a cycle uses the name just now
                if kind == "link":
                    place.symlink_to(self.precious)
                elif kind == "broken link":
                    place.symlink_to("/srv/not_made")
                elif kind == "pipe":
                    os.mkfifo(place)
                else:
                    place.mkdir()
                    if kind == "full folder":
                        (place / "something").touch()
                self.planted.append(place)
                return

    def heal(self, bed: Bed) -> None:
        for place in self.planted:
            if place.is_symlink() or place.is_fifo():
                place.unlink(missing_ok=True)
            elif place.is_dir():
                (place / "something").unlink(missing_ok=True)
                with suppress(FileNotFoundError):
                    place.rmdir()
        if self.precious.read_text(encoding="ascii") != "nobody writes here":
            bed.ledger.complain("a file list was written through a link")
        if Path("/srv/not_made").exists():
            bed.ledger.complain("a file list was made where a link led to")


@register
class LogFolderGone(Fault):
    """The log's folder is away, and comes back."""

    name = "log-folder-gone"
    title = "log file's folder gone and back"
    hold = (0.2, 1.5)
    alone = True  # a daemon does not start without its log
    away = LOG_FILE.parent.with_name("log_put_away")

    def inject(self, bed: Bed, rng: Random) -> int:
        LOG_FILE.parent.rename(self.away)
        return 1

    def heal(self, bed: Bed) -> None:
        self.away.rename(LOG_FILE.parent)

    def check(self, bed: Bed) -> None:
        before = len(bed.daemon.archived_log())
        let_one_more_through(bed)
        if len(bed.daemon.archived_log()) == before:
            bed.ledger.complain("nothing is logged though the folder is back")


@register
class LogRotatedByEveryCycle(Fault):
    """The limit is so low that each cycle begins a log of its own; archives may be in the way."""

    name = "log-rotates"
    title = "log rotated by every cycle"
    mixes = False  # most of the log is gone then
    hold = (0.1, 0.5)

    def settings(self) -> dict[str, object]:
        return {"logfile_max_size": 1, "logfile_max_number": 2}

    def inject(self, bed: Bed, rng: Random) -> int:
        for number in range(3):
            archive = LOG_FILE.with_name(f"{LOG_FILE.name}.{number}")
            if rng.random() < 0.3:
                with suppress(OSError):
                    archive.unlink(missing_ok=True)
                    archive.mkdir()
                    (archive / "something").touch()
        return 1

    def heal(self, bed: Bed) -> None:
        for archive in LOG_FILE.parent.glob(f"{LOG_FILE.name}.*"):
            if archive.is_dir():
                (archive / "something").unlink(missing_ok=True)
                archive.rmdir()


@register
class PidFileOccupied(Fault):
    """A folder stands where the PID file was."""

    name = "pid-file-occupied"
    title = "PID file replaced by a folder"
    hold = (0.1, 0.8)
    alone = True  # a daemon does not start without it

    def inject(self, bed: Bed, rng: Random) -> int:
        for _ in range(1000):
            PID_FILE.unlink(missing_ok=True)
            with suppress(FileExistsError):  # the daemon was quicker
                PID_FILE.mkdir()
                return 1
        return 0

    def heal(self, bed: Bed) -> None:
        PID_FILE.rmdir()

    def check(self, bed: Bed) -> None:
        let_one_more_through(bed)
        if bed.daemon.pids_in_file() != [bed.daemon.pid]:
            bed.ledger.complain(f"the PID file names {bed.daemon.pids_in_file()} after all")


@register
class RunReadOnly(Fault):
    """The PID file can't be written; the consumer's pipe can."""

    name = "run-read-only"
    title = "/run read-only, then writable"
    hold = (0.1, 0.8)
    alone = True

    def inject(self, bed: Bed, rng: Random) -> int:
        return int(forbid_writing(RUN))

    def heal(self, bed: Bed) -> None:
        allow_writing(RUN)


class JournalFault(Fault):
    """The copy program's journal can't be kept; copying goes on, and the report says why.

    A file that leaves the source meanwhile is protected against no death, so nothing else strikes
    until the last copy process without a journal has ended, and the daemon has handed off what it
    reported: its list of names is then gone.
    """

    alone = True
    hold = (0.2, 1.5)

    def prepare(self, bed: Bed) -> None:
        mount_memory(JOURNAL.parent)

    def heal(self, bed: Bed) -> None:
        with suppress(AssertionError):  # a run that starts meanwhile; the check at the end tells
            wait_until(lambda: self.is_reported_at_last(bed), "a report without a journal", 10)
        self.put_back()
        without = {each.pid for each in bed.copy_processes()}
        wait_until(
            lambda: not without & {each.pid for each in bed.copy_processes()},
            "the copy processes without a journal to end",
            60,
        )
        lists = self.lists_of_the_daemon(bed)
        wait_until(
            lambda: not lists & self.lists_of_the_daemon(bed), "the end of their cycle", 60
        )

    @staticmethod
    def lists_of_the_daemon(bed: Bed) -> set[tuple[Path, int, int]]:
        """Its lists of this moment; a later cycle's have the same names."""
        lists = set()
        for path in file_lists():
            if path.name.startswith(f"{FILE_LISTS}{bed.daemon.pid}_"):
                with suppress(FileNotFoundError):
                    status = path.stat()
                    lists.add((path, status.st_ino, status.st_mtime_ns))
        return lists

    def is_reported_at_last(self, bed: Bed) -> bool:
        """The same as `is_reported`; if not, sees to it that the fault has not mended itself."""
        reported = self.is_reported(bed)
        if not reported:
            self.tighten()
        return reported

    def tighten(self) -> None:
        """Breaks again what the end of a copy process may have mended."""

    def is_reported(self, bed: Bed) -> bool:
        """Whether some report has said that there was no journal."""
        log = bed.daemon.archived_log()
        return "cannot keep a journal" in log or "cannot go on with the journal" in log

    def put_back(self) -> None:
        """Lets journals be kept again."""
        raise NotImplementedError

    def check(self, bed: Bed) -> None:
        if not self.is_reported(bed):
            bed.ledger.complain("no report said that there was no journal")


@register
class JournalReadOnly(JournalFault):
    """Its file system refuses every change."""

    name = "journal-read-only"
    title = "copy program's journal folder read-only"

    def inject(self, bed: Bed, rng: Random) -> int:
        return int(forbid_writing(JOURNAL.parent))

    def put_back(self) -> None:
        allow_writing(JOURNAL.parent)


@register
class JournalFull(JournalFault):
    """No space is left on its file system, or next to none, or no further file can be made."""

    name = "journal-full"
    title = "copy program's journal folder full"

    def inject(self, bed: Bed, rng: Random) -> int:
        use_up = rng.choice((use_up_space, use_up_inodes))
        return int(use_up(JOURNAL.parent, rng.choice((0, 0, 1))))

    def tighten(self) -> None:
        # A journal that has ended makes room for one that begins, and one at a time may be all
        # that a quick machine needs.
        use_up_inodes(JOURNAL.parent, 0)

    def put_back(self) -> None:
        give_back(JOURNAL.parent)


@register
class JournalReplaced(JournalFault):
    """Something else stands in its place: a file, a link, or a folder that others may write to."""

    name = "journal-is-no-folder"
    title = "copy program's journal folder replaced by a file or a link"
    away = JOURNAL.with_name("journal_put_away")

    def inject(self, bed: Bed, rng: Random) -> int:
        for _ in range(1000):
            with suppress(OSError):  # a copy process was quicker and made it anew
                if JOURNAL.is_dir() and not self.away.exists():
                    JOURNAL.rename(self.away)
                kind = rng.choice(("file", "link", "open folder"))
                if kind == "file":
                    JOURNAL.touch(exist_ok=False)
                elif kind == "link":
                    JOURNAL.symlink_to(self.away)
                else:
                    fresh = JOURNAL.with_name("open_folder")  # open from the first moment on
                    fresh.mkdir(exist_ok=True)
                    fresh.chmod(0o777)
                    fresh.rename(JOURNAL)
                return 1
        return 0

    def put_back(self) -> None:
        if JOURNAL.is_dir() and not JOURNAL.is_symlink():
            JOURNAL.rmdir()
        else:
            JOURNAL.unlink()
        if self.away.exists():
            self.away.rename(JOURNAL)
