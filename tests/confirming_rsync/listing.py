"""A daemon's cycles around the copy program: listings and copies of a scripted share."""

from __future__ import annotations

import json
import os
import signal
import subprocess
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from confirming_rsync.program import (
    FILE_LIST,
    OPTIONS,
    TARGET,
    URL,
    Program,
    Result,
    names,
    scripted_binary,
    scripted_rsync,
)
from support import boot, processes
from support.waiting import wait_until

JOURNALS = Path("/var/lib/skarn/journal")
CALLED = Path("/srv/called")

LISTING = ["-mrlDHW", "--list-only", "--exclude=**.tmp", "--password-file=/p"]
ROOT_ENTRY = "drwxr-xr-x             40 2026/01/01 00:00:00 ."
REMINDER = "/rsync_orbelin:recovery"

# Of a call without names, nothing is copied: it lists the share. With names it copies them, is
# asked about them, or is the second pass, which removes what is at the target.
PRELUDE = """#!/usr/bin/python3 -IB
import json, os, sys, time
named = "--files-from=-" in sys.argv
kind = "copying" if named else "listing"
if named and "--list-only" in sys.argv:
    kind = "asked"
elif "--temp-dir=/proc" in sys.argv:
    kind = "removing"
given = sys.stdin.buffer.read().decode("latin-1") if named else ""
mine = given.split("\\0")[:-1]
record = json.dumps({"kind": kind, "arguments": sys.argv[1:], "input": given})
with open("CALLED", "ab", 0) as file:
    file.write(record.encode() + b"\\n")
def out(text):
    os.write(1, text if isinstance(text, bytes) else text.encode("latin-1"))
def err(text):
    os.write(2, text if isinstance(text, bytes) else text.encode("latin-1"))
def show(*names):
    for name in names:
        out("-rw-r--r--              0 2026/01/01 00:00:00 %s\\n" % name)
def missing(name):
    err('rsync: [sender] link_stat "/%s" (in ramdisk) failed: ' % name)
    err("No such file or directory (2)\\n")
def receive(*names):
    for name in names:
        path = os.path.join(b"TARGET", name.encode("latin-1"))
        os.makedirs(os.path.dirname(path), exist_ok=True)
        open(path, "a").close()
        out("SENT: %s\\n" % name)
def remove(*names):
    for name in names:
        out("sender removed %s\\n" % name)
"""

MOVE = "receive(*mine)\nremove(*mine)"
RECEIVE = "receive(*mine)"
WAIT = "\ntime.sleep(60)"


def script(
    copying: str = MOVE,
    *,
    removing: str = "remove(*mine)",
    asked: str = "sys.exit(10)",
    listing: str = "pass",
) -> None:
    """Installs an rsync that records its call and then does what its kind of call is to do."""
    body = PRELUDE.replace("CALLED", str(CALLED)).replace("TARGET", str(TARGET))
    parts = {"copying": copying, "removing": removing, "asked": asked, "listing": listing}
    for kind, part in parts.items():
        body += f"if kind == {kind!r}:\n"
        body += "".join(f"    {line}\n" for line in part.splitlines())
    path = scripted_rsync()
    path.parent.mkdir(parents=True, exist_ok=True)
    fresh = path.with_suffix(".new")
    fresh.write_text(body, encoding="utf-8")
    fresh.chmod(0o755)
    fresh.rename(path)


def called(kind: str = "") -> list[dict[str, Any]]:
    """The calls of the scripted rsync, in order; only those of one kind if that is given."""
    if not CALLED.exists():
        return []
    records = [json.loads(line) for line in CALLED.read_text("utf-8").splitlines()]
    return [record for record in records if kind in ("", record["kind"])]


def found(pattern: str) -> list[Path]:
    """The files of that name in all folders of journals."""
    return sorted(JOURNALS.glob(f"*/*/{pattern}"))


def journals() -> list[Path]:
    """The journals of all runs that no listing has settled."""
    return found("run-*")


def recovered(result: Result) -> list[str]:
    """The names that the run announced for an earlier one."""
    beginning = "CONFIRMED: recovered "
    return [line[len(beginning) :] for line in result.lines if line.startswith(beginning)]


def remarks(result: Result) -> list[str]:
    """What the program itself had to say."""
    return [line for line in result.lines if line.startswith("rsync_orbelin: ")]


def kill(program: Program) -> Result:
    """Ends a run as nothing else does."""
    program.signal(signal.SIGKILL)
    return program.finish()


