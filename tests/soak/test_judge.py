"""What the soak calls flat, and how it counts cycles: it must be able to fail."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import replace
from pathlib import Path

import pytest

from soak.judge import EXCESS_LIMIT, RISE_LIMIT, Sample, judge
from soak.measure import SEPARATOR, ConnectionCounter, LogFollower

COUNT = 400


def flat() -> list[Sample]:
    """A run in which nothing is left behind: busy and idle in turn."""
    return [
        Sample(
            time=float(number),
            phase="full" if number % 20 < 8 else "idle",
            cycles=number,
            files=number,
            separators=0,
            resident=4000 + number % 7,
            descriptors=20 if number % 20 < 8 else 5 - number % 3 // 2,
            threads=15 if number % 20 < 8 else 5,
            zombies=number % 2 if number % 20 < 8 else 0,
            tmp_files=9 if number % 20 < 8 else 1,
            journal_files=8 if number % 20 < 8 else 0,
        )
        for number in range(COUNT)
    ]


def failing(samples: list[Sample]) -> list[str]:
    return [verdict.subject for verdict in judge(samples) if not verdict.holds]


def changed(change: Callable[[int, Sample], Sample]) -> list[str]:
    """What fails when each sample of a flat run is changed."""
    return failing([change(number, sample) for number, sample in enumerate(flat())])


def test_a_flat_run_holds() -> None:
    assert failing(flat()) == []


@pytest.mark.parametrize("field", ["descriptors", "threads", "zombies", "tmp_files"])
def test_a_slow_leak_of_a_counted_thing_fails(field: str) -> None:
    def leak(number: int, sample: Sample) -> Sample:
        return replace(sample, **{field: getattr(sample, field) + number * 4 // COUNT})

    assert len(changed(leak)) == 1


def test_journals_that_stay_fail() -> None:
    failed = changed(lambda number, each: replace(each, journal_files=each.journal_files + number))
    assert failed == ["files in the journal's folder"]


def test_memory_that_rises_fails() -> None:
    def leak(per_run: float) -> list[str]:
        return changed(
            lambda number, each: replace(
                each, resident=each.resident + int(number * per_run / COUNT)
            )
        )

    assert leak(2 * RISE_LIMIT * 0.9) == []
    assert leak(2 * RISE_LIMIT * 1.1) == ["resident memory"]


def test_memory_that_jumps_fails() -> None:
    def jump(at: int, by: int) -> list[str]:
        return changed(
            lambda number, each: replace(each, resident=each.resident + by * (number == at))
        )

    assert jump(COUNT - 40, EXCESS_LIMIT - 10) == []
    assert jump(COUNT - 40, EXCESS_LIMIT + 10) == ["resident memory"]
    assert jump(50, 10 * EXCESS_LIMIT) == []  # before the second half


def test_the_waiting_separators_are_not_counted_as_memory() -> None:
    def pile_up(number: int, sample: Sample) -> Sample:
        waiting = replace(sample, separators=number * 1000)
        return replace(waiting, resident=sample.resident + round(waiting.separators_kb))

    assert changed(pile_up) == []
    assert changed(lambda n, each: replace(pile_up(n, each), separators=0)) == ["resident memory"]


@pytest.mark.parametrize("phase, missing", [("full", "idle"), ("idle", "busy")])
def test_a_time_without_idle_or_busy_moments_is_no_verdict(phase: str, missing: str) -> None:
    with pytest.raises(AssertionError, match=f"{missing} moment"):
        changed(lambda _, each: replace(each, phase=phase))


def test_separators_are_counted_across_rotations() -> None:
    log = Path("/srv/skarn.log")
    log.write_bytes(b"banner\n" + SEPARATOR * 3 + b"1 Starting 1 copy processes\n")
    follower = LogFollower(log)
    follower.look()
    assert dict(follower.separators) == {"1": 3} and follower.heard == {"1"}
    # A run of separators counts when the line behind it says whose it is.
    with log.open("ab") as file:
        file.write(SEPARATOR * 2)
    follower.look()
    assert dict(follower.separators) == {"1": 3} and follower.heard == set()
    with log.open("ab") as file:
        file.write(SEPARATOR + b"det_2: Error: Listing failed\n1: Removed file x\n")
    for text in (SEPARATOR * 5 + b"1 Starting 2", SEPARATOR + b"1 Starting 8 copy processes\n"):
        # Rotated twice between two looks, and begun anew.
        if log.with_name("skarn.log.0").exists():
            log.with_name("skarn.log.0").rename("/srv/skarn.log.1")
        log.rename("/srv/skarn.log.0")
        log.write_bytes(text + b" copy processes\n" * (not text.endswith(b"\n")))
    follower.look()
    assert dict(follower.separators) == {"1": 9, "det_2": 3}
    follower.look()
    assert dict(follower.separators) == {"1": 9, "det_2": 3} and follower.heard == set()
    follower.close()


def test_a_log_that_was_removed_is_noticed() -> None:
    log = Path("/srv/skarn.log")
    log.write_bytes(b"banner\n")
    follower = LogFollower(log)
    log.unlink()
    with pytest.raises(AssertionError, match="rotated faster"):
        follower.look()
    follower.close()


def test_connections_are_counted_while_the_log_is_emptied() -> None:
    log = Path("/srv/rsyncd.log")
    line = b"2026/11/21 05:05:05 [7] rsync allowed access on module ramdisk from root (127.0.0.1)\n"
    log.write_bytes(line * 100 + line[:20])
    counter = ConnectionCounter(log)
    assert counter.look() == 100
    with log.open("ab") as file:
        file.write(line[20:] + b"2026/11/21 05:05:05 [7] building file list\n" + line)
    assert counter.look() == 102
    assert counter.look() == 102
    assert log.stat().st_size > 8192 > log.stat().st_blocks * 512
