"""The real daemon under test: its fixed places, configuration, start, files and end.

Everything here touches the daemon's own fixed paths, so it is used inside tests/support/sandbox.

    write_configuration({"logfile": LOG_FILE}, [Detector("1", "127.0.0.1", "/", "/srv/images")])
    install_password_file()
    install_copy_program(Path(os.environ["CONFIRMING_RSYNC_BINARY"]))
    with Daemon() as daemon:            # the binary named by the variable SKARN_BINARY
        daemon.start()                  # returns once the start command has ended and it detached
        daemon.wait_for_log("Copied ")  # every wait has a limit and fails with what was there
        daemon.end()                    # SIGTERM, and its exit status as subprocess gives it
"""

from __future__ import annotations

import os
import re
import shlex
import shutil
import signal
import subprocess
from collections.abc import Callable, Iterable, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType

from support import processes
from support.waiting import LIMIT, wait_until

VERSION = "3.7.1"
CONFIGURATION = Path("/etc/skarn_orbelin.conf")
SECOND_CONFIGURATION = Path("/etc/skarn_orbelin/skarn_orbelin.conf")
PASSWORD_FILE = Path("/usr/local/orbelin/etc/rsyncd.secrets_remote")
COPY_PROGRAM = Path("/usr/local/orbelin/bin/rsync_orbelin")
PID_FILE = Path("/var/run/skarn_orbelin.pid")
STATUS_FILE = Path("/var/run/skarn_orbelin.stat")
FIFO = Path("/var/run/vantrel_orbelin_files")
LISTING_ERRORS = Path("/tmp/skarn_error.log")
FILE_LISTS = "file_list_"  # how the names of the file lists in /tmp begin

# Where tests put the log, unless they try another place.
LOG_FILE = Path("/srv/log/skarn.log")

# Where an instrumented daemon leaves its complaints: its standard error is closed.
REPORTS = Path("/var/lib/skarn-sanitizer")


@dataclass(frozen=True)
class Detector:
    """One detector block of the configuration; a field that is None is left out of the file."""

    id: str | None
    address: str | None = "127.0.0.1"
    source: str | None = "/"
    target: str | None = "/srv/images"
    minpause: int | None = 20
    interrun_pause: int | None = 0

    def lines(self) -> list[str]:
        """The block's lines, "detectorID" first."""
        values = {
            "detectorID": self.id,
            "remoteIP": self.address,
            "source": self.source,
            "target": self.target,
            "minpause": self.minpause,
            "interrun_pause": self.interrun_pause,
        }
        return [f"{key} {value}" for key, value in values.items() if value is not None]


@dataclass(frozen=True)
class Start:
    """What the command that started the daemon left: its status and what it printed."""

    status: int
    output: str
    errors: str


def write_configuration(
    settings: Mapping[str, object] | None = None,
    detectors: Iterable[Detector] = (),
    path: Path = CONFIGURATION,
) -> None:
    """Writes a configuration file: the global keys as given (by default the log file), then the
    detectors. The log file's folder is made if it is missing.
    """
    chosen = {"logfile": LOG_FILE} if settings is None else settings
    lines = [f"{key} {value}" for key, value in chosen.items()]
    for detector in detectors:
        lines += ["", *detector.lines()]
    write_raw_configuration("\n".join(lines) + "\n", path)
    if "logfile" in chosen:
        Path(str(chosen["logfile"])).parent.mkdir(parents=True, exist_ok=True)