def copy(target: Path = TARGET, source: str = URL, before: Sequence[str] = ()) -> Program:
    """A copy run of the list; `before` is a command that starts it."""
    call: list[str | bytes] = [*before, str(scripted_binary()), *OPTIONS, source, f"{target}/"]
    target.mkdir(parents=True, exist_ok=True)
    return Program(Path(str(call[0])), call[1:])


def list_share(*, before: Sequence[str] = (), source: str = URL) -> Result:
    """The daemon's listing of the share."""
    call: list[str | bytes] = [*before, str(scripted_binary()), *LISTING, source]
    return Program(Path(str(call[0])), call[1:]).finish()


def reminders(result: Result) -> int:
    """How often the listing names what makes the daemon start a copy run."""
    return sum(line.split()[4:] == [REMINDER] for line in result.lines)


def end_cycle() -> None:
    """The daemon removes the list."""
    FILE_LIST.unlink(missing_ok=True)


@dataclass(frozen=True)
class Cycle:
    """What one cycle came to; without an entry in the listing no copy is run."""

    listing: Result
    copying: Result | None

    @property
    def recovered(self) -> list[str]:
        """What it announced for earlier runs."""
        return recovered(self.copying) if self.copying else []

    @property
    def confirmed(self) -> list[str]:
        """What it announced of its own."""
        return self.copying.confirmed if self.copying else []

    @property
    def remarks(self) -> list[str]:
        """What the copy program had to say."""
        return remarks(self.copying) if self.copying else []


def cycle(*shown: str, copying: str = MOVE, target: Path = TARGET) -> Cycle:
    """A whole cycle of the daemon: the listing, then the copy of what it shows, and no more."""
    end_cycle()
    script(copying, listing=f"show(*{shown!r})")
    listing = list_share()
    entries = [line.split(maxsplit=4)[4] for line in listing.lines]
    assert listing.status == 0 and [each for each in entries if each != REMINDER] == [*shown]
    if not entries:
        return Cycle(listing, None)
    names(*entries)
    result = copy(target).finish()
    end_cycle()
    return Cycle(listing, result)


def broken_run(*listed: str, copying: str = RECEIVE, shows: str = "") -> None:
    """A run that has received everything, and removed it as far as is known, is killed. Its cycle
    is over."""
    end_cycle()
    names(*listed)
    script(copying + WAIT)
    program = copy()
    program.read_until(shows or f"SENT: {listed[-1]}\n")
    # The journal is written a moment after the reader has got the line.
    kill(program)
    end_cycle()


class OtherDaemon:
    """Another process that starts a run, and can be killed while the run goes on or after it."""

    CODE = """
import os, sys
child = os.posix_spawn(sys.argv[2], sys.argv[2:], {"RSYNC_UID": "", "RSYNC_GID": ""})
with open(sys.argv[1] + ".new", "w") as file:
    file.write(str(child))
os.rename(sys.argv[1] + ".new", sys.argv[1])
os.waitpid(child, 0)
os.read(0, 1)
"""

    def __init__(self) -> None:
        pid_file = Path("/srv/started")
        pid_file.unlink(missing_ok=True)
        TARGET.mkdir(parents=True, exist_ok=True)
        call: list[str | Path] = [scripted_binary(), *OPTIONS, URL, f"{TARGET}/"]
        self.process = subprocess.Popen(
            ["/usr/bin/python3", "-Ic", self.CODE, pid_file, *call],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        wait_until(pid_file.exists, "the run's start")
        self.run_pid = int(pid_file.read_text("ascii"))

    def wait_for_run(self) -> None:
        """Waits until the run has ended by itself."""
        wait_until(lambda: processes.process(self.run_pid) is None, "the run's end")

    def die(self) -> None:
        """Ends the daemon, and with it the reader of what the run reports."""
        self.process.kill()
        self.process.wait(10)
        assert self.process.stdin and self.process.stdout
        self.process.stdin.close()
        self.process.stdout.close()


@contextmanager
def other_boot(identity: str = "0f0f0f0f-1111-2222-3333-444444444444") -> Iterator[None]:
    """The machine after its next start, as far as it tells."""
    boot.pretend(identity)
    try:
        yield
    finally:
        boot.end_pretence()


@contextmanager
def mounted(place: Path, *options: str) -> Iterator[None]:
    """A file system in memory of its own, until the end of the block."""
    place.mkdir(parents=True, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", *options, "tmpfs", place], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", place], check=True)


def strace(*options: str, log: str = "/srv/strace") -> list[str]:
    """A command that starts another one as its parent's own child, and tampers with its system
    calls or writes them down."""
    # The search for leaks does not work under a tracer.
    return ["/usr/bin/strace", "-D", "-E", "ASAN_OPTIONS=detect_leaks=0", "-o", log, *options]
