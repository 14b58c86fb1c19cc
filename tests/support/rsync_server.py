"""A real rsync daemon that exports one detector's directory."""

from __future__ import annotations

import os
import signal
import socket
import subprocess
import time
from pathlib import Path
from types import TracebackType

from support.processes import children, processes
from support.waiting import wait_until

RSYNC = "/usr/bin/rsync"
PORT = 49371
MODULE = "ramdisk"
USER = "root"
PASSWORD = "known to the sandbox only"  # what daemon.install_password_file() writes


class RsyncServer:
    """Serves `root` as the module of one detector at `address`; its own files live in `state`.

    The server changes its root to the module's, unless `chroot` says otherwise.

    `max_verbosity` of 2 lets the server tell its client what it removed; None leaves the server's
    default, with which it does not.
    """

    def __init__(
        self,
        address: str,
        root: Path,
        state: Path,
        *,
        max_verbosity: int | None = 2,
        log: bool = False,
        chroot: bool = True,
    ) -> None:
        self.address = address
        self.root = root
        self.log_file = state / f"rsyncd-{address}.log" if log else None
        self._state = state
        self.max_verbosity = max_verbosity
        self._chroot = chroot
        self._process: subprocess.Popen[bytes] | None = None

    @property
    def url(self) -> str:
        """The module's URL as a client names it, with the final slash."""
        return f"rsync://{USER}@{self.address}:{PORT}/{MODULE}/"

    @property
    def pid(self) -> int:
        """The process that accepts connections; only while it runs."""
        assert self._process is not None, "the rsync server is not running"
        return self._process.pid

    def start(self, timeout: float = 20) -> None:
        """Starts the server and returns once it accepts connections."""
        assert self._process is None, "the rsync server is running already"
        self.root.mkdir(parents=True, exist_ok=True)
        self._state.mkdir(parents=True, exist_ok=True)
        self._process = subprocess.Popen(
            [
                RSYNC,
                "--daemon",
                "--no-detach",
                f"--config={self._write_configuration()}",
                f"--address={self.address}",
                f"--port={PORT}",
            ],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            start_new_session=True,  # one signal then reaches every connection's process too
        )
        self._wait_for_port(timeout)

    def stop(self) -> None:
        """Ends the server and its connections the gentle way; does nothing if it does not run."""
        self._end(signal.SIGTERM)

    def kill(self) -> None:
        """Ends the server and its connections in the middle of whatever they do."""
        self._end(signal.SIGKILL)

    def restart(self) -> None:
        """Stops the server and starts it again."""
        self.stop()
        self.start()

    def log_text(self) -> str:
        """What the server has logged so far; empty without a log."""
        if self.log_file is None or not self.log_file.exists():
            return ""
        return self.log_file.read_text(encoding="utf-8", errors="replace")

    def connections(self) -> int:
        """How many clients the server has let into the module so far; needs the log."""
        return self.log_text().count(" allowed access on module ")

    def connection_pids(self) -> list[int]:
        """The processes that serve a client now; none while the server does not run."""
        if self._process is None:
            return []
        return [each.pid for each in children(self.pid) if not each.is_zombie]

    def __enter__(self) -> RsyncServer:
        self.start()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.kill()

    def _write_configuration(self) -> Path:
        secrets = self._state / f"rsyncd-{self.address}.secrets"
        secrets.touch(mode=0o600)
        secrets.chmod(0o600)
        secrets.write_text(f"{USER}:{PASSWORD}\n", encoding="ascii")
        lines = [
            f"use chroot = {'yes' if self._chroot else 'no'}",
            "uid = 0",
            "gid = 0",
            "read only = no",
            "reverse lookup = no",
            "socket options = SO_KEEPALIVE",
        ]
        if self.max_verbosity is not None:
            lines.append(f"max verbosity = {self.max_verbosity}")
        if self.log_file is not None:
            lines.append(f"log file = {self.log_file}")
        else:
            lines.append("log file = /dev/null")
        lines += [
            f"[{MODULE}]",
            f"path = {self.root}",
            f"auth users = {USER}",
            f"secrets file = {secrets}",
        ]
        configuration = self._state / f"rsyncd-{self.address}.conf"
        configuration.write_text("\n".join(lines) + "\n", encoding="utf-8")
        return configuration

    def _wait_for_port(self, timeout: float) -> None:
        assert self._process is not None
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            status = self._process.poll()
            if status is not None:
                self._process = None
                raise RuntimeError(f"the rsync server at {self.address} ended with {status}")
            try:
                with socket.create_connection((self.address, PORT), timeout=1):
                    return
            except OSError:
                time.sleep(0.02)
        self.kill()
        raise TimeoutError(f"the rsync server at {self.address} did not listen in {timeout} s")

    def _end(self, number: signal.Signals) -> None:
        process, self._process = self._process, None
        if process is None:
            return
        group = process.pid
        os.killpg(group, number)
        # A connection's process that is still dying may hold the port.
        wait_until(
            lambda: not any(p.group == group and not p.is_zombie for p in processes()),
            f"the rsync server at {self.address} to end",
        )
        process.wait(timeout=10)
