"""A cut of the power takes nothing out of the relay's log, and one that does not flush is found out."""

from __future__ import annotations

import random

import pytest

from power.relay_cuts import cut_at_random
from power.run import RELAY, command, summary

FRESH = random.SystemRandom().randrange(10**6)


def test_a_cut_loses_no_record(capsys: pytest.CaptureFixture[str]) -> None:
    again = command("ext4", RELAY, 1, FRESH, 5)
    outcome = cut_at_random("ext4", f"ext4 {RELAY} 1 {FRESH}", 5)
    with capsys.disabled():
        print(f"\n{again}\n{summary(outcome)}", flush=True)
    assert not outcome.broken, f"{again}\n" + "\n".join(outcome.broken[:20])
    assert outcome.cuts == 5 and outcome.files > 0


def test_a_relay_that_does_not_flush_is_found_out() -> None:
    outcome = cut_at_random("ext4", "unflushed", 3, flushes=False)
    assert outcome.lost > 0
    assert any("was taken out of the pipe and is not in the log" in line for line in outcome.broken)
