"""Takes what an empty cycle of the daemon costs, and what the programs that it runs cost alone.

An idle daemon lists an empty share every few milliseconds. Its floor is what no such daemon can do
without: one listing by stock rsync, started by a shell with the daemon's own command line, and one
`mkdir -p`, started directly. Since the daemon starts `mkdir` by a shell too, that is measured
beside it.

- Processor time: that of the daemon and of its children between two moments in which it sleeps,
  the cycles counted by the listings that the server logged. Of the floor it is that of the commands
  alone: what starts them is not counted, and it rests between them as long as the daemon does. All
  three ways are repeated in turn, after a round that is not counted. The server's time is in none.
  The loopback acknowledges at once: most of the time of a cycle would be waits of 40 ms for that.
- System calls: strace follows some cycles and writes down each call, with the program that made it.
  What the daemon's new process calls before it runs the shell counts as the daemon's.
"""

from __future__ import annotations

import os
import re
import resource
import shlex
import subprocess
import time
from collections import Counter
from collections.abc import Callable
from pathlib import Path

import processor_time
from results import Data
from support.bed import Station, install, make_stations
from support.consumer import Consumer
from support.daemon import COPY_PROGRAM, LISTING_ERRORS, PASSWORD_FILE, Daemon
from support.rsync_server import RSYNC
from support.waiting import wait_until

MINPAUSE = 20  # milliseconds
SHELL = "/bin/sh"
MKDIR = "/bin/mkdir"
STRACE = "/usr/bin/strace"
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}  # the one that the daemon is started in
LIMIT = 120.0

# A line of strace: process, its program, and a call that begins here (not the end of one).
CALL = re.compile(r"(\d+)<([^>]*)> +(\w+)\(")
EXECUTION = re.compile(r'execve\("([^"]+)"')
# What a cycle begins with: the shell that makes the target directory.
FIRST_COMMAND = re.compile(r'execve\("/bin/sh", \["sh", "-c", "mkdir -p ')
LISTING_COMMAND = re.compile(r'execve\("/bin/sh", \["sh", "-c", "(.*--list-only.*?)"\]')


def measure(quick: bool) -> Data:
    """Every round, and the calls of each program of each way."""
    rounds, cycles, traced = (1, 20, 3) if quick else (5, 50, 20)
    acknowledge_at_once()
    (station,) = make_stations(1, server_log=True)
    install(Path(os.environ["CONFIRMING_RSYNC_BINARY"]), [station], minpause=MINPAUSE)
    station.simulator.root.mkdir(parents=True, exist_ok=True)
    ways: dict[str, Callable[[], Data]] = {
        "daemon": lambda: idle_daemon(station, cycles),
        "floor": lambda: floor(station, cycles, through_shell=False),
        "floor with a shell": lambda: floor(station, cycles, through_shell=True),
    }
    taken: list[Data] = []
    with station.server, Consumer(nap=0.1):
        for number in range(-1, rounds):
            this = {way: run() for way, run in ways.items()}
            if number >= 0:
                taken.append(this)
        calls = {
            "daemon": calls_of_daemon(station, traced),
            "floor": calls_of_floor(station, traced, through_shell=False),
            "floor with a shell": calls_of_floor(station, traced, through_shell=True),
        }
    return {"minpause": MINPAUSE, "cycles": cycles, "rounds": taken, "traced": traced,
            "calls": calls}  # fmt: skip


def acknowledge_at_once() -> None:
    """Lets the sandbox's loopback acknowledge each packet, so that nobody waits for it."""
    route = "dev lo proto kernel scope host src 127.0.0.1 table local quickack 1"
    for network in ("127.0.0.0/8", "127.0.0.1"):
        subprocess.run(
            ["ip", "route", "replace", "local", network, *route.split()], check=True, timeout=LIMIT
        )


def idle_daemon(station: Station, cycles: int) -> Data:
    """Seconds of the daemon and of its children in so many cycles."""
    with Daemon() as daemon:
        start(daemon, station)
        begin = asleep(daemon, station)
        wait_for_cycles(station, cycles)
        end = asleep(daemon, station)
        daemon.end()
    own, children, listings = (after - before for before, after in zip(begin, end))
    return {"cycles": int(listings), "own": own, "children": children}


def start(daemon: Daemon, station: Station) -> None:
    started = daemon.start(environment=ENVIRONMENT)
    assert daemon.detached, started
    wait_for_cycles(station, 3)


def wait_for_cycles(station: Station, cycles: int) -> None:
    wanted = station.server.connections() + cycles

    def reached() -> bool:
        time.sleep(0.05)  # to look takes processor time
        return station.server.connections() >= wanted

    wait_until(reached, "empty cycles", LIMIT)


