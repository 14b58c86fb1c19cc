"""The short form of the power runs: a few cuts over each file system.

scripts/power.sh is the long form. A run that fails prints the seed and the command to repeat it.
"""

from __future__ import annotations

import os
import random
from pathlib import Path

import pytest

from power.run import command, cuts, summary
from support.daemon import sanitizer_of

INSTRUMENTED = sanitizer_of(Path(os.environ["SKARN_BINARY"])) is not None
FRESH = random.SystemRandom().randrange(10**6)
# Which file system, which life, and on how many of them. An instrumented build is slow.
CASES = [("ext4", "stream", 1), ("xfs", "drain", 2), ("btrfs", "stream", 2)]
CUTS = 2 if INSTRUMENTED else 5


@pytest.mark.parametrize(("disk", "life", "parts"), CASES)
def test_a_cut_loses_nothing(
    disk: str, life: str, parts: int, capsys: pytest.CaptureFixture[str]
) -> None:
    again = command(disk, life, parts, FRESH, CUTS)
    with capsys.disabled():
        print(f"\n{again}", flush=True)
        outcome = cuts(disk, life, parts, FRESH, CUTS)
        print(summary(outcome), flush=True)
    assert not outcome.broken, f"{again}\n" + "\n".join(outcome.broken[:20])
    assert outcome.cuts == CUTS
