"""Every system call of the relay is a point at which it may die or fail.

A small run makes a few hundred system calls, so no random moments are needed: strace ends the relay
at the first, second, ... call of each kind, or lets that call fail. Lines wait in the pipe when it
starts, and more come while it runs. Afterwards a relay is started that nothing is done to, and all
lines must be in the log once and in order, have come out of the subscriber's pipe in order, and be
counted once in their run.
"""

from __future__ import annotations

import argparse
import http.client
import os
import re
import sys
import time
from collections import Counter
from contextlib import suppress
from dataclasses import dataclass, field
from pathlib import Path

from power.crash_points import ERRORS, STRACE
from support.consumer import Consumer
from support.daemon import FIFO
from support.folders import empty
from support.relay_process import LOG, Relay, announce, make_files
from support.waiting import wait_until

PIPE = Path("/run/subscriber")
TRACE = Path("/tmp/trace")
FILES = 6
PATIENCE = 5.0
SETTINGS = f"""\
[runs]
pattern = '/(?P<run>f)(?P<index>[0-9]+)$'
[[subscriber]]
name = "pipe"
type = "pipe"
path = "{PIPE}"
"""


class TracedRelay(Relay):
    """A relay under strace, which is no relative of it."""

    def start_traced(self, expression: str) -> None:
        """Starts it and waits until it answers, or has ended, or for a while."""
        strace = [str(STRACE), "-DDD", "-f", "-o", str(TRACE), "-e", expression, "--"]
        self.start(wait=False, before=strace)
        assert self.process is not None
        end = time.monotonic() + PATIENCE
        while self.process.poll() is None and time.monotonic() < end:
            with suppress(OSError, RuntimeError, http.client.HTTPException):
                if self.client.status():
                    return
            time.sleep(0.005)

    def end_traced(self) -> None:
        """SIGKILL, if it still runs, and an end of its tracer."""
        assert self.process is not None
        with suppress(ProcessLookupError):
            self.process.kill()
        self.process.wait()
        wait_until(lambda: "+++ " in TRACE.read_text(errors="replace"), "the tracer to end")


@dataclass
class Outcome:
    """What a number of injections came to."""

    injected: int = 0
    lines: int = 0
    broken: list[str] = field(default_factory=list)


def one_run(expression: str, outcome: Outcome, what: str) -> str:
    """One run with an injection, and its account. Returns the trace."""
    for place in ("/srv", "/tmp"):
        empty(place)
    if LOG.exists():
        empty(str(LOG))
    for path in (FIFO, PIPE):
        path.unlink(missing_ok=True)
    os.mkfifo(FIFO, 0o600)
    held = os.open(FIFO, os.O_RDWR | os.O_NONBLOCK)
    relay = TracedRelay(SETTINGS)
    paths = make_files(FILES)
    try:
        with Consumer(PIPE) as consumer:
            announce("usershift: 1 2", *paths[: FILES // 2])
            relay.start_traced(expression)
            announce(*paths[FILES // 2 : -1])
            end = time.monotonic() + 0.3
            while consumer.count() < FILES - 1 and time.monotonic() < end:
                time.sleep(0.005)
            relay.end_traced()
            relay.start()
            announce(paths[-1])
            with suppress(AssertionError):
                wait_until(lambda: paths[-1] in consumer.lines(), "the last line", 2 * PATIENCE)
            logged = [record.path for record in relay.records()]
            shifts = len(relay.records(kind="usershift"))
            got = list(dict.fromkeys(consumer.announced()))
            run = relay.command("run", "end", "f", "--expect", str(FILES)).stdout
            relay.kill()
        if logged != paths or shifts != 1:
            outcome.broken.append(f"{what}: logged {shifts} and {logged}: {relay.messages()}")
        if f'"complete":true,"why":"all {FILES} files"' not in run:
            outcome.broken.append(f"{what}: counted {run}: {relay.messages()}")
        if got != paths:
            outcome.broken.append(f"{what}: delivered {got}: {relay.messages()}")
    except (AssertionError, OSError, RuntimeError, http.client.HTTPException) as error:
        outcome.broken.append(f"{what}: {error}: {relay.messages()}")
        with suppress(AttributeError, AssertionError):
            relay.kill()
    finally:
        os.close(held)
    outcome.lines += FILES
    return TRACE.read_text(encoding="utf-8", errors="replace")


def calls_of_a_run(outcome: Outcome) -> dict[str, int]:
    """How many calls of each kind one thread makes at most."""
    counts: Counter[tuple[str, str]] = Counter()
    for line in one_run("trace=all", outcome, "untreated").splitlines():
        found = re.match(r"(\d+) +([a-z]\w+)\(", line)
        if found:
            counts[found.group(1), found.group(2)] += 1
    most: dict[str, int] = {}
    for (_, call), count in counts.items():
        most[call] = max(most.get(call, 0), count)
    # How often these are called is a matter of how long it waits.
    for call in ("futex", "rt_sigtimedwait", "restart_syscall", "clock_nanosleep", "ioctl", "poll"):
        most[call] = min(most.get(call, 0), 10)
    return most


def try_points(part: int, parts: int) -> Outcome:
    """All injections of one part of as many."""
    outcome = Outcome()
    calls = calls_of_a_run(outcome)
    points = [
        (call, effect, number)
        for call, count in sorted(calls.items())
        for effect in ("KILL", *ERRORS.get(call, ()))
        for number in range(1, count + 1)
    ]
    for call, effect, number in points[part - 1 :: parts]:
        done = "signal=KILL" if effect == "KILL" else f"error={effect}"
        trace = one_run(
            f"inject={call}:{done}:when={number}", outcome, f"{effect} at {call} {number}"
        )
        outcome.injected += "(INJECTED)" in trace or "+++ killed by SIGKILL" in trace
    return outcome


def main() -> int:
    parser = argparse.ArgumentParser(description="Tries all crash points of the relay, or a part.")
    parser.add_argument("--part", default="1/1", help="such as 2/5: every fifth, from the second on")
    part, parts = map(int, parser.parse_args().part.split("/"))
    outcome = try_points(part, parts)
    print(f"{outcome.injected} injections, {outcome.lines} lines, {len(outcome.broken)} wrong")
    for each in outcome.broken:
        print(each[-1500:])
    return 1 if outcome.broken else 0


if __name__ == "__main__":
    sys.exit(main())
