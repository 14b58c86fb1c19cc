"""The PID file, the status file and the file lists while the daemon works."""

from __future__ import annotations

import os
import stat
from collections.abc import Callable
from pathlib import Path

import pytest

from support import expected, processes, scripted
from support.daemon import (
    LOG_FILE,
    PID_FILE,
    STATUS_FILE,
    Daemon,
    Detector,
    file_lists,
    write_configuration,
)
from support.waiting import wait_until


def pid_lines(*pids: int) -> str:
    return "".join(f"{pid}\n" for pid in pids)


def start_one(daemon: Daemon, names: int, **settings: object) -> Detector:
    """Configures a detector with one listing of so many names; copies wait for the gate "end"."""
    detector = Detector("1", minpause=1)
    write_configuration({"logfile": LOG_FILE, **settings}, [detector])
    scripted.add_listing([f"f{number}" for number in range(names)], detector)
    scripted.set_default_copy([f"wait {scripted.gate('end')}", "confirm-all"])
    daemon.start()
    return detector


def test_the_pid_file_names_the_copy_processes_while_they_run(daemon: Daemon) -> None:
    start_one(daemon, 1000)
    pids = daemon.wait_for_pids(9)
    calls = scripted.wait_for_calls("copy", 8)
    in_order = [call.pid for call in sorted(calls, key=lambda call: call.slot)]
    assert pids == [daemon.pid, *in_order]
    assert PID_FILE.read_text() == pid_lines(daemon.pid, *in_order)
    scripted.gate("end").touch()
    daemon.wait_for_pids(1)
    assert PID_FILE.read_text() == pid_lines(daemon.pid)
    assert stat.S_IMODE(PID_FILE.stat().st_mode) == 0o644
    assert STATUS_FILE.read_text() == "njobs 8\n"


def test_the_pid_file_holds_a_process_until_all_have_ended(daemon: Daemon) -> None:
    detector = start_one(daemon, 0)
    first, second = scripted.gate("first"), scripted.gate("second")
    scripted.add_copy([f"wait {first}"], detector, 0)
    scripted.add_copy([f"wait {second}"], detector, 1)
    scripted.add_listing([f"f{number}" for number in range(101)], detector)
    pids = daemon.wait_for_pids(3)
    first.touch()
    daemon.wait_for_log(expected.ended("1", pids[1]))
    assert PID_FILE.read_text() == pid_lines(*pids)
    second.touch()
    daemon.wait_for_log("1: Removed file", 2)
    assert PID_FILE.read_text() == pid_lines(daemon.pid)


def test_the_pid_file_names_the_processes_of_all_detectors(daemon: Daemon) -> None:
    detectors = [
        Detector(str(number), f"127.0.0.{number}", target=f"/srv/t{number}", minpause=1)
        for number in range(1, 4)
    ]
    write_configuration({"logfile": LOG_FILE}, detectors)
    for detector in detectors:
        scripted.add_listing([f"f{number}" for number in range(250)], detector)
        for slot in range(3):
            gate = scripted.gate(f"end-{detector.id}")
            scripted.add_copy([f"wait {gate}", "confirm-all"], detector, slot)
    daemon.start()
    pids = daemon.wait_for_pids(10)
    calls = scripted.wait_for_calls("copy", 9)
    owned = {
        detector.id: [
            call.pid
            for call in sorted(calls, key=lambda call: call.slot)
            if call.url == expected.url(str(detector.address))
        ]
        for detector in detectors
    }
    assert pids[0] == daemon.pid
    groups = [pids[1:4], pids[4:7], pids[7:10]]
    assert sorted(groups) == sorted(owned.values())
    scripted.gate("end-2").touch()
    pids = daemon.wait_for_pids(7)
    assert [pids[1:4], pids[4:7]] == [group for group in groups if group != owned["2"]]
    scripted.gate("end-1").touch()
    daemon.wait_for_pids(4)
    scripted.gate("end-3").touch()
    assert daemon.wait_for_pids(1) == [daemon.pid]
    # Each worker saw the end of its own processes and of no others.
    log = daemon.wait_for_log(": Removed file", 9)
    for identity, own in owned.items():
        for pid in own:
            assert expected.ended(str(identity), pid) in log
    assert log.count("terminated") == 9
    wait_until(
        lambda: not [each for each in processes.children(daemon.pid) if each.is_zombie],
        "no child to be left unwaited for",
    )


def test_a_pid_file_that_can_no_longer_be_written_stops_nothing(daemon: Daemon) -> None:
    start_one(daemon, 1)
    daemon.wait_for_pids(2)
    PID_FILE.unlink()
    PID_FILE.mkdir()
    scripted.gate("end").touch()
    daemon.wait_for_log("1: Removed file")
    scripted.add_listing(["b"])
    daemon.wait_for_log(expected.block(confirmed=["b"]))
    PID_FILE.rmdir()
    scripted.add_listing(["c"])
    daemon.wait_for_log("1: Removed file", 3)
    assert PID_FILE.read_text() == pid_lines(daemon.pid)
    assert stat.S_IMODE(PID_FILE.stat().st_mode) == 0o644


def test_the_status_file_is_written_once(daemon: Daemon) -> None:
    start_one(daemon, 1)
    scripted.wait_for_calls("copy", 1)
    STATUS_FILE.write_text("someone else's\n")
    scripted.gate("end").touch()
    daemon.wait_for_log("1: Removed file")
    daemon.end()
    assert STATUS_FILE.read_text() == "someone else's\n"


