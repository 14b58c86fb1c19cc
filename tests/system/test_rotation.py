"""The log's rotation by size, idle and under load."""

from __future__ import annotations

import os
import re
from pathlib import Path

import pytest

from support import expected, scripted
from support.daemon import LOG_FILE, Daemon, Detector, write_configuration
from support.waiting import wait_until


def configure(max_size: object, max_number: object, *detectors: Detector) -> None:
    settings: dict[str, object] = {
        "logfile": LOG_FILE,
        "logfile_max_size": max_size,
        "logfile_max_number": max_number,
    }
    write_configuration(settings, detectors or [Detector("1", minpause=1)])


def archive(number: int) -> Path:
    return LOG_FILE.with_name(f"{LOG_FILE.name}.{number}")


def files() -> list[str]:
    return sorted(path.name for path in LOG_FILE.parent.iterdir())


def start_length(size: int) -> int:
    """How long the log is when the first worker begins; every date has the same length."""
    date = "Sun Nov 21 05:05:05 2026"
    text = expected.banner(date) + expected.settings(max_size=size) + expected.starting_thread("1")
    return len(text)


@pytest.mark.parametrize("over, rotated", [(0, False), (1, True)])
def test_a_log_as_long_as_the_limit_stays(daemon: Daemon, over: int, rotated: bool) -> None:
    length = start_length(100)
    assert 100 <= length - over < 1000, "the limit must have as many digits as assumed"
    configure(length - over, 10)
    daemon.start()
    scripted.wait_for_calls("listing", 5)
    assert files() == (["skarn.log.0"] if rotated else ["skarn.log"])
    assert len((archive(0) if rotated else LOG_FILE).read_bytes()) == length


@pytest.mark.parametrize("max_size", ["-1", "2G", "-3M"])
def test_a_negative_limit_never_rotates(daemon: Daemon, max_size: str) -> None:
    configure(max_size, 10)
    # Longer than any limit of 32 bits; a file with a hole takes no memory.
    length = 5 << 30
    LOG_FILE.touch()
    os.truncate(LOG_FILE, length)
    daemon.start()
    scripted.add_listing(["a"])
    scripted.wait_for_calls("copy", 1)
    count = len(scripted.calls("listing"))
    scripted.wait_for_calls("listing", count + 3)
    assert files() == ["skarn.log"]
    with LOG_FILE.open("rb") as log:
        log.seek(length)
        text = log.read().decode()
    assert text.startswith("\n\n\n\n++++") and expected.block(confirmed=["a"]) in text


@pytest.mark.parametrize("max_size", ["0", "4G"])
def test_a_limit_of_0_rotates_whatever_is_not_empty(daemon: Daemon, max_size: str) -> None:
    configure(max_size, 10)
    daemon.start()
    scripted.wait_for_calls("listing", 5)
    # Nothing was logged since, and what is missing is not rotated.
    assert files() == ["skarn.log.0"]
    before = archive(0).read_bytes()
    scripted.add_listing(["a"])
    wait_until(lambda: files() == ["skarn.log.0", "skarn.log.1"], lambda: f"rotation: {files()}")
    count = len(scripted.calls("listing"))
    scripted.wait_for_calls("listing", count + 3)
    assert files() == ["skarn.log.0", "skarn.log.1"]
    assert archive(1).read_bytes() == before
    text = archive(0).read_text()
    assert text.startswith(expected.SEPARATOR)
    assert expected.block(confirmed=["a"]) in text
    assert archive(0).stat().st_mode & 0o7777 == 0o644


def test_an_empty_log_is_not_rotated(daemon: Daemon) -> None:
    configure(0, 10)
    daemon.start()
    scripted.wait_for_calls("listing", 3)
    LOG_FILE.touch()
    count = len(scripted.calls("listing"))
    scripted.wait_for_calls("listing", count + 3)
    assert files() == ["skarn.log", "skarn.log.0"]


def rotate_often(daemon: Daemon, cycles: int) -> None:
    for cycle in range(cycles):
        scripted.add_listing([f"cycle-{cycle}"])
    daemon.start()
    scripted.wait_for_calls("listing", cycles + 3)


def cycles_in(path: Path) -> list[int]:
    found: list[str] = re.findall(r"^Copied 1 files .* cycle-(\d+)$", path.read_text(), re.M)
    return [int(number) for number in found]


