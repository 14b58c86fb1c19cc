"""What the daemon's children get: command lines, environments, descriptors, sessions."""

from __future__ import annotations

import os
import re
from collections.abc import Mapping
from pathlib import Path

import pytest

from support import expected, processes, scripted
from support.consumer import Consumer
from support.daemon import (
    LISTING_ERRORS,
    LOG_FILE,
    PID_FILE,
    STATUS_FILE,
    Daemon,
    Detector,
    write_configuration,
)
from support.scripted import err
from support.waiting import wait_until

PIPE = re.compile(r"pipe:\[\d+\]")


def one_detector(
    daemon: Daemon,
    *,
    count: int = 1,
    source: str = "/",
    settings: Mapping[str, object] | None = None,
) -> None:
    """Configures and starts detector 1 with one listing of `count` names; copies wait for "end"."""
    detector = Detector("1", source=source, minpause=1)
    write_configuration({"logfile": LOG_FILE, **(settings or {})}, [detector])
    scripted.add_listing([f"f{number}" for number in range(count)])
    scripted.set_default_copy([f"wait {scripted.gate('end')}", "confirm-all"])
    daemon.start(environment={"SENTINEL": "of the one who started it"})


def test_the_listing_s_command_line(daemon: Daemon) -> None:
    one_detector(daemon, source="data/run")
    call = scripted.wait_for_calls("listing", 1)[0]
    assert call.arguments == expected.listing_arguments(expected.url(source="/data/run/"))


def test_the_listing_s_surroundings(daemon: Daemon) -> None:
    with Consumer():
        one_detector(daemon, count=0)
        calls = scripted.wait_for_calls("listing", 3)
        for call in calls:
            assert call.directory == "/"
            assert call.umask == 0
            assert call.session == daemon.pid
            assert "SENTINEL=of the one who started it" in call.environment
            assert sorted(call.descriptors) == [1, 2]
            assert PIPE.fullmatch(call.descriptors[1][0])
            assert call.descriptors[1][1] & os.O_ACCMODE == os.O_WRONLY
            assert call.descriptors[2][0] == str(LISTING_ERRORS)
            assert call.descriptors[2][1] & os.O_ACCMODE == os.O_WRONLY
        daemon.end()


