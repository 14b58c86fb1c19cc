"""The copy program as the daemon runs it, and a scripted rsync for it to drive."""

from __future__ import annotations

import json
import os
import select
import signal
import subprocess
import time
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from support import daemon
from support.processes import is_stopped
from support.rsync_server import MODULE
from support.waiting import LIMIT, wait_until

TARGET = Path("/srv/target")
FILE_LIST = Path("/tmp/file_list")
CALLS = Path("/srv/calls")

OPTIONS = [
    "-vthlDHW",
    "--remove-source-files",
    "--numeric-ids",
    "--confirm-files",
    "--out-format=SENT: %n",
    f"--password-file={daemon.PASSWORD_FILE}",
    f"--files-from={FILE_LIST}",
]
URL = f"rsync://root@127.0.0.1:49371/{MODULE}/"

# What the program hands on of OPTIONS, and what it puts in front. The names come on the input.
ACCESS = ["--8-bit-output", "--contimeout=30", "--sockopts=TCP_NODELAY", "--no-motd"]
ADDED = ["--from0", "--files-from=-", "--modify-window=-1", *ACCESS, "--info=remove1"]
KEPT = [
    option
    for option in OPTIONS
    if option != "--confirm-files" and not option.startswith("--files-from")
]

LISTING = ["-mrlDHW", "--list-only", "--exclude=**.tmp"]

# What a listing gets when there is something to announce, and what the daemon makes of that line.
REMINDER_LINE = "-rw-r--r--              0 1970/01/01 00:00:00 /rsync_orbelin:recovery"
REMINDER = "/rsync_orbelin:recovery"

JOURNALS = Path("/var/lib/skarn/journal")

DAEMON_ENVIRONMENT = {"RSYNC_UID": "", "RSYNC_GID": ""}


def real_binary() -> Path:
    """The program that drives stock rsync."""
    return Path(os.environ["CONFIRMING_RSYNC_BINARY"])


def scripted_binary() -> Path:
    """The same program built for the path of the scripted rsync."""
    return Path(os.environ["CONFIRMING_RSYNC_SCRIPTED_BINARY"])


def scripted_rsync() -> Path:
    """Where the scripted rsync has to be."""
    return Path(os.environ["SCRIPTED_RSYNC"])


def measures_memory() -> bool:
    """False for an instrumented program: what that takes is mostly the sanitizer's."""
    return daemon.sanitizer_of(scripted_binary()) is None


PRELUDE = """#!/usr/bin/python3 -IB
import json, os, signal, sys, time
fds = {int(n): os.readlink("/proc/self/fd/" + n) for n in os.listdir("/proc/self/fd")
       if os.path.exists("/proc/self/fd/" + n)}
environment = dict(e.split("=", 1) for e in open("/proc/self/environ").read().split("\\0") if e)
asking = "--list-only" in sys.argv
given = sys.stdin.buffer.read().decode("latin-1") if 0 in fds else ""
record = {"arguments": sys.argv, "environment": environment, "descriptors": fds, "input": given,
          "pid": os.getpid(), "group": os.getpgid(0), "time": time.monotonic()}
folder = "CALLS"
os.makedirs(folder, exist_ok=True)
name = folder + "/%d" % len([n for n in os.listdir(folder) if "." not in n])
with open(name + ".new", "w") as file:
    json.dump(record, file)
os.rename(name + ".new", name)
absent = set()
def put(name):
    path = os.path.join(os.fsencode(sys.argv[-1]), name)
    listed = {entry.split("/./")[-1] for entry in given.split("\\0")}
    if name.decode("latin-1") in listed - absent and not os.path.lexists(path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        open(path, "w").close()
def out(text):
    raw = text if isinstance(text, bytes) else text.encode("latin-1")
    for line in raw.split(b"\\n"):
        if line.startswith(b"sender removed "):
            put(line[15:])
    os.write(1, raw)
def err(text):
    os.write(2, text if isinstance(text, bytes) else text.encode("latin-1"))
def missing(path):
    err('rsync: [sender] link_stat "%s" (in ramdisk) failed: ' % path)
    err("No such file or directory (2)\\n")
if not asking:
"""


def script_rsync(copying: str, asked: str = "sys.exit(10)") -> None:
    """Installs an rsync that records its call and then does what the two pieces of Python say.

    `copying` runs in the copy, `asked` when it is to list the share, or asked what is still there.
    Both can use out(), err() and missing(), and `given`, the text on the standard input. What
    out() reports as removed is in place by then, unless `absent` has its name.
    """
    body = PRELUDE.replace("CALLS", str(CALLS))
    body += "\n".join("    " + line for line in copying.splitlines()) + "\n"
    body += "    sys.exit(0)\n" + asked + "\n"
    path = scripted_rsync()
    path.parent.mkdir(parents=True, exist_ok=True)
    fresh = path.with_suffix(".new")
    fresh.write_text(body, encoding="utf-8")
    fresh.chmod(0o755)
    fresh.rename(path)


def calls() -> list[dict[str, Any]]:
    """How the scripted rsync was called, in order."""
    if not CALLS.is_dir():
        return []
    found = sorted((path for path in CALLS.iterdir() if not path.suffix), key=lambda p: int(p.name))
    return [json.loads(path.read_text(encoding="utf-8")) for path in found]