def test_file_lists(daemon: Daemon) -> None:
    """Names are dealt in turn; the lists can be read, are numbered, and gone after the cycle."""
    start_one(daemon, 250)
    calls = sorted(scripted.wait_for_calls("copy", 3), key=lambda call: call.slot)
    stems = {call.list_name.rpartition("_")[0] for call in calls}
    assert len(stems) == 1
    assert [str(path) for path in file_lists()] == [call.list_name for call in calls]
    for slot, call in enumerate(calls):
        assert call.slot == slot
        assert call.list_mode == 0o644
        assert call.list_text == "".join(f"f{number}\n" for number in range(slot, 250, 3))
        assert Path(call.list_name).read_text() == call.list_text
    scripted.gate("end").touch()
    log = daemon.wait_for_log("1: Removed file", 3)
    assert not file_lists()
    assert log.endswith("".join(expected.removed("1", call.list_name) for call in calls))


def test_every_list_is_written_before_the_first_process_starts(daemon: Daemon) -> None:
    detector = Detector("1", minpause=1, interrun_pause=60000)
    write_configuration({"logfile": LOG_FILE}, [detector])
    scripted.add_listing([f"f{number}" for number in range(500)], detector)
    daemon.start()
    first = scripted.wait_for_calls("copy", 1)[0]
    assert first.slot == 0
    lists = file_lists()
    assert [path.name.rpartition("_")[2] for path in lists] == ["0", "1", "2", "3", "4"]
    for slot, path in enumerate(lists):
        assert path.read_text() == "".join(f"f{number}\n" for number in range(slot, 500, 5))
    assert first.names == [f"f{number}" for number in range(0, 500, 5)]
    assert len(scripted.calls("copy")) == 1


def test_lists_of_two_detectors_have_different_names(daemon: Daemon) -> None:
    detectors = [Detector("1", "127.0.0.1"), Detector("2", "127.0.0.2")]
    write_configuration({"logfile": LOG_FILE}, detectors)
    scripted.set_default_listing(["a"])
    scripted.set_default_copy([f"wait {scripted.gate('end')}"])
    daemon.start()
    calls = scripted.wait_for_calls("copy", 2)
    assert len({call.list_name for call in calls}) == 2
    assert all(call.names == ["a"] for call in calls)


def test_a_list_left_by_a_dead_daemon_is_replaced(daemon: Daemon) -> None:
    """A longer list of the same name leaves nothing of itself behind."""
    start_one(daemon, 1)
    name = Path(scripted.wait_for_calls("copy", 1)[0].list_name)
    scripted.gate("end").touch()
    daemon.wait_for_log("1: Removed file")
    name.write_text("stale\n" * 100)
    name.chmod(0o666)
    scripted.add_listing(["b"])
    second = scripted.wait_for_calls("copy", 2)[1]
    assert second.list_name == str(name)
    assert second.list_text == "b\n"
    assert second.list_mode == 0o644


@pytest.mark.parametrize("link", [os.symlink, os.link])
def test_a_planted_link_is_not_followed(
    daemon: Daemon, link: Callable[[Path, Path], None]
) -> None:
    start_one(daemon, 1)
    name = Path(scripted.wait_for_calls("copy", 1)[0].list_name)
    scripted.gate("end").touch()
    daemon.wait_for_log("1: Removed file")
    victim = Path("/tmp/victim")
    victim.write_text("precious\n")
    victim.chmod(0o640)
    link(victim, name)
    scripted.add_listing(["b"])
    daemon.wait_for_log("1: Removed file", 2)
    assert not os.path.lexists(name)
    assert victim.read_text() == "precious\n"
    assert stat.S_IMODE(victim.stat().st_mode) == 0o640
    scripted.add_listing(["c"])
    daemon.wait_for_log(expected.block(confirmed=["c"]))


def test_a_planted_dangling_link_makes_no_file(daemon: Daemon) -> None:
    start_one(daemon, 1)
    name = Path(scripted.wait_for_calls("copy", 1)[0].list_name)
    scripted.gate("end").touch()
    daemon.wait_for_log("1: Removed file")
    name.symlink_to("/srv/made-by-a-link")
    scripted.add_listing(["b"])
    daemon.wait_for_log("1: Removed file", 2)
    assert not os.path.lexists("/srv/made-by-a-link")


def test_a_list_that_cannot_be_made_costs_its_names_for_one_cycle(daemon: Daemon) -> None:
    start_one(daemon, 1)
    name = Path(scripted.wait_for_calls("copy", 1)[0].list_name)
    scripted.gate("end").touch()
    daemon.wait_for_log("1: Removed file")
    (name / "occupied").mkdir(parents=True)
    scripted.add_listing(["b"])
    call = scripted.wait_for_calls("copy", 2)[1]
    assert call.list_name == str(name)
    daemon.wait_for_log(f"1: Error: could not remove {name}\n   Directory not empty\n")
    (name / "occupied").rmdir()
    scripted.add_listing(["b"])
    # An empty folder would not do for a list either, but it can be removed at the end.
    daemon.wait_for_log(expected.removed("1", str(name)), 2)
    scripted.add_listing(["b"])
    daemon.wait_for_log(expected.block(confirmed=["b"]))


def test_a_list_that_is_gone_is_reported(daemon: Daemon) -> None:
    start_one(daemon, 250)
    calls = sorted(scripted.wait_for_calls("copy", 3), key=lambda call: call.slot)
    Path(calls[1].list_name).unlink()
    scripted.gate("end").touch()
    log = daemon.wait_for_log(expected.removed("1", calls[2].list_name))
    assert log.endswith(
        expected.removed("1", calls[0].list_name)
        + f"1: Error: could not remove {calls[1].list_name}\n   No such file or directory\n"
        + expected.removed("1", calls[2].list_name)
    )
    scripted.add_listing(["b"])
    daemon.wait_for_log(" b ... b\n")