def test_the_listing_s_complaints_go_to_their_file_alone(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    go_on = scripted.gate("go-on")
    scripted.add_listing_script([err("a first, longer complaint\n"), "exit 5"])
    scripted.add_listing_script([err("second\n"), f"wait {go_on}", "exit 5"])
    daemon.start()
    scripted.wait_for_calls("listing", 2)
    wait_until(
        lambda: LISTING_ERRORS.read_text() == "second\n",
        lambda: f"the second complaint alone; there is {LISTING_ERRORS.read_text()!r}",
    )
    go_on.touch()
    scripted.add_listing(["a"])
    log = daemon.wait_for_log("1: Removed file")
    assert "complaint" not in log and "second" not in log
    assert LISTING_ERRORS.read_text() == ""


def test_the_copy_process_s_command_line(daemon: Daemon) -> None:
    one_detector(daemon, source="/data", count=101)
    for call in scripted.wait_for_calls("copy", 2):
        share = expected.url(source="/data/")
        assert call.arguments == expected.copy_arguments(call.list_name, share, "/srv/images/.")
    log = daemon.wait_for_log("rsync call", 2)
    for call in scripted.calls("copy"):
        command = expected.copy_command(call.list_name, share, "/srv/images/.")
        assert expected.rsync_call("1", command) in log


def test_quotes_in_a_target_are_taken_off_by_the_daemon_alone(daemon: Daemon) -> None:
    detector = Detector("1", target="/srv/it's-'one'\"two\"$HOME;x", minpause=60000)
    write_configuration({"logfile": LOG_FILE}, [detector])
    scripted.add_listing(["a"])
    daemon.start()
    call = scripted.wait_for_calls("copy", 1)[0]
    # An odd quote runs on to the next of its kind; nothing else means anything.
    assert call.arguments[-1] == "/srv/its-one\"two\"$HOME;x/./"
    assert len(call.arguments) == 10
    command = expected.copy_command(call.list_name, expected.url(), f"{detector.target}/.")
    daemon.wait_for_log(expected.rsync_call("1", command))


@pytest.mark.parametrize("uid, gid", [("1000", "100"), ("", ""), ("u" * 300, "g" * 900)])
def test_the_copy_process_s_environment(daemon: Daemon, uid: str, gid: str) -> None:
    settings = {key: value for key, value in (("uid", uid), ("gid", gid)) if value}
    one_detector(daemon, settings=settings)
    call = scripted.wait_for_calls("copy", 1)[0]
    assert call.environment == [f"RSYNC_UID={uid}", f"RSYNC_GID={gid}"]


def check_copy_processes(daemon: Daemon, calls: list[scripted.Call]) -> None:
    """Checks that each has a session, an output and nothing else of its own."""
    pipes = set()
    for call in calls:
        assert call.parent == daemon.pid
        assert (call.session, call.group) == (call.pid, call.pid)
        assert call.directory == "/"
        assert call.umask == 0
        assert sorted(call.descriptors) == [1, 2], call.descriptors
        (output, output_flags), (errors, error_flags) = call.descriptors[1], call.descriptors[2]
        assert output == errors and PIPE.fullmatch(output), call.descriptors
        assert output_flags & os.O_ACCMODE == os.O_WRONLY
        assert error_flags & os.O_ACCMODE == os.O_WRONLY
        assert output_flags & os.O_NONBLOCK == 0
        pipes.add(output)
    assert len(pipes) == len(calls), "each copy process has a pipe of its own"


@pytest.mark.parametrize("closed", [(), (0, 1, 2)])
@pytest.mark.parametrize("count", [1, 101, 1000])
def test_the_copy_process_s_surroundings(
    daemon: Daemon, count: int, closed: tuple[int, ...]
) -> None:
    detector = Detector("1", minpause=1)
    write_configuration({"logfile": LOG_FILE}, [detector])
    scripted.add_listing([f"f{number}" for number in range(count)])
    scripted.set_default_copy([f"wait {scripted.gate('end')}", "confirm-all"])
    daemon.start(closed=closed)
    check_copy_processes(daemon, scripted.wait_for_calls("copy", min(count // 101 + 1, 8)))


def test_the_copy_process_inherits_nothing_while_the_pipe_is_in_use(daemon: Daemon) -> None:
    detectors = [
        Detector(str(number), f"127.0.0.{number}", target=f"/srv/t{number}", minpause=0)
        for number in range(1, 5)
    ]
    write_configuration({"logfile": LOG_FILE}, detectors)
    for detector in detectors:
        for cycle in range(3):
            scripted.add_listing([f"c{cycle}-{number}" for number in range(250)], detector)
    with Consumer() as consumer:
        daemon.start()
        consumer.wait_for(4 * 3 * 250)
        calls = scripted.calls("copy")
        assert len(calls) == 4 * 3 * 3
        check_copy_processes(daemon, calls)
        assert not consumer.repeated()
        daemon.end()


def test_the_daemon_keeps_its_ends_of_the_reports_out_of_the_way(daemon: Daemon) -> None:
    one_detector(daemon, count=1000)
    calls = scripted.wait_for_calls("copy", 8)
    daemon.wait_for_pids(9)

    def kept() -> dict[int, str]:
        return processes.descriptors(daemon.pid)

    # Eight reading ends, and no writing end that would withhold the end of a report.
    wait_until(lambda: len(kept()) == 8, lambda: f"eight descriptors, not {kept()}")
    assert min(kept()) >= 3
    assert set(kept().values()) == {call.descriptors[1][0] for call in calls}


STAND_IN_PATH = {"PATH": f"{scripted.STAND_INS}:/usr/bin:/bin"}


def test_the_target_is_made_and_its_owner_set_in_each_cycle(daemon: Daemon) -> None:
    for name in ("mkdir", "chown"):
        scripted.install_stand_in(name)
    settings: dict[str, object] = {"uid": 1000, "gid": 100, "usrdir": "u$UID"}
    write_configuration({"logfile": LOG_FILE, **settings}, [Detector("1", minpause=1)])
    with Consumer() as consumer:
        scripted.add_listing([])
        scripted.add_listing(["a"])
        daemon.start(environment=STAND_IN_PATH)
        consumer.wait_for(1)
        scripted.wait_for_calls("listing", 5)
        target = "/srv/images/./u1000"
        status = os.stat(target)
        assert (status.st_uid, status.st_gid) == (1000, 100)
        daemon.end()
        owned, made = scripted.calls("chown"), scripted.calls("mkdir")
        assert all(call.arguments == ["mkdir", "-p", target] for call in made)
        assert all(call.arguments == ["chown", "1000:100", target] for call in owned)
        assert 0 <= len(made) - len(owned) <= 1
        # Before every listing: never behind the number of those that were seen.
        assert len(owned) >= 5
        # They have no output to complain to, and nothing of the daemon's.
        assert all(call.descriptors == {} for call in made + owned)
        assert all((call.directory, call.umask) == ("/", 0) for call in made + owned)
        assert consumer.lines() == ["usershift: 1000 100", f"{target}/a"]
    assert "complaint" not in daemon.log() and "remark" not in daemon.log()


def test_without_a_user_directory_no_owner_is_set(daemon: Daemon) -> None:
    scripted.install_stand_in("chown")
    write_configuration(
        {"logfile": LOG_FILE, "uid": 1000, "gid": 100}, [Detector("1", minpause=1)]
    )
    daemon.start(environment=STAND_IN_PATH)
    scripted.wait_for_calls("listing", 3)
    assert not scripted.calls("chown")
    status = os.stat("/srv/images")
    assert (status.st_uid, status.st_gid) == (0, 0)


def test_complaints_about_a_target_land_nowhere(daemon: Daemon) -> None:
    """Targets below a regular file, many detectors, the pipe, the files, the lists in use."""
    Path("/srv/file").write_text("not a folder\n")
    for name in ("mkdir", "chown"):
        scripted.install_stand_in(name)
    detectors = [
        Detector(str(number), f"127.0.0.{number}", target=f"/srv/file/t{number}", minpause=0)
        for number in range(1, 7)
    ]
    settings: dict[str, object] = {"uid": 1000, "gid": 100, "usrdir": "u"}
    write_configuration({"logfile": LOG_FILE, **settings}, detectors)
    cycles, count = 8, 101
    names = {
        (detector.id, cycle): [f"d{detector.id}-c{cycle}-{number}" for number in range(count)]
        for detector in detectors
        for cycle in range(cycles)
    }
    for detector in detectors:
        for cycle in range(cycles):
            scripted.add_listing(names[detector.id, cycle], detector)
            scripted.add_listing([], detector)
    with Consumer() as consumer:
        daemon.start(environment=STAND_IN_PATH)
        consumer.wait_for(len(detectors) * cycles * count)
        for detector in detectors:
            daemon.wait_for_log(f"\n{detector.id}: Removed file", 2 * cycles)
        scripted.wait_for_calls("listing", len(scripted.calls("listing")) + 20)
        log = daemon.log()
        daemon.end()
        lines = consumer.announced()
    assert sorted(lines) == sorted(
        f"/srv/file/t{identity}/./u/{name}"
        for (identity, _), group in names.items()
        for name in group
    )
    texts = {
        "log": log,
        "PID file": PID_FILE.read_text(),
        "status file": STATUS_FILE.read_text(),
        "listing's errors": LISTING_ERRORS.read_text(),
        "regular file": Path("/srv/file").read_text(),
    }
    for place, text in texts.items():
        for word in ("mkdir", "chown", "complaint", "remark", "cannot"):
            assert word not in text, f"{word} in the {place}"
    assert texts["PID file"] == f"{daemon.pid}\n"
    dealt: list[str] = []
    for call in scripted.calls("copy"):
        assert call.names is not None
        dealt += call.names
    assert sorted(dealt) == sorted(name for group in names.values() for name in group)
    for name in ("mkdir", "chown"):
        calls = scripted.calls(name)
        assert len(calls) > len(detectors) * cycles
        for call in calls:
            # What another thread is just opening may show elsewhere, where it does no harm; a
            # writing end of a report would withhold its end.
            assert not {1, 2} & set(call.descriptors), call.descriptors
            for place, flags in call.descriptors.values():
                reading = flags & os.O_ACCMODE == os.O_RDONLY
                assert reading or not PIPE.fullmatch(place), call.descriptors


def test_processes_start_apart_by_the_pause(daemon: Daemon) -> None:
    detector = Detector("1", minpause=1, interrun_pause=120)
    write_configuration({"logfile": LOG_FILE}, [detector])
    scripted.add_listing([f"f{number}" for number in range(250)])
    daemon.start()
    calls = sorted(scripted.wait_for_calls("copy", 3), key=lambda call: call.slot)
    daemon.wait_for_log("1: Removed file", 3)
    # To a tick, so a little less may be seen.
    for first, second in zip(calls, calls[1:]):
        assert second.started - first.started > 100_000_000


def test_no_pause_follows_the_last_process(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", interrun_pause=60000)])
    scripted.add_listing(["a"])
    scripted.add_listing(["b"])
    daemon.start()
    # The pause would be longer than the limit of this wait.
    daemon.wait_for_log("1: Removed file", 2)


def test_an_empty_cycle_is_followed_by_the_pause(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=100)])
    daemon.start()
    times = [call.started for call in scripted.wait_for_calls("listing", 4)]
    assert times[3] - times[0] > 270_000_000


def test_a_cycle_that_copied_is_followed_by_the_next_at_once(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=60000)])
    for number in range(10):
        scripted.add_listing([f"f{number}"])
    daemon.start()
    # Any pause would be longer than the limit of this wait.
    daemon.wait_for_log("1: Removed file", 10)
    scripted.wait_for_calls("listing", 11)


def test_detectors_with_different_pauses_do_not_wait_for_each_other(daemon: Daemon) -> None:
    idle = Detector("idle", "127.0.0.1", target="/srv/idle", minpause=60000)
    busy = Detector("busy", "127.0.0.2", target="/srv/busy", minpause=1)
    stuck = Detector("stuck", "127.0.0.3", target="/srv/stuck", minpause=1)
    write_configuration({"logfile": LOG_FILE}, [idle, busy, stuck])
    scripted.add_listing(["s"], stuck)
    scripted.add_copy([f"wait {scripted.gate('end')}", "confirm-all"], stuck)
    for number in range(20):
        scripted.add_listing([f"b{number}"], busy)
        scripted.add_listing([], busy)
    daemon.start()
    daemon.wait_for_log("busy: Removed file", 20)
    log = daemon.wait_for_log("stuck: rsync call")
    assert "stuck: Child process" not in log and "idle " not in log
    stuck_pid = next(
        call.pid for call in scripted.wait_for_calls("copy", 21) if "127.0.0.3" in call.url
    )
    assert daemon.wait_for_pids(2) == [daemon.pid, stuck_pid]
    scripted.gate("end").touch()
    daemon.wait_for_log("stuck: Removed file")
    urls = [call.url for call in scripted.calls("listing")]
    assert urls.count(expected.url("127.0.0.1")) == 1
