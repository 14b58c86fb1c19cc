"""The share goes away and comes back: in a listing, between cycles and in the middle of copying."""

from __future__ import annotations

import os
import re
import signal

from support.bed import Bed, compare
from support.daemon import LISTING_ERRORS
from support.detector import frame_names
from support.waiting import wait_until


def test_a_share_that_is_not_there_yet_is_waited_for() -> None:
    with Bed() as bed:
        bed.server.kill()
        bed.simulator.burst(frame_names(10))
        bed.start()
        wait_until(
            lambda: LISTING_ERRORS.exists() and "Connection refused" in LISTING_ERRORS.read_text(),
            "a listing that failed",
        )
        assert bed.consumer.count() == 0
        bed.server.start()
        bed.finish()


def test_a_share_that_went_away_between_cycles_is_found_again() -> None:
    with Bed() as bed:
        bed.start()
        for round_number in range(3):
            bed.simulator.burst(frame_names(30, f"round{round_number}_"))
            bed.finish()
            bed.server.kill()
            wait_until(
                lambda: "Connection refused" in LISTING_ERRORS.read_text(),
                "a listing that failed",
            )
            bed.simulator.write(f"while_away_{round_number}.raw")
            bed.server.start()
        bed.finish()


def test_one_detector_goes_away_and_the_other_goes_on() -> None:
    with Bed(2) as bed:
        first, second = bed.stations
        bed.start()
        first.server.kill()
        first.simulator.burst(frame_names(20))
        second.simulator.burst(frame_names(20))
        bed.wait_announced(20)
        assert len(bed.consumer.names_below(second.announced_target)) == 20
        first.server.start()
        bed.finish()


def test_connections_that_break_in_mid_copy_lose_nothing() -> None:
    """The server lives, so what it deleted can be asked for: every file is announced once."""
    with Bed() as bed:
        bed.simulator.burst(frame_names(1200), 100_000)
        bed.start()
        broken = 0
        for wanted in (50, 300, 600):
            bed.wait_announced(wanted)
            for pid in bed.server.connection_pids():
                try:
                    os.kill(pid, signal.SIGKILL)
                    broken += 1
                except ProcessLookupError:
                    pass  # it ended on its own meanwhile
        assert broken > 0, "nothing was left to break: the test proved nothing"
        bed.finish(interrupted=True, timeout=90)


def test_a_server_killed_in_mid_copy_loses_nothing() -> None:
    with Bed() as bed:
        bed.simulator.burst(frame_names(1200), 100_000)
        bed.start()
        bed.wait_announced(50)
        bed.server.kill()
        assert bed.simulator.left(), "nothing was left to copy: the test proved nothing"
        wait_until(
            lambda: "Connection refused" in LISTING_ERRORS.read_text(),
            "a listing that failed",
        )
        bed.server.start()
        finish_after_kill(bed)


def test_a_server_killed_in_mid_listing_loses_nothing() -> None:
    with Bed() as bed:
        bed.simulator.burst(frame_names(3000), 1000)
        bed.start()
        for _ in range(5):
            wait_until(bed.server.connection_pids, "a client")
            bed.server.kill()
            bed.server.start()
        finish_after_kill(bed)


def finish_after_kill(bed: Bed) -> None:
    """Waits until the share is empty, and checks that nothing is lost.

    What a killed server deleted without being able to say so is not announced, since nobody knows
    that it is gone: the log names each such file.
    """
    wait_until(lambda: not bed.simulator.left(), "the share to be emptied", 90)
    bed.settle()
    comparison = compare(bed.stations[0], bed.consumer, interrupted=True)
    unannounced = comparison.faults.pop("not announced")
    assert comparison.agrees, str(comparison)
    lost = set(re.findall(r"^Error: Lost (.*)$", bed.daemon.archived_log(), re.MULTILINE))
    assert set(unannounced) <= lost, "a file is neither announced nor in the log"