def write_raw_configuration(text: str | bytes, path: Path = CONFIGURATION) -> None:
    """Writes a configuration file as it stands."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(text if isinstance(text, bytes) else text.encode())


def install_password_file(password: str = "known to the sandbox only") -> None:
    """Puts the password file in its place, readable by its owner alone, as rsync wants it."""
    PASSWORD_FILE.parent.mkdir(parents=True, exist_ok=True)
    PASSWORD_FILE.touch(mode=0o600)
    PASSWORD_FILE.chmod(0o600)
    PASSWORD_FILE.write_text(password + "\n", encoding="utf-8")


def install_copy_program(program: Path, mode: int = 0o755) -> None:
    """Copies `program` to where the daemon looks for its copy program, in one step."""
    COPY_PROGRAM.parent.mkdir(parents=True, exist_ok=True)
    fresh = COPY_PROGRAM.with_name(COPY_PROGRAM.name + ".new")
    shutil.copyfile(program, fresh)
    fresh.chmod(mode)
    fresh.rename(COPY_PROGRAM)


def file_lists() -> list[Path]:
    """The file lists that are in /tmp now, sorted by name."""
    return sorted(path for path in Path("/tmp").iterdir() if path.name.startswith(FILE_LISTS))


def sanitizer_of(binary: Path) -> str | None:
    """Which sanitizer a binary was built with: "asan", "tsan" or None."""
    content = binary.read_bytes()
    for mark, name in ((b"__asan_init", "asan"), (b"__tsan_init", "tsan")):
        if mark in content:
            return name
    return None


def sanitizer_environment(leak_check: bool = True) -> dict[str, str]:
    """Has an instrumented program leave its complaints where sanitizer_reports finds them."""
    REPORTS.mkdir(mode=0o777, parents=True, exist_ok=True)
    REPORTS.chmod(0o777)
    options = f"log_path={REPORTS}/report:exitcode=99"
    return {
        "ASAN_OPTIONS": f"{options}:detect_leaks={int(leak_check)}",
        "UBSAN_OPTIONS": options + ":print_stacktrace=1",
        "TSAN_OPTIONS": options + ":second_deadlock_stack=1",
    }


def sanitizer_reports() -> str:
    """What instrumented programs complained about so far; empty is good."""
    if not REPORTS.is_dir():
        return ""
    return "".join(
        f"{path.name}:\n{path.read_text(encoding='utf-8', errors='replace')}\n"
        for path in sorted(REPORTS.iterdir())
        if path.stat().st_size > 0
    )


def runs(binary: Path, one: processes.Process) -> bool:
    """Whether a process that was adopted runs this binary, by itself or within what watches it.

    A program that watches has a name of its own. What else may be adopted are the children of an
    earlier daemon that was killed.
    """
    if "SKARN_WRAPPER" in os.environ:
        return one.name not in ("sh", "rsync", COPY_PROGRAM.name)
    return one.name == binary.name[:15]


class Daemon:
    """One daemon, from the command that starts it to its exit status.

    Not responsible for the configuration, the password file and the copy program: the test puts
    them in place first. Leaving a `with` block kills the daemon if it still runs; its copy
    processes are sessions of their own and are left to end by themselves.
    """

    def __init__(self, binary: Path | None = None, log_file: Path = LOG_FILE) -> None:
        """`binary` defaults to the one named by the environment variable SKARN_BINARY; `log_file`
        is where the configuration lets it log, for the functions that read it.
        """
        self.binary = Path(os.environ["SKARN_BINARY"]) if binary is None else binary
        self.log_file = log_file
        self.sanitizer = sanitizer_of(self.binary)
        self._pid: int | None = None
        self._status: int | None = None

    def start(
        self,
        *arguments: str,
        environment: Mapping[str, str] | None = None,
        directory: str | Path = "/",
        closed: Sequence[int] = (),
        user: int | None = None,
        umask: int = -1,
        wrapper: Sequence[str] = (),
        leak_check: bool = True,
        timeout: float = LIMIT,
    ) -> Start:
        """Runs the start command and returns what it left once it has ended.

        `environment` is added to a minimal one (PATH alone). `closed` names standard descriptors
        that the command starts without. `user` (also the group's id) and `umask` are set for it.
        `wrapper` is a command that runs the rest of its arguments, for instance prlimit.
        `leak_check` matters to instrumented builds only: whether memory that nothing refers to at
        the end is a complaint.

        This process adopts the daemon, so its status can be had. When the command detached a
        daemon, `pid` knows it from now on, also when it has ended already.
        """
        processes.adopt_orphans()
        before = {each.pid for each in processes.children()}
        binary = self.binary if user is None else self._binary_for_everybody()
        # Whatever watches the daemon (scripts/helgrind.sh) does so closest to it.
        watcher = shlex.split(os.environ.get("SKARN_WRAPPER", ""))
        command = [*wrapper, *watcher, str(binary), *arguments]
        if closed:
            shell = 'exec "$0" "$@"' + "".join(f" {number}>&-" for number in closed)
            command = ["/bin/sh", "-c", shell, *command]
        self._pid, self._status = None, None
        run = subprocess.Popen(
            command,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            cwd=directory,
            env=self._environment(environment or {}, leak_check),
            user=user,
            group=user,
            extra_groups=[] if user is not None else None,
            umask=umask,
        )
        try:
            output, errors = run.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            run.kill()
            raise AssertionError(
                "the start command, or a daemon that kept its output open, did not let go"
            ) from None
        adopted = [
            each.pid
            for each in processes.children()
            if each.pid not in before and runs(binary, each)
        ]
        assert len(adopted) <= 1, f"one start left {len(adopted)} daemons"
        if adopted:
            self._pid = adopted[0]
        return Start(run.returncode, output.decode(), errors.decode())

    @property
    def pid(self) -> int:
        """The daemon's process id, also after its end."""
        assert self._pid is not None, "the start command left no daemon behind"
        return self._pid

    @property
    def detached(self) -> bool:
        """Whether the last start command left a daemon behind (it may have ended since)."""
        return self._pid is not None

    def is_running(self) -> bool:
        """Whether the daemon has not ended yet."""
        if self._pid is None or self._status is not None:
            return False
        found = processes.process(self._pid)
        return found is not None and not found.is_zombie

    def wait_ended(self, timeout: float = LIMIT) -> int:
        """The daemon's exit status once it has ended; -N when signal N ended it."""
        if self._status is None:
            pid = self.pid

            def ended() -> bool:
                found, status = os.waitpid(pid, os.WNOHANG)
                if found == 0:
                    return False
                self._status = os.waitstatus_to_exitcode(status)
                return True

            wait_until(ended, "the daemon to end", timeout)
        assert self._status is not None
        return self._status

    def send_signal(self, number: int) -> None:
        """Sends the daemon (alone) a signal."""
        assert self.is_running(), "the daemon does not run"
        os.kill(self.pid, number)

    def end(self, number: int = signal.SIGTERM) -> int:
        """Ends the daemon by a signal; returns its status as `wait_ended` does."""
        self.send_signal(number)
        return self.wait_ended()

    def __enter__(self) -> Daemon:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        if self.is_running():
            self.end(signal.SIGKILL)

    # What it left in its files.

    def log(self) -> str:
        """The log as it is now; empty while it does not exist. Odd bytes come as surrogates."""
        try:
            return self.log_file.read_bytes().decode("utf-8", "surrogateescape")
        except FileNotFoundError:
            return ""

    def archived_log(self) -> str:
        """The whole log, the archives that rotation made first, the oldest of them at the start.

        While the daemon rotates, a file may be missing from the result or stand in it twice.
        """
        numbered = []
        for path in self.log_file.parent.glob(self.log_file.name + ".*"):
            if path.suffix[1:].isdigit():
                numbered.append((int(path.suffix[1:]), path))
        content = b""
        for _, path in sorted(numbered, reverse=True):
            try:
                content += path.read_bytes()
            except FileNotFoundError:
                continue  # moved on
        return content.decode("utf-8", "surrogateescape") + self.log()

    def wait_for_log(self, text: str, count: int = 1, timeout: float = LIMIT) -> str:
        """Waits until `text` stands in the log `count` times; returns the log."""
        return self._wait_for_log(text, lambda log: log.count(text) >= count, timeout)

    def wait_for_log_match(self, pattern: str, timeout: float = LIMIT) -> re.Match[str]:
        """Waits until the log matches a regular expression (multi-line); returns the match."""
        expression = re.compile(pattern, re.MULTILINE)
        log = self._wait_for_log(pattern, lambda text: expression.search(text) is not None, timeout)
        found = expression.search(log)
        assert found is not None
        return found

    def pids_in_file(self) -> list[int]:
        """The process ids in the PID file, the daemon's first; empty while it has none."""
        try:
            return [int(word) for word in PID_FILE.read_text(encoding="ascii").split()]
        except (FileNotFoundError, ValueError):
            return []  # not there yet, or in the middle of being rewritten

    def wait_for_pids(self, count: int, timeout: float = LIMIT) -> list[int]:
        """Waits until the PID file holds `count` ids (the daemon's included) and returns them."""

        def wanted() -> list[int]:
            pids = self.pids_in_file()
            return pids if len(pids) == count else []

        return wait_until(
            wanted,
            lambda: f"{count} pids in the PID file, which has {self.pids_in_file()}",
            timeout,
        )

    def _wait_for_log(
        self, what: str, good: Callable[[str], bool], timeout: float
    ) -> str:
        seen = ""

        def look() -> bool:
            nonlocal seen
            seen = self.log()
            return good(seen)

        wait_until(look, lambda: f"{what!r} in the log, which ends:\n{seen[-3000:]}", timeout)
        return seen

    def _binary_for_everybody(self) -> Path:
        """A copy of the binary that any user can run, wherever the project lies."""
        copy = Path("/usr/local/sbin") / self.binary.name
        copy.parent.mkdir(mode=0o755, parents=True, exist_ok=True)
        shutil.copyfile(self.binary, copy)
        copy.chmod(0o755)
        return copy

    def _environment(self, wanted: Mapping[str, str], leak_check: bool) -> dict[str, str]:
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}
        if self.sanitizer is not None or "SKARN_WRAPPER" in os.environ:
            environment.update(sanitizer_environment(leak_check))
        return {**environment, **wanted}