def test_the_highest_archive_number_is_the_setting(daemon: Daemon) -> None:
    configure(0, 2)
    archive(7).write_text("someone else's\n")
    rotate_often(daemon, 10)
    assert files() == ["skarn.log.0", "skarn.log.1", "skarn.log.2", "skarn.log.7"]
    assert [cycles_in(archive(number)) for number in range(3)] == [[9], [8], [7]]
    assert archive(7).read_text() == "someone else's\n"


def test_eleven_archives_by_default(daemon: Daemon) -> None:
    write_configuration(
        {"logfile": LOG_FILE, "logfile_max_size": 0}, [Detector("1", minpause=1)]
    )
    rotate_often(daemon, 15)
    assert len(files()) == 11
    assert [cycles_in(archive(number)) for number in range(11)] == [
        [14 - number] for number in range(11)
    ]


@pytest.mark.parametrize("max_number", ["0", "-4", "-2147483648"])
def test_without_numbers_there_is_one_archive(daemon: Daemon, max_number: str) -> None:
    configure(0, max_number)
    archive(1).write_text("someone else's\n")
    rotate_often(daemon, 4)
    assert files() == ["skarn.log.0", "skarn.log.1"]
    assert cycles_in(archive(0)) == [3]
    assert archive(1).read_text() == "someone else's\n"


def test_a_gap_in_the_archives_is_no_trouble(daemon: Daemon) -> None:
    configure(0, 4)
    archive(0).write_text("zero\n")
    archive(2).write_text("two\n")
    daemon.start()
    scripted.wait_for_calls("listing", 3)
    assert files() == ["skarn.log.0", "skarn.log.1", "skarn.log.3"]
    assert archive(1).read_text() == "zero\n" and archive(3).read_text() == "two\n"


def test_an_archive_that_cannot_be_moved_is_left(daemon: Daemon) -> None:
    configure(0, 3)
    (archive(1) / "occupied").mkdir(parents=True)
    (archive(2) / "occupied").mkdir(parents=True)
    (archive(3) / "occupied").mkdir(parents=True)
    rotate_often(daemon, 3)
    # Nothing moves above the folders, and the log still goes to number 0.
    assert files() == ["skarn.log.0", "skarn.log.1", "skarn.log.2", "skarn.log.3"]
    assert cycles_in(archive(0)) == [2]


def test_no_line_is_lost_under_load(daemon: Daemon) -> None:
    detectors = [
        Detector(f"d{number}", f"127.0.0.{number}", target=f"/srv/t{number}", minpause=0)
        for number in range(1, 4)
    ]
    configure(3000, 500, *detectors)
    cycles, count = 25, 150
    names = {
        (detector.id, cycle): [f"{detector.id}-{cycle}-{number:03d}" for number in range(count)]
        for detector in detectors
        for cycle in range(cycles)
    }
    for detector in detectors:
        for cycle in range(cycles):
            scripted.add_listing(names[detector.id, cycle], detector)
    daemon.start()
    wanted = len(detectors) * cycles * 2

    def removed() -> int:
        return daemon.archived_log().count(": Removed file")

    # While a rotation goes on, a file may be seen twice: nothing more must come.
    wait_until(lambda: removed() >= wanted, lambda: f"{wanted} removals; there are {removed()}")
    idle = len(scripted.calls("listing"))
    scripted.wait_for_calls("listing", idle + 5 * len(detectors))
    wait_until(lambda: removed() == wanted, lambda: f"{wanted} removals; there are {removed()}")
    daemon.end()
    log = daemon.archived_log()

    calls = scripted.calls("copy")
    assert len(calls) == wanted
    lines = [expected.starting_thread(str(detector.id)) for detector in detectors]
    for detector in detectors:
        share = expected.url(str(detector.address))
        lines += [expected.starting(str(detector.id), 2)] * cycles
        for call in (call for call in calls if call.url == share):
            assert call.names is not None
            command = expected.copy_command(call.list_name, share, f"{detector.target}/.")
            lines += [
                expected.rsync_call(str(detector.id), command),
                expected.ended(str(detector.id), call.pid),
                expected.removed(str(detector.id), call.list_name),
                expected.NO_FIFO,
                *expected.block(confirmed=call.names).splitlines(keepends=True),
            ]
    start = expected.banner(expected.date_in(log)) + expected.settings(
        max_size=3000, max_number=500
    )
    assert log.startswith(start)
    body = log[len(start) :].replace(expected.SEPARATOR, "")
    assert sorted(body.splitlines(keepends=True)) == sorted(lines)
    archives = [path for path in LOG_FILE.parent.iterdir() if path != LOG_FILE]
    assert len(archives) > 5
    assert all(path.stat().st_size > 3000 for path in archives)