def asleep(daemon: Daemon, station: Station) -> tuple[float, float, float]:
    """The daemon's processor seconds, those of its children, and the listings so far, in a moment
    in which it has no child: all that the counted cycles took is in it.
    """

    def look() -> tuple[float, float, float] | None:
        if has_children(daemon.pid):
            return None
        seen = (
            processor_time.of_process(daemon.pid),
            processor_time.of_children(daemon.pid),
            station.server.connections(),
        )
        return None if has_children(daemon.pid) else seen

    found = wait_until(look, "a moment in which the daemon sleeps", LIMIT)
    assert found is not None
    return found


def has_children(pid: int) -> bool:
    tasks = Path(f"/proc/{pid}/task")
    return any((tasks / task / "children").read_text() for task in os.listdir(tasks))


def listing_command(station: Station, program: str) -> str:
    return (
        f'{program} -mrlDHW --list-only --exclude="**.tmp" --password-file={PASSWORD_FILE} '
        f"{station.server.url} 2>{LISTING_ERRORS}"
    )


def floor_commands(station: Station, through_shell: bool) -> list[list[str]]:
    """What the floor starts for one cycle."""
    make = ["mkdir", "-p", f"{station.target}/."]
    return [
        [SHELL, "-c", shlex.join(make)] if through_shell else [MKDIR, *make[1:]],
        [SHELL, "-c", listing_command(station, RSYNC)],
    ]


def floor(station: Station, cycles: int, through_shell: bool) -> Data:
    """Seconds of the bare commands, so many times."""
    commands = floor_commands(station, through_shell)
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    for _ in range(cycles):
        for command in commands:
            run_into_pipe(command)
        time.sleep(MINPAUSE / 1000)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    seconds = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return {"cycles": cycles, "own": 0.0, "children": seconds}


def run_into_pipe(command: list[str]) -> None:
    """Runs a command to its end and takes its output, with as little effort as Python can."""
    reading, writing = os.pipe()
    child = os.posix_spawn(
        command[0], command, ENVIRONMENT, file_actions=[(os.POSIX_SPAWN_DUP2, writing, 1)]
    )
    os.close(writing)
    while os.read(reading, 65536):
        pass
    os.close(reading)
    _, status = os.waitpid(child, 0)
    assert status == 0, command


def calls_of_daemon(station: Station, cycles: int) -> Data:
    """Calls by program and name in so many whole cycles of the daemon."""
    trace = Path("/srv/daemon.strace")
    with Daemon() as daemon:
        start(daemon, station)
        # It ends with the last of the processes that it follows.
        with subprocess.Popen([*strace_to(trace), "-p", str(daemon.pid)], env=ENVIRONMENT):
            try:
                wait_until(
                    lambda: len(FIRST_COMMAND.findall(text_of(trace))) > cycles + 1,
                    "cycles to be traced",
                    LIMIT,
                )
            finally:
                daemon.end()
    lines = text_of(trace).splitlines()
    firsts = [number for number, line in enumerate(lines) if FIRST_COMMAND.search(line)]
    cycle = lines[firsts[0] : firsts[cycles]]
    listings = {found[1] for line in cycle if (found := LISTING_COMMAND.search(line))}
    # The floor is only one if it lists as the daemon does.
    wanted = listing_command(station, str(COPY_PROGRAM)).replace('"', '\\"')
    assert listings == {wanted}, listings
    return by_program(cycle, cycles)


def calls_of_floor(station: Station, cycles: int, through_shell: bool) -> Data:
    """Calls by program and name of the bare commands, so many times."""
    lines: list[str] = []
    trace = Path("/srv/floor.strace")
    for _ in range(cycles):
        for command in floor_commands(station, through_shell):
            # strace's own child is the command: nothing but it is traced.
            subprocess.run(
                [*strace_to(trace), *command],
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                check=True,
                env=ENVIRONMENT,
                timeout=LIMIT,
            )
            lines += text_of(trace).splitlines()
    return by_program(lines, cycles)


def strace_to(trace: Path) -> list[str]:
    """strace of everything below a process, with the programs' names."""
    return [STRACE, "-f", "-q", "-Y", "-s", "1000", "-e", "signal=none", "-o", str(trace)]


def text_of(trace: Path) -> str:
    return trace.read_text(encoding="utf-8", errors="replace") if trace.exists() else ""


def by_program(lines: list[str], cycles: int) -> Data:
    counts: dict[str, Counter[str]] = {}
    became: dict[str, str] = {}  # strace keeps to the name that a process had first
    for line in lines:
        if not (found := CALL.match(line)):
            continue
        pid, name, call = found.groups()
        execution = EXECUTION.search(line)
        if name == "strace" and execution:
            name = Path(execution[1]).name  # the first call of all, of strace's own child
        counts.setdefault(became.get(pid, name), Counter())[call] += 1
        if execution and " = -1 " not in line:
            became[pid] = Path(execution[1]).name
    return {"cycles": cycles, "programs": {name: dict(each) for name, each in counts.items()}}
