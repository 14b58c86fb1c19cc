"""The relay dies, fails and loses its power at its system calls: nothing is lost or doubled.

Dying and failing at all of them takes a quarter of an hour, so it is a share of the points, another
one each day; RELAY_POINTS_PART=1/1 has them all.
"""

from __future__ import annotations

import os
import time

import pytest

from relay_points import try_points
from power.relay_cuts import cut_at_calls
from power.run import summary

SHARES = 40


def test_no_point_of_the_relay_loses_or_doubles_a_line(capsys: pytest.CaptureFixture[str]) -> None:
    today = int(time.time()) // 86400 % SHARES + 1
    part, parts = map(int, os.environ.get("RELAY_POINTS_PART", f"{today}/{SHARES}").split("/"))
    outcome = try_points(part, parts)
    with capsys.disabled():
        print(f"\n  part {part}/{parts}: {outcome.injected} injections, {outcome.lines} lines")
    assert not outcome.broken, f"part {part}/{parts}: {outcome.broken}"
    assert outcome.injected > 5


def test_no_cut_after_any_call_of_the_relay_loses_a_record(
    capsys: pytest.CaptureFixture[str],
) -> None:
    outcome = cut_at_calls("ext4", "1")
    with capsys.disabled():
        print(f"\n{summary(outcome)}", flush=True)
    assert not outcome.broken, "\n".join(outcome.broken[:40])
    assert outcome.cuts > 50 and outcome.files > outcome.cuts
