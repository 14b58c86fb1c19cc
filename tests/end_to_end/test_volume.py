"""Many files: in one cycle, while cycles run, from two detectors, over what is there already."""

from __future__ import annotations

import os
import shutil

from support.bed import Bed
from support.detector import frame_names


def test_a_thousand_files_in_one_cycle_take_eight_copy_processes() -> None:
    with Bed() as bed:
        bed.simulator.burst(frame_names(1000))
        bed.start()
        bed.finish()
        log = bed.daemon.log()
        assert log.count(" copy processes\n") == 1
        assert "1 Starting 8 copy processes\n" in log
        assert log.count("Copied 125 files in the range of: ") == 8


def test_the_number_of_copy_processes_follows_the_number_of_files() -> None:
    with Bed() as bed:
        bed.simulator.burst(frame_names(100, "one_"))
        bed.start()
        bed.finish()
        bed.daemon.end()
        bed.simulator.burst(frame_names(101, "two_"))
        bed.start()
        bed.finish()
        log = bed.daemon.log()
        first, second = (f"1 Starting {number} copy processes\n" for number in (1, 2))
        assert log.index(first) < log.index(second)
        assert log.count(" copy processes\n") == 2


def test_files_that_appear_while_cycles_run_are_all_moved() -> None:
    with Bed() as bed:
        bed.start()
        bed.simulator.start(frame_names(1500), 20_000, rate=500)
        bed.simulator.wait(60)
        bed.finish()
        assert bed.daemon.log().count(" copy processes\n") > 1


def test_two_detectors_do_not_disturb_each_other() -> None:
    with Bed(2) as bed:
        bed.start()
        for number, station in enumerate(bed.stations):
            # The same names from both: what tells them apart is the target.
            station.simulator.start(frame_names(600), 5_000 * (number + 1), rate=300)
        for station in bed.stations:
            station.simulator.wait(60)
        bed.finish()
        log = bed.daemon.log()
        for station in bed.stations:
            assert f"\n{station.id}: Removed file /tmp/file_list_" in log


def test_a_file_that_is_at_the_target_already_is_announced_and_gone() -> None:
    with Bed() as bed:
        bed.simulator.burst(["same.raw", "older.raw", "run/same.raw", "new.raw"])
        root, target = bed.simulator.root, bed.target
        (target / "run").mkdir(parents=True)
        for name in ("same.raw", "run/same.raw"):
            shutil.copy2(root / name, target / name)
        (target / "older.raw").write_bytes(b"from another day")
        os.utime(target / "older.raw", (1e9, 1e9))
        bed.start()
        bed.finish()


def test_a_name_that_comes_again_is_moved_and_announced_again() -> None:
    with Bed() as bed:
        bed.simulator.write("frame.raw")
        bed.start()
        bed.finish()
        first = bed.simulator.frames["frame.raw"]
        second = bed.simulator.write("frame.raw", 3001)
        assert second.digest != first.digest
        bed.wait_announced(2)
        bed.settle()
        assert bed.announced() == ["frame.raw", "frame.raw"]
        assert (bed.target / "frame.raw").read_bytes() == bed.simulator.content("frame.raw", 3001)
        assert not bed.simulator.left()


def test_a_server_that_says_nothing_of_removals_is_asked_at_the_end() -> None:
    with Bed(max_verbosity=None) as bed:
        bed.simulator.burst(frame_names(150))
        bed.simulator.burst(frame_names(20, "run/frame_"))
        bed.simulator.symbolic_link("link", "run")
        bed.start()
        bed.finish()
        bed.simulator.burst(["later.raw", "with blank.raw"])
        bed.finish(staying={"with blank.raw"})


def test_the_log_is_rotated_while_files_move() -> None:
    with Bed(settings={"logfile_max_size": "2K", "logfile_max_number": 50}) as bed:
        bed.start()
        for batch in range(10):
            bed.simulator.burst(frame_names(5, f"batch{batch}_"))
            bed.wait_announced((batch + 1) * 5)
        bed.finish()
        assert bed.daemon.log_file.with_name(bed.daemon.log_file.name + ".0").exists()
        copied = bed.daemon.archived_log().count("Copied ")
        assert copied >= 10
