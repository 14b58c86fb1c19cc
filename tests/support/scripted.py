"""Scripts for the scripted copy program, and the records it leaves of how it was called."""

from __future__ import annotations

import json
import os
import re
import shutil
import stat
from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from pathlib import Path

from support.daemon import Detector, install_copy_program
from support.waiting import LIMIT, wait_until

FOLDER = Path("/usr/local/orbelin/scripted")
STAND_INS = FOLDER / "bin"


@dataclass(frozen=True)
class Call:
    """How the copy program was called once. Arguments and variables are bytes shown as Latin-1."""

    kind: str  # "listing", "copy", or the name of a program that was stood in for
    arguments: list[str]
    environment: list[str]
    directory: str
    pid: int
    parent: int
    session: int
    group: int
    uid: int
    umask: int
    blocked_signals: int
    ignored_signals: int
    descriptors: dict[int, tuple[str, int]]  # number -> (what it refers to, its status flags)
    names: list[str] | None  # what the file list held; None when the call had none
    list_text: str | None
    list_mode: int  # permission bits of the file list
    time: int  # nanoseconds of the monotonic clock
    started: int  # when the kernel made the process: nanoseconds since the machine's start, in ticks

    @property
    def list_name(self) -> str:
        """The file list's path; empty when the call had none."""
        for argument in self.arguments:
            if argument.startswith("--files-from="):
                return argument.partition("=")[2]
        return ""

    @property
    def slot(self) -> int:
        """The number of the copy process within its cycle."""
        return int(self.list_name.rpartition("_")[2])

    @property
    def url(self) -> str:
        """The share's URL among the arguments."""
        return next(each for each in self.arguments if each.startswith("rsync://"))


def install() -> None:
    """Installs the scripted copy program (the one that SCRIPTED_COPY_BINARY names)."""
    install_copy_program(Path(os.environ["SCRIPTED_COPY_BINARY"]))
    for folder in (FOLDER, FOLDER / "calls"):
        folder.mkdir(exist_ok=True)
        folder.chmod(0o1777)


def install_stand_in(name: str) -> None:
    """Lets the program stand in for the one of that name in /bin, where STAND_INS comes first in
    the search path. Its calls are recorded under that name; it complains before it obeys.
    """
    STAND_INS.mkdir(exist_ok=True)
    shutil.copy(os.environ["SCRIPTED_COPY_BINARY"], STAND_INS / name)


def calls(kind: str | None = None) -> list[Call]:
    """The calls recorded so far (of one kind, or all) in the order of their time."""
    found = []
    for path in sorted((FOLDER / "calls").glob("*.json")):
        call = _read(path)
        if kind in (None, call.kind):
            found.append(call)
    return found


def wait_for_calls(kind: str, count: int, timeout: float = LIMIT) -> list[Call]:
    """Waits until at least `count` calls of that kind were recorded; returns them all."""

    def enough() -> list[Call]:
        found = calls(kind)
        return found if len(found) >= count else []

    return wait_until(
        enough, lambda: f"{count} {kind} calls; there are {len(calls(kind))}", timeout
    )


def listing_line(name: str, kind: str = "-rw-r--r--", size: str = "20,000") -> str:
    """One line of a listing, as the rsync client prints it."""
    return f"{kind} {size:>14} 2024/05/06 07:08:09 {name}"


def listing(names: Iterable[str]) -> str:
    """A whole listing: the source directory's own entry, then `names`."""
    lines = [listing_line(".", "drwxr-xr-x", "4,096"), *(listing_line(name) for name in names)]
    return "".join(line + "\n" for line in lines)


def add_listing(names: Iterable[str], detector: Detector | None = None) -> None:
    """Scripts one more listing (of one detector, or of any) that names regular files."""
    add_listing_text(listing(names), detector)


def add_listing_text(text: str | bytes, detector: Detector | None = None) -> None:
    """Scripts one more listing with this very output."""
    series = FOLDER / "listings" / ("any" if detector is None else key(detector))
    number = _count(series)
    content = FOLDER / f"output-of-{series.name}-{number:03d}"
    content.write_bytes(text if isinstance(text, bytes) else text.encode())
    _append(series, [f"file {content}"])


def add_listing_script(steps: Sequence[str], detector: Detector | None = None) -> None:
    """Scripts one more listing by its steps."""
    _append(FOLDER / "listings" / ("any" if detector is None else key(detector)), steps)


def set_default_listing(names: Iterable[str]) -> None:
    """What every listing names for which no script is left; without it they are empty."""
    content = FOLDER / "output-of-default"
    content.write_text(listing(names), encoding="utf-8")
    _put(FOLDER / "listings" / "default", [f"file {content}"])


def add_copy(
    steps: Sequence[str], detector: Detector | None = None, slot: int | None = None
) -> None:
    """Scripts one more copy process: for any, for those of one detector, or for one slot of it."""
    if detector is None:
        series = FOLDER / "copies" / "any"
    else:
        series = FOLDER / "copies" / key(detector) / ("any" if slot is None else f"slot-{slot}")
    _append(series, steps)


def set_default_copy(steps: Sequence[str]) -> None:
    """What every copy process does for which no script is left; without it all is confirmed."""
    _put(FOLDER / "copies" / "default", steps)


def out(text: str) -> str:
    """The step that prints `text`."""
    return "out " + _escaped(text)


def err(text: str) -> str:
    """The step that prints `text` to the error output."""
    return "err " + _escaped(text)


def gate(name: str) -> Path:
    """A path for the steps touch, wait and linger."""
    return FOLDER / f"gate-{name}"


def key(detector: Detector) -> str:
    """The folder name of a detector's scripts. Its source must begin and end with a slash."""
    return re.sub("[^A-Za-z0-9.-]", "_", f"{detector.address}:49371/ramdisk{detector.source}")


def _escaped(text: str) -> str:
    return "".join(
        chr(byte) if 32 <= byte < 127 and byte != 92 else f"\\x{byte:02x}"
        for byte in text.encode("utf-8", "surrogateescape")
    )


def _count(series: Path) -> int:
    try:
        return len({path.name[:3] for path in series.iterdir()})
    except FileNotFoundError:
        return 0


def _append(series: Path, steps: Sequence[str]) -> None:
    series.mkdir(parents=True, exist_ok=True)
    for folder in (series, series.parent):
        folder.chmod(0o777)  # a daemon without root's rights takes scripts from it too
    _put(series / f"{_count(series):03d}", steps)


def _put(path: Path, steps: Sequence[str]) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    fresh = FOLDER / f"unfinished-{path.name}"
    fresh.write_text("".join(step + "\n" for step in steps), encoding="utf-8")
    fresh.rename(path)


def _read(path: Path) -> Call:
    record = json.loads(path.read_bytes())
    text = record["list"]
    return Call(
        kind=record["kind"],
        arguments=record["argv"],
        environment=record["environment"],
        directory=record["directory"],
        pid=record["pid"],
        parent=record["parent"],
        session=record["session"],
        group=record["group"],
        uid=record["uid"],
        umask=int(record["umask"], 8),
        blocked_signals=int(record["blocked"], 16),
        ignored_signals=int(record["ignored"], 16),
        descriptors={
            int(number): (target, flags)
            for number, (target, flags) in record["descriptors"].items()
        },
        names=None if text is None else text.splitlines(),
        list_text=text,
        list_mode=stat.S_IMODE(record["list_mode"]),
        time=record["time"],
        started=record["started"],
    )
