"""Whoever dies, what has left the source is announced, and no new file has to come for that."""

from __future__ import annotations

import os
import signal

from support import daemon as skarn
from support.bed import Bed
from support.detector import frame_names
from support.processes import children
from support.waiting import wait_until


def copy_processes(bed: Bed) -> list[int]:
    """The copy processes that run now."""
    return [each.pid for each in children(bed.daemon.pid) if each.name == "rsync_orbelin"]


def test_files_that_a_dead_daemon_did_not_announce_are_announced_by_the_next_one() -> None:
    names = frame_names(50)
    with Bed() as bed:
        # Nobody reads: the daemon waits for a reader, and the copy process goes on to its end.
        bed.consumer.stop()
        bed.simulator.burst(names)
        bed.start()
        wait_until(lambda: not bed.simulator.left(), "the files to leave the source")
        bed.daemon.end(signal.SIGKILL)
        bed.consumer.start()
        assert bed.announced() == []
        bed.start()
        bed.finish()
        assert sorted(bed.announced()) == names
        assert "Copied 50 files" in bed.daemon.log()


def test_files_that_a_dead_copy_process_did_not_announce_are_announced_by_the_next_one() -> None:
    names = frame_names(50)
    with Bed(max_verbosity=1) as bed:
        # Such a server does not say what it has removed, so that rsync's end comes before all
        # confirmations; there is time to strike.
        bed.simulator.burst(names)
        bed.start()
        wait_until(lambda: len(bed.simulator.left()) < 50, "files to leave the source")
        struck = copy_processes(bed)
        assert struck and bed.announced() == []
        for pid in struck:
            os.kill(pid, signal.SIGKILL)
        bed.finish(interrupted=True)
        assert sorted(set(bed.announced())) == names
        assert skarn.file_lists() == []
