"""A Debian machine in a folder, booted with systemd in namespaces of its own, without a network."""

from __future__ import annotations

import os
import shlex
import shutil
import signal
import subprocess
import time
from collections.abc import Callable
from pathlib import Path
from types import TracebackType

PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"


def wait_until(true: Callable[[], bool], what: str, timeout: float = 60) -> None:
    """Returns as soon as `true` gives True; fails after `timeout` seconds, saying `what` it was."""
    end = time.monotonic() + timeout
    while not true():
        assert time.monotonic() < end, f"{what}: not within {timeout:g} s"
        time.sleep(0.1)


def children(process: int) -> list[int]:
    """The children of a process' first thread; none if it has ended."""
    try:
        text = Path(f"/proc/{process}/task/{process}/children").read_text(encoding="ascii")
    except FileNotFoundError:
        return []
    return [int(child) for child in text.split()]


class Machine:
    """The machine whose files stand in `root`. Entered as a context it is booted, and ended after.

    Nothing of it is seen from outside but its files, and nothing of it outlives the context.
    """

    def __init__(self, root: Path) -> None:
        self.root = root
        self._nspawn: subprocess.Popen[bytes] | None = None
        self._leader = 0

    def __enter__(self) -> Machine:
        self._nspawn = subprocess.Popen(
            [
                "systemd-nspawn",
                "--quiet",
                "--register=no",
                "--keep-unit",
                "--private-network",
                "--console=pipe",
                "--boot",
                f"--directory={self.root}",
            ],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            start_new_session=True,
        )
        try:
            wait_until(self._find_leader, "the machine has a first process")
            wait_until(self._is_up, "the machine is up")
        except BaseException:
            self._end()
            raise
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self._end()

    def run(self, command: str, *, timeout: float = 120) -> subprocess.CompletedProcess[str]:
        """Runs a shell command as root in the machine, whatever its status is.

        Its standard error is in the standard output.
        """
        return subprocess.run(
            [*self._entry(), "sh", "-c", command],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=timeout,
            check=False,
        )

    def succeed(self, command: str, *, timeout: float = 120) -> str:
        """The same for a command that has to succeed; returns what it printed."""
        done = self.run(command, timeout=timeout)
        assert done.returncode == 0, f"{command}: status {done.returncode}\n{done.stdout}"
        return done.stdout

    def start(self, unit: str, command: str) -> None:
        """Runs a command in the background, as a unit of the machine that `systemctl` can stop."""
        self.succeed(
            f"systemd-run --quiet --collect --unit={unit} --property=KillMode=mixed "
            f"sh -c {shlex.quote(command)}"
        )

    def path(self, name: str) -> Path:
        """Where a file of the machine is seen from outside."""
        return self.root / name.lstrip("/")

    def write(self, name: str, text: str, mode: int = 0o644) -> None:
        """Makes a file, and the folders that it needs."""
        path = self.path(name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
        path.chmod(mode)

    def _entry(self) -> list[str]:
        """How a command gets into the machine."""
        return [
            *("nsenter", f"--target={self._leader}", "--all", "--root", "--wd", "--"),
            *("env", "-i", f"PATH={PATH}", "HOME=/root", "LANG=C.UTF-8", "TERM=xterm"),
        ]

    def _find_leader(self) -> bool:
        assert self._nspawn is not None
        assert self._nspawn.poll() is None, "systemd-nspawn has ended: it can't boot a machine here"
        for process in children(self._nspawn.pid):
            if Path(f"/proc/{process}/comm").read_text(encoding="utf-8") == "systemd\n":
                self._leader = process
        return self._leader != 0

    def _is_up(self) -> bool:
        state = self.run("systemctl is-system-running").stdout.strip()
        return state in ("running", "degraded")

    def _end(self) -> None:
        assert self._nspawn is not None
        # Its first process takes everything in it along.
        if self._leader != 0:
            try:
                os.kill(self._leader, signal.SIGKILL)
            except ProcessLookupError:
                pass
        else:
            self._nspawn.kill()
        self._nspawn.wait(30)


def fresh_copy(source: Path, root: Path) -> None:
    """Makes `root` a copy of the tree `source`, in place of what is there."""
    if root.exists():
        shutil.rmtree(root)
    subprocess.run(["cp", "--archive", "--reflink=auto", source, root], check=True)
