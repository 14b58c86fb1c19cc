"""The whole log of a run, byte for byte."""

from __future__ import annotations

import re

from support import expected, scripted
from support.daemon import LOG_FILE, Daemon, Detector, write_configuration
from support.scripted import err, out
from support.waiting import wait_until


def head(log: str, detectors: list[str]) -> str:
    """What stands before the first worker's line of a log."""
    lines = "".join(expected.starting_thread(detector) for detector in detectors)
    return expected.banner(expected.date_in(log)) + expected.settings() + lines


def run_and_report(daemon: Daemon) -> str:
    """The log once the idle daemon was ended, which must not have added a byte."""
    listings = len(scripted.calls("listing"))
    scripted.wait_for_calls("listing", listings + 3)
    log = daemon.log()
    daemon.end()
    assert daemon.log() == log
    return log


def test_an_idle_daemon_leaves_its_log_alone(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    daemon.start()
    scripted.wait_for_calls("listing", 10)
    log = run_and_report(daemon)
    assert log == head(log, ["1"])


def test_one_copy_process(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    reported, ended = scripted.gate("reported"), scripted.gate("ended")
    scripted.add_listing([])
    scripted.add_listing(["b", "a"])
    steps = [
        out("receiving file list ... done\n"),
        out("SENT: b\nSENT: a\n"),
        out("\n"),
        err("warning: a word\n"),
        out("CONFIRMED: removed b\nCONFIRMED: removed a\n"),
        out("sent 1 bytes  received 2 bytes\n"),
        "close",
        f"touch {reported}",
        f"wait {ended}",
    ]
    scripted.add_copy(steps)
    daemon.start()
    wait_until(reported.exists, "the report")
    daemon.wait_for_log(expected.BLOCK_END)
    ended.touch()
    daemon.wait_for_log("1: Removed file")
    log = run_and_report(daemon)
    call = scripted.calls("copy")[0]
    command = expected.copy_command(call.list_name, expected.url(), "/srv/images/.")
    output = "receiving file list ... done\n\nwarning: a word\nsent 1 bytes  received 2 bytes\n"
    assert log == (
        head(log, ["1"])
        + expected.SEPARATOR * 2
        + expected.starting("1", 1)
        + expected.rsync_call("1", command)
        + expected.NO_FIFO
        + expected.block(output, ["b", "a"])
        + expected.ended("1", call.pid)
        + expected.removed("1", call.list_name)
    )
    assert re.fullmatch(rf"/tmp/file_list_{daemon.pid}_-?\d+_0", call.list_name)
    assert -(2**31) <= int(call.list_name.split("_")[3]) < 2**31


def test_the_separators_of_empty_cycles_pile_up(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    ended = scripted.gate("ended")
    scripted.set_default_copy(["confirm-all", "close", f"wait {ended}"])
    ended.touch()
    for _ in range(7):
        scripted.add_listing([])
    scripted.add_listing(["a"])
    for _ in range(3):
        scripted.add_listing([])
    scripted.add_listing(["b"])
    scripted.add_listing(["c"])
    daemon.start()
    daemon.wait_for_log("1: Removed file", 3)
    log = run_and_report(daemon)
    before = [log.split(expected.starting("1", 1))[number] for number in range(3)]
    assert before[0] == head(log, ["1"]) + expected.SEPARATOR * 8
    list_name = scripted.calls("copy")[0].list_name
    removed = expected.removed("1", list_name)
    assert before[1].endswith(removed + expected.SEPARATOR * 4)
    assert before[2].endswith(removed + expected.SEPARATOR)
    assert log.endswith(removed)
    assert log.count(expected.SEPARATOR) == 13


def test_eight_copy_processes(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("det-1", source="data", minpause=1)])
    detector = Detector("det-1", source="/data/")
    names = [f"run/f{number:04d}" for number in range(1000)]
    scripted.add_listing(names, detector)
    for slot in range(8):
        steps = [
            f"wait {scripted.gate(f'report-{slot}')}",
            out(f"process {slot}\n"),
            "confirm-all",
            "close",
            f"wait {scripted.gate(f'end-{slot}')}",
        ]
        scripted.add_copy(steps, detector, slot)
    daemon.start()
    calls = {call.slot: call for call in scripted.wait_for_calls("copy", 8)}
    order = [3, 0, 7, 1, 6, 2, 5, 4]
    for count, slot in enumerate(order, start=1):
        scripted.gate(f"report-{slot}").touch()
        daemon.wait_for_log(expected.BLOCK_END, count)
    for count, slot in enumerate(reversed(order), start=1):
        scripted.gate(f"end-{slot}").touch()
        daemon.wait_for_log("det-1: Child process", count)
    daemon.wait_for_log("det-1: Removed file", 8)
    log = run_and_report(daemon)

    share = expected.url(source="/data/")
    commands = {
        slot: expected.copy_command(calls[slot].list_name, share, "/srv/images/.")
        for slot in range(8)
    }
    # The warnings come from the evaluators' own threads while the worker still starts processes.
    assert log.count(expected.NO_FIFO) == 8
    assert log.replace(expected.NO_FIFO, "") == (
        head(log, ["det-1"])
        + expected.SEPARATOR
        + expected.starting("det-1", 8)
        + "".join(expected.rsync_call("det-1", commands[slot]) for slot in range(8))
        + "".join(expected.block(f"process {slot}\n", names[slot::8]) for slot in order)
        + "".join(expected.ended("det-1", calls[slot].pid) for slot in reversed(order))
        + "".join(expected.removed("det-1", calls[slot].list_name) for slot in range(8))
    )
    assert [calls[slot].names for slot in range(8)] == [names[slot::8] for slot in range(8)]


def test_two_detectors_write_whole_lines(daemon: Daemon) -> None:
    detectors = [
        Detector("left", "127.0.0.1", target="/srv/left", minpause=0),
        Detector("right", "127.0.0.2", target="/srv/right", minpause=0),
    ]
    write_configuration({"logfile": LOG_FILE}, detectors)
    cycles = 25
    for detector in detectors:
        for cycle in range(cycles):
            scripted.add_listing([f"{detector.id}{cycle}"], detector)
    daemon.start()
    for detector in detectors:
        daemon.wait_for_log(f"{detector.id}: Removed file", cycles)
    log = run_and_report(daemon)
    calls = scripted.calls("copy")
    wanted: list[str] = []
    for detector in detectors:
        share = expected.url(str(detector.address))
        own = [call for call in calls if call.url == share]
        assert len(own) == cycles
        for cycle, call in enumerate(own):
            name = f"{detector.id}{cycle}"
            command = expected.copy_command(call.list_name, share, f"{detector.target}/.")
            wanted += [
                expected.starting(str(detector.id), 1),
                expected.rsync_call(str(detector.id), command),
                expected.ended(str(detector.id), call.pid),
                expected.removed(str(detector.id), call.list_name),
                expected.NO_FIFO,
                *expected.block(confirmed=[name]).splitlines(keepends=True),
            ]
        wanted.append(expected.starting_thread(str(detector.id)))
    body = log.replace(expected.SEPARATOR, "")
    start = expected.banner(expected.date_in(log)) + expected.settings()
    assert body.startswith(start)
    assert sorted(body[len(start) :].splitlines(keepends=True)) == sorted(wanted)
    # An evaluator writes its block at once, so no line of the other detector gets into it.
    for detector in detectors:
        for cycle in range(cycles):
            assert expected.block(confirmed=[f"{detector.id}{cycle}"]) in log


def test_a_removed_log_comes_back_with_the_next_line(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    hold = scripted.gate("hold")
    scripted.add_listing(["a"])
    scripted.add_copy([f"wait {hold}", "confirm-all"])
    daemon.start()
    scripted.wait_for_calls("copy", 1)
    daemon.wait_for_log("rsync call")
    daemon.wait_for_log(expected.NO_FIFO)
    LOG_FILE.unlink()
    hold.touch()
    log = daemon.wait_for_log("1: Removed file")
    call = scripted.calls("copy")[0]
    ended, block = expected.ended("1", call.pid), expected.block(confirmed=["a"])
    removed = expected.removed("1", call.list_name)
    assert log in (ended + block + removed, block + ended + removed)
    assert LOG_FILE.stat().st_mode & 0o7777 == 0o644


def test_a_log_that_can_no_longer_be_written_stops_nothing(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    hold = scripted.gate("hold")
    scripted.add_listing(["a"])
    scripted.add_copy([f"wait {hold}", "confirm-all"])
    daemon.start()
    scripted.wait_for_calls("copy", 1)
    daemon.wait_for_log(expected.NO_FIFO)
    kept = LOG_FILE.with_name("kept")
    LOG_FILE.rename(kept)
    LOG_FILE.mkdir()
    hold.touch()
    listings = len(scripted.calls("listing"))
    scripted.wait_for_calls("listing", listings + 2)
    LOG_FILE.rmdir()
    scripted.add_listing(["b"])
    log = daemon.wait_for_log("1: Removed file")
    assert expected.block(confirmed=["b"]) in log
    assert " a ... a" not in log
