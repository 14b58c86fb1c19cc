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

DAEMON_LOG = "/var/log/skarn.log"

CONFIGURATION = f"""\
logfile {DAEMON_LOG}
logfile_max_size 10M
logfile_max_number 10

detectorID 1
remoteIP 127.0.0.1
source /
target /data/detector1
minpause 200
interrun_pause 0
"""

DETECTOR = """\
port = 49371
use chroot = yes
[ramdisk]
path = /ramdisk
read only = no
uid = root
auth users = root
secrets file = /etc/detector.secrets
max verbosity = 2
"""

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

    def main_process(self, unit: str) -> int:
        """The process that systemd takes for a unit's, 0 if it knows none."""
        return int(self.succeed(f"systemctl show --property=MainPID --value {unit}"))

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


def install(machine: Machine, *packages: str, later: bool = False) -> str:
    """Installs packages of ours with apt, from the folder and from what it fetched before."""
    names = [
        f"/root/packages/{path.name}"
        for path in sorted(machine.path("/root/packages").glob("*.deb"))
        if path.name.partition("_")[0] in packages and ("_later_" in path.name) == later
    ]
    assert len(names) == len(packages), names
    return machine.succeed(
        "DEBIAN_FRONTEND=noninteractive apt-get -q -y --no-install-recommends "
        f"install {' '.join(names)}",
        timeout=300,
    )


def start_detector(machine: Machine) -> None:
    """A detector on the machine itself, as CONFIGURATION has it."""
    machine.write("/etc/detector.conf", DETECTOR)
    machine.write("/etc/detector.secrets", "root:of this machine only\n", 0o600)
    machine.path("/ramdisk").mkdir()
    machine.start("detector", "exec rsync --daemon --no-detach --config=/etc/detector.conf")


def write_files(
    machine: Machine, folder: str, count: int, size: int, *, at_once: bool = False
) -> set[str]:
    """Lets the detector write `count` files, each renamed into place when it is whole.

    With `at_once` it is the folder that is renamed into place, so that one listing has them all.
    """
    place = f"/ramdisk/{folder}"
    written = f"/root/{folder}" if at_once else place
    machine.succeed(
        f"mkdir -p {written} && cd {written} && for i in $(seq {count}); do "
        f"head -c {size} /dev/zero >f$i.tmp && mv f$i.tmp f$i.dat; done && "
        f"{{ test {written} = {place} || mv {written} {place}; }}",
        timeout=300,
    )
    return {f"/data/detector1/./{folder}/f{i}.dat" for i in range(1, count + 1)}
