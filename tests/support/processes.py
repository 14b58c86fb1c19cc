"""The processes of a test: what they are, whose children, and how they are ended by their id."""

from __future__ import annotations

import ctypes
import os
import signal
from dataclasses import dataclass
from pathlib import Path

from support.waiting import wait_until

PR_SET_CHILD_SUBREAPER = 36


def in_sandbox() -> bool:
    """Whether this process runs inside tests/support/sandbox: its first process is the script."""
    try:
        words = Path("/proc/1/cmdline").read_bytes().split(b"\0")
    except OSError:
        return False
    return any(
        word.endswith(b"/sandbox") and following == b"--inside"
        for word, following in zip(words, words[1:])
    )


def adopt_orphans() -> None:
    """Makes this process the parent of every descendant whose own parent ends.

    So the exit status of a program that detached itself can be waited for.
    """
    if ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


@dataclass(frozen=True)
class Process:
    """What the kernel says about one process at one moment."""

    pid: int
    name: str
    state: str
    parent: int
    group: int
    session: int

    @property
    def is_zombie(self) -> bool:
        """Whether it has ended and only its status is left."""
        return self.state in "ZX"


def process(pid: int) -> Process | None:
    """The process of that id, or None when there is none."""
    try:
        text = Path(f"/proc/{pid}/stat").read_text(encoding="utf-8", errors="replace")
    except OSError:
        return None
    name, rest = text[text.index("(") + 1 : text.rindex(")")], text[text.rindex(")") + 2 :].split()
    return Process(pid, name, rest[0], int(rest[1]), int(rest[2]), int(rest[3]))


def is_stopped(pid: int) -> bool:
    """Whether a signal has stopped the process of that id until it is continued."""
    found = process(pid)
    return found is not None and found.state == "T"


def processes() -> list[Process]:
    """Every process of this pid namespace."""
    found = (process(int(entry)) for entry in os.listdir("/proc") if entry.isdigit())
    return [each for each in found if each is not None]


def children(parent: int | None = None) -> list[Process]:
    """The children (zombies included) of `parent`, by default of this process."""
    wanted = os.getpid() if parent is None else parent
    return [each for each in processes() if each.parent == wanted]


def status_field(pid: int, field: str) -> str:
    """One field of /proc/PID/status, for instance "Umask" or "SigIgn"."""
    for line in Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith(field + ":"):
            return line.partition(":")[2].strip()
    raise AssertionError(f"/proc/{pid}/status has no field {field}")


def descriptors(pid: int) -> dict[int, str]:
    """The open descriptors of a process and what they refer to."""
    found: dict[int, str] = {}
    for entry in os.listdir(f"/proc/{pid}/fd"):
        try:
            found[int(entry)] = os.readlink(f"/proc/{pid}/fd/{entry}")
        except OSError:
            continue  # closed meanwhile
    return found


def reap() -> None:
    """Takes the status of every child that has ended, adopted ones included."""
    while True:
        try:
            pid, _ = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return
        if pid == 0:
            return


def end_descendants(limit: float = 20) -> None:
    """Ends every process that descends from this one, by its id, and waits until none is left.

    Only for use inside the sandbox, where a descendant that detached itself was adopted by this
    process; anything still running is killed without a chance to clean up.
    """
    adopt_orphans()

    def none_left() -> bool:
        everyone = {each.pid: each for each in processes()}
        left = False
        for each in everyone.values():
            if _descends(each, everyone):
                left = True
                if not each.is_zombie:
                    try:
                        os.kill(each.pid, signal.SIGKILL)
                    except ProcessLookupError:
                        pass
        reap()
        return not left

    wait_until(none_left, "the processes of the test to end", limit)


def _descends(one: Process, everyone: dict[int, Process]) -> bool:
    me = os.getpid()
    seen: set[int] = set()
    current: Process | None = one
    while current is not None and current.pid not in seen:
        if current.parent == me:
            return True
        seen.add(current.pid)
        current = everyone.get(current.parent)
    return False
