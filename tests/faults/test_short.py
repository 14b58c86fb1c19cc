"""The short form of the fault runs: all faults mixed, and for themselves those that can't be.

scripts/faults.sh is the long form. A run that fails prints the seed and the command to repeat it.
"""

from __future__ import annotations

import os
import random
from pathlib import Path

import pytest

from faults.fault import load
from faults.run import MIXED, MIXED_RELAY, command, run, summary
from support.daemon import sanitizer_of

INSTRUMENTED = sanitizer_of(Path(os.environ["SKARN_BINARY"])) is not None
# Slow to recover from, by nature: the long form has them.
LONG = {"connections-lost", "target-read-only", "target-no-inodes"}
ALONE = [
    name for name, kind in load().items() if not kind.mixes and not kind.relay and name not in LONG
]
FRESH = random.SystemRandom().randrange(10**6)
# Which fault, its seed, and how many of it. An instrumented build is slow and gets fewer.
CASES: list[tuple[str, int, int]] = [
    (MIXED, 1, 20 if INSTRUMENTED else 55),
    (MIXED, FRESH, 10 if INSTRUMENTED else 30),
    *((name, 1, 2) for name in ALONE),
]
if "SKARN_RELAY_FOR_TESTS_BINARY" in os.environ:
    CASES += [(MIXED_RELAY, FRESH, 6 if INSTRUMENTED else 15), ("relay-log-damaged", FRESH, 1)]


@pytest.mark.parametrize(("name", "seed", "rounds"), CASES)
def test_the_promise_holds(
    name: str, seed: int, rounds: int, capsys: pytest.CaptureFixture[str]
) -> None:
    again = command(name, seed, rounds)
    # The daemon's log, which tells what led to a failure, stays after one.
    log = Path(os.environ["SKARN_RESULTS"], f"faults-{name}-{seed}.log")
    with capsys.disabled():
        print(f"\n{again}", flush=True)
        outcome = run(name, seed, rounds, limit=70, log=log)
        print(summary(outcome), flush=True)
    if not outcome.broken:
        log.unlink(missing_ok=True)
    assert not outcome.broken, f"{again}\n" + "\n".join(outcome.broken[:20])
    assert outcome.injected > 0 and outcome.files > 0