def log_files() -> list[Path]:
    """The files of the log, the oldest first."""
    numbers = [int(path.suffix[1:]) for path in LOG_FILE.parent.glob("*.log.*")]
    archives = [archive(number) for number in sorted(numbers, reverse=True)]
    return archives + ([LOG_FILE] if LOG_FILE.exists() else [])


def test_blocks_stay_whole_when_every_cycle_rotates(daemon: Daemon) -> None:
    """Each evaluator's block stands whole in one file, and each worker's lines in their order."""
    detectors = [
        Detector(f"d{number}", f"127.0.0.{number}", target=f"/srv/t{number}", minpause=0)
        for number in range(1, 5)
    ]
    configure(0, 3000, *detectors)
    cycles, sizes = 20, (1, 120, 250)
    remark = "".join(f"remark {number}\n" for number in range(30))
    scripted.set_default_copy(
        [
            scripted.out(remark),
            scripted.out("SENT: one-that-is-lost\n"),
            "confirm-all",
            scripted.err("complaint\n"),
        ]
    )
    for detector in detectors:
        for cycle in range(cycles):
            count = sizes[cycle % len(sizes)]
            names = [f"{detector.id}-{cycle:02d}-{number:03d}" for number in range(count)]
            scripted.add_listing(names, detector)
    processes_of = [sizes[cycle % len(sizes)] // 101 + 1 for cycle in range(cycles)]
    wanted = len(detectors) * sum(processes_of)
    daemon.start()

    def removed() -> int:
        return daemon.archived_log().count(": Removed file")

    # While a rotation goes on, a file may be seen twice: nothing more must come.
    wait_until(lambda: removed() >= wanted, lambda: f"{wanted} removals; there are {removed()}")
    idle = len(scripted.calls("listing"))
    scripted.wait_for_calls("listing", idle + 5 * len(detectors))
    wait_until(lambda: removed() == wanted, lambda: f"{wanted} removals; there are {removed()}")
    daemon.end()

    texts = [path.read_text() for path in log_files()]
    assert len(texts) > len(detectors) * cycles / 2, "too few rotations to prove anything"
    assert all(texts), "an empty log was rotated"
    calls = scripted.calls("copy")
    assert len(calls) == wanted
    for call in calls:
        block = expected.block(remark + "complaint\n", call.names or [], ["one-that-is-lost"])
        holding = [number for number, text in enumerate(texts) if "\n" + block in "\n" + text]
        assert len(holding) == 1, f"{len(holding)} files hold the block of {call.names}"
        texts[holding[0]] = texts[holding[0]].replace(block, "", 1)

    rest = "".join(texts)
    assert rest.count(expected.NO_FIFO) == wanted
    start = expected.banner(expected.date_in(rest)) + expected.settings(max_size=0, max_number=3000)
    assert rest.startswith(start)
    body = rest[len(start) :].replace(expected.NO_FIFO, "").replace(expected.SEPARATOR, "")
    lines = body.splitlines(keepends=True)
    for detector in detectors:
        identity = str(detector.id)
        lines.remove(expected.starting_thread(identity))
        share = expected.url(str(detector.address))
        own_calls = [call for call in calls if call.url == share]
        own = [line for line in lines if line.startswith(identity)]
        lines = [line for line in lines if not line.startswith(identity)]
        for cycle, number in enumerate(processes_of):
            of_cycle = [
                call
                for call in own_calls
                if (call.names or [""])[0].startswith(f"{identity}-{cycle:02d}-")
            ]
            of_cycle.sort(key=lambda call: call.slot)
            assert len(of_cycle) == number
            part, own = own[: 1 + 3 * number], own[1 + 3 * number :]
            commands = [
                expected.copy_command(call.list_name, share, f"{detector.target}/.")
                for call in of_cycle
            ]
            assert part[: 1 + number] == [
                expected.starting(identity, number),
                *(expected.rsync_call(identity, command) for command in commands),
            ]
            # The copy processes end in any order.
            assert sorted(part[1 + number : 1 + 2 * number]) == sorted(
                expected.ended(identity, call.pid) for call in of_cycle
            )
            assert part[1 + 2 * number :] == [
                expected.removed(identity, call.list_name) for call in of_cycle
            ]
        assert own == []
    assert lines == []
