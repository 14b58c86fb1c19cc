"""A cut of the power at any system call of a copy loses nothing."""

from __future__ import annotations

import pytest

from power.run import POINTS, cuts, summary


def test_no_cut_at_any_point_of_a_copy_loses_a_file(capsys: pytest.CaptureFixture[str]) -> None:
    outcome = cuts("ext4", POINTS, parts=1, seed=1)
    with capsys.disabled():
        print(f"\n{summary(outcome)}", flush=True)
    assert not outcome.broken, "\n".join(outcome.broken[:40])
    assert outcome.cuts > 50 and outcome.files > outcome.cuts
