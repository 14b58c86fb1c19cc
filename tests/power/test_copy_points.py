"""A copy that dies, or fails, at any of its system calls loses nothing."""

from __future__ import annotations

import pytest

from power.crash_points import VERBOSITIES, summary, try_all


@pytest.mark.parametrize("max_verbosity", VERBOSITIES)
@pytest.mark.parametrize("kills", [True, False])
def test_no_point_of_a_copy_loses_a_file(
    kills: bool, max_verbosity: int | None, capsys: pytest.CaptureFixture[str]
) -> None:
    outcome = try_all("1", max_verbosity, "copy", kills, limit=300)
    with capsys.disabled():
        print(f"\n{summary(outcome)}", flush=True)
    assert not outcome.broken, "\n".join(outcome.broken[:40])
    assert outcome.injected > 80
