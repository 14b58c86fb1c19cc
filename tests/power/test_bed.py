"""The power bed finds nothing wrong with a copy program that is safe, and finds out those that are
not.
"""

from __future__ import annotations

import os
from pathlib import Path

import pytest

from power.bed import Outcome
from power.run import cuts

STAND_IN = Path(__file__).with_name("stand_in.py")


def run(mistake: str, monkeypatch: pytest.MonkeyPatch, disk: str, parts: int) -> Outcome:
    """A short life with a stand-in for the copy program, which makes this mistake."""
    text = STAND_IN.read_text(encoding="utf-8")
    assert text.count('MISTAKE = ""') == 1
    program = Path("/srv/stand_in")
    program.write_text(text.replace('MISTAKE = ""', f'MISTAKE = "{mistake}"'), encoding="utf-8")
    monkeypatch.setitem(os.environ, "CONFIRMING_RSYNC_BINARY", str(program))
    patience = 5 if mistake else 30
    return cuts(disk, "stream", parts, seed=1, number=4, patience=patience)


@pytest.mark.parametrize(("disk", "parts"), [("ext4", 1), ("xfs", 2), ("btrfs", 1)])
def test_a_safe_program_loses_nothing(
    disk: str, parts: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    outcome = run("", monkeypatch, disk, parts)
    assert outcome.broken == []
    assert outcome.cuts == 4 and outcome.files > 0 and outcome.went_on > 0
    assert (outcome.lost, outcome.never_announced, outcome.stayed) == (0, 0, 0)


@pytest.mark.parametrize("disk", ["ext4", "xfs", "btrfs"])
def test_a_program_that_does_not_flush_is_found_out(
    disk: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    outcome = run("removes-first", monkeypatch, disk, 1)
    assert outcome.lost > 0
    assert any("had left the source and is not whole" in line for line in outcome.broken)


def test_a_program_that_does_not_announce_again_is_found_out(
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    outcome = run("never-announces-again", monkeypatch, "ext4", 1)
    assert outcome.lost == 0 and outcome.never_announced > 0
    assert any("is whole and was never announced" in line for line in outcome.broken)