def names(*listed: str | bytes) -> None:
    """Writes the list of names to be copied."""
    raw = [name if isinstance(name, bytes) else os.fsencode(name) for name in listed]
    FILE_LIST.write_bytes(b"".join(name + b"\n" for name in raw))


def make_target(*files: str) -> None:
    """Puts files in place, as rsync would have."""
    for name in files:
        path = TARGET / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("content", encoding="ascii")


@dataclass(frozen=True)
class Result:
    """How a run of the program ended."""

    status: int  # negative: the signal that ended it
    report: bytes
    seconds: float

    @property
    def lines(self) -> list[str]:
        """The report's lines, bytes above 127 as surrogates."""
        return os.fsdecode(self.report).splitlines()

    @property
    def sent(self) -> list[str]:
        """The names of the SENT lines, in order."""
        return [line[6:] for line in self.lines if line.startswith("SENT: ")]

    @property
    def confirmed(self) -> list[str]:
        """The names of the CONFIRMED lines, in order."""
        return self._names_behind("CONFIRMED: removed ")

    @property
    def recovered(self) -> list[str]:
        """The names that were announced for an earlier run, in order."""
        return self._names_behind("CONFIRMED: recovered ")

    def _names_behind(self, beginning: str) -> list[str]:
        return [line[len(beginning) :] for line in self.lines if line.startswith(beginning)]


class Program:
    """One run in a session of its own: one pipe for both outputs, standard input closed."""

    def __init__(
        self,
        binary: Path,
        arguments: Sequence[str | bytes] | None = None,
        *,
        environment: dict[str, str] | None = None,
        extra: Sequence[str] = (),
        closed: Sequence[int] = (0,),
        inherited: Sequence[int] = (),
    ) -> None:
        if arguments is None:
            arguments = [*OPTIONS, *extra, URL, f"{TARGET}/"]
        if not os.path.lexists(TARGET):
            TARGET.mkdir(parents=True)
        read_end, write_end = os.pipe()
        self._begin = time.monotonic()

        def close() -> None:
            for number in closed:
                os.close(number)

        self.process = subprocess.Popen(
            [binary, *arguments],
            env=DAEMON_ENVIRONMENT if environment is None else environment,
            stdin=subprocess.DEVNULL,
            stdout=write_end,
            stderr=write_end,
            start_new_session=True,
            pass_fds=tuple(inherited),
            preexec_fn=close,
        )
        os.close(write_end)
        self._pipe: int | None = read_end
        self._report = bytearray()

    @property
    def pid(self) -> int:
        """The program's process id."""
        return self.process.pid

    def read_until(self, text: str, timeout: float = LIMIT) -> str:
        """Reads the report until `text` is in it; returns all of it so far."""
        wait_until(
            lambda: self._read_some() and os.fsencode(text) in self._report,
            lambda: f"{text!r} in the report, whose end is {bytes(self._report[-1000:])!r}",
            timeout,
        )
        return os.fsdecode(bytes(self._report))

    def read_slowly(self, size: int) -> None:
        """Reads that much of the report in all, so that more of it always waits."""
        assert self._pipe is not None
        while len(self._report) < size:
            self._report += os.read(self._pipe, 4096)
            time.sleep(0.0005)

    def close_report(self) -> None:
        """Stops being the reader of the report."""
        if self._pipe is not None:
            os.close(self._pipe)
            self._pipe = None

    def leave_report(self) -> None:
        """Stops being the reader of the report, whose pipe is empty then.

        What the pipe has taken passes for read as long as its reader lives, and this one does.
        """
        self.signal(signal.SIGSTOP)
        wait_until(lambda: is_stopped(self.pid), "the program to stop")
        self._read_some()
        self.close_report()
        self.signal(signal.SIGCONT)

    def signal(self, number: signal.Signals) -> None:
        """Sends the program a signal."""
        os.kill(self.pid, number)

    def finish(self, timeout: float = 60) -> Result:
        """Reads the report to its end and waits for the program's."""
        if self._pipe is not None:
            wait_until(lambda: not self._read_some(), "the end of the report", timeout)
        status = self.process.wait(timeout)
        seconds = time.monotonic() - self._begin
        self.close_report()
        return Result(status, bytes(self._report), seconds)

    def _read_some(self) -> bool:
        """Takes in some of what is there to read; False at the end of the report."""
        assert self._pipe is not None
        for _ in range(100):
            if not select.select([self._pipe], [], [], 0.02)[0]:
                break
            portion = os.read(self._pipe, 65536)
            if not portion:
                return False
            self._report += portion
        return True


def run(binary: Path, *extra: str, environment: dict[str, str] | None = None) -> Result:
    """A whole run of the copy."""
    return Program(binary, extra=extra, environment=environment).finish()


def list_share(binary: Path) -> Result:
    """A whole listing of the share, as the daemon has it made before each cycle."""
    return Program(
        binary, [*LISTING, f"--password-file={daemon.PASSWORD_FILE}", URL], closed=[]
    ).finish()


def journals() -> list[str]:
    """The texts of all journals of runs, in the order in which they began."""
    paths = sorted(JOURNALS.glob("*/*/run-*"), key=lambda path: path.name)
    return [os.fsdecode(path.read_bytes()) for path in paths]
