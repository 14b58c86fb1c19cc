"""A listing that dies, or fails, at any system call loses nothing that a copy has left open."""

from __future__ import annotations

import pytest

from power.crash_points import VERBOSITIES, summary, try_all


@pytest.mark.parametrize("max_verbosity", VERBOSITIES[1:])
@pytest.mark.parametrize("kills", [True, False])
def test_no_point_of_a_listing_loses_a_file(
    kills: bool, max_verbosity: int | None, capsys: pytest.CaptureFixture[str]
) -> None:
    outcome = try_all("1", max_verbosity, "listing", kills, limit=300)
    with capsys.disabled():
        print(f"\n{summary(outcome)}", flush=True)
    assert not outcome.broken, "\n".join(outcome.broken[:40])
    assert outcome.injected > 80
