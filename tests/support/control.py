"""skarnctl as a test runs it, and processes that are none of the daemon's and must stay unharmed."""

from __future__ import annotations

import json
import os
import signal
import subprocess
import sys
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from support import dead_file_system, processes
from support.daemon import PID_FILE, REPORTS, sanitizer_of
from support.waiting import LIMIT, wait_until

LOCK_FILE = Path("/var/run/skarnctl.lock")
LAST_PID = Path("/proc/sys/kernel/ns_last_pid")

# Above every limit that skarnctl sets itself in these tests.
PATIENCE = 2 * LIMIT

# Notes every signal that can be noted; the two that can't would end or stop it for all to see.
VICTIM = """
import os, signal, sys, time
record = sys.argv[1]
def note(number, frame):
    with open(record, "a") as file:
        file.write(f"{number}\\n")
for number in signal.valid_signals():
    try:
        signal.signal(number, note)
    except (OSError, ValueError):
        pass
open(record, "a").close()
os.rename(record, record + ".ready")
record += ".ready"
while True:
    time.sleep(1000)
"""


@dataclass(frozen=True)
class Result:
    """What one run of skarnctl left."""

    status: int
    output: str
    errors: str

    @property
    def complaint(self) -> str:
        """The one line of standard error that a failure has, without its beginning."""
        assert self.errors.startswith("skarnctl: ") and self.errors.count("\n") == 1, self
        return self.errors.removeprefix("skarnctl: ").rstrip("\n")

    @property
    def json(self) -> Any:
        """The output read as JSON."""
        return json.loads(self.output)


def binary() -> Path:
    """The skarnctl under test."""
    return Path(os.environ["SKARNCTL_BINARY"])


def environment() -> dict[str, str]:
    """A minimal environment, in which an instrumented daemon has a place for its complaints."""
    found = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}
    if sanitizer_of(binary()) is not None:
        REPORTS.mkdir(mode=0o777, parents=True, exist_ok=True)
        REPORTS.chmod(0o777)
        options = f"log_path={REPORTS}/report:exitcode=99"
        found["ASAN_OPTIONS"] = f"{options}:detect_leaks={int(not dead_file_system.is_mounted())}"
        found["UBSAN_OPTIONS"] = options + ":print_stacktrace=1"
        found["TSAN_OPTIONS"] = options + ":second_deadlock_stack=1"
    return found


def begin(
    *words: str | bytes,
    wrapper: Sequence[str] = (),
    variables: Mapping[str, str] | None = None,
    user: int | None = None,
) -> subprocess.Popen[str]:
    """Starts skarnctl with these words and returns at once."""
    return subprocess.Popen(
        [*wrapper, str(binary()), *words],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        encoding="utf-8",
        errors="surrogateescape",
        cwd="/",
        env={**environment(), **(variables or {})},
        user=user,
        group=user,
        extra_groups=[] if user is not None else None,
    )


def finish(run: subprocess.Popen[str], timeout: float = PATIENCE) -> Result:
    """Waits for a run of skarnctl to end, and for whatever it left to close its output."""
    try:
        output, errors = run.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        run.kill()
        output, errors = run.communicate()
        raise AssertionError(f"skarnctl did not end; it had said: {output}{errors}") from None
    return Result(run.returncode, output, errors)


def skarnctl(
    *words: str | bytes,
    wrapper: Sequence[str] = (),
    variables: Mapping[str, str] | None = None,
    user: int | None = None,
    timeout: float = PATIENCE,
) -> Result:
    """Runs skarnctl with these words."""
    return finish(begin(*words, wrapper=wrapper, variables=variables, user=user), timeout)


def pids_in_file() -> list[int]:
    """The numbers in the PID file, the daemon's first."""
    return [int(word) for word in PID_FILE.read_text(encoding="ascii").split()]


def start_daemon(*words: str) -> int:
    """Starts the daemon with skarnctl, which must succeed; returns its number."""
    result = skarnctl("start", *words)
    assert result.status == 0 and result.errors == "", result
    pid = pids_in_file()[0]
    assert result.output == f"skarn started, process {pid}\n"
    return pid


def start_beside() -> int:
    """Starts a daemon by hand, as skarnctl would not: beside another one, say. Its number."""
    subprocess.run([str(binary().with_name("skarn"))], check=True)
    wait_until(lambda: PID_FILE.exists() and PID_FILE.stat().st_size > 0, "its PID file")
    return pids_in_file()[0]


def is_running(pid: int) -> bool:
    """Whether a process of that number runs."""
    found = processes.process(pid)
    return found is not None and not found.is_zombie


def wait_gone(pid: int) -> None:
    """Waits until no process of that number runs, and until none has it."""

    def gone() -> bool:
        processes.reap()
        return processes.process(pid) is None

    wait_until(gone, f"process {pid} to go")


class Victim:
    """A process that has nothing to do with the daemon and notes every signal that it gets."""

    def __init__(
        self,
        *words: str,
        leader: bool = True,
        program: Path = Path(sys.executable),
        pid: int | None = None,
    ) -> None:
        """`words` end its command line; `leader` of a session of its own; `program` is a Python
        interpreter; with `pid` it gets that very number.
        """
        Victim._count += 1
        record = Path("/srv") / f"victim-{Victim._count}"
        command = [str(program), "-c", VICTIM, str(record), *words]
        self._process = (
            subprocess.Popen(command, start_new_session=leader)
            if pid is None
            else spawn_with_pid(command, pid, leader)
        )
        self._record = record.with_name(record.name + ".ready")
        wait_until(self._record.exists, "the victim to be ready")

    _count = 0

    @property
    def pid(self) -> int:
        """Its number."""
        return self._process.pid

    def check(self) -> None:
        """Asserts that it lives, is not stopped, and got no signal."""
        assert self._process.poll() is None, f"the victim ended with {self._process.returncode}"
        found = processes.process(self.pid)
        assert found is not None and found.state in "SR", found
        assert self._record.read_text(encoding="ascii") == ""

    def end(self) -> None:
        """Ends it."""
        self._process.kill()
        self._process.wait(timeout=LIMIT)


def spawn_with_pid(
    command: Sequence[str], pid: int, leader: bool = True
) -> subprocess.Popen[bytes]:
    """Starts a command as the process of this number, which must be free."""
    for _ in range(50):
        LAST_PID.write_text(str(pid - 1), encoding="ascii")
        process = subprocess.Popen(command, start_new_session=leader)
        if process.pid == pid:
            return process
        process.kill()
        process.wait(timeout=LIMIT)
    raise AssertionError(f"no process got the number {pid}")


def kill_daemon(pid: int) -> None:
    """Ends a daemon by a signal that leaves it no time, and waits until its number is free: a
    listing in its session holds that, too.
    """
    os.kill(pid, signal.SIGKILL)
    wait_gone(pid)

    def free() -> bool:
        processes.reap()
        return not any(pid in (one.session, one.group) for one in processes.processes())

    wait_until(free, f"the number {pid} to be free")
