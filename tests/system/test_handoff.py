"""The named pipe: absent, without a reader, slow, occupied by something else, with long paths."""

from __future__ import annotations

import fcntl
import os
import signal
import stat
from pathlib import Path

import pytest

from support import expected, processes, scripted
from support.consumer import Consumer
from support.daemon import FIFO, LOG_FILE, Daemon, Detector, file_lists, write_configuration
from support.scripted import out
from support.waiting import wait_until

F_SETPIPE_SZ = 1031
SOMEBODY = 4321
NO_DESCRIPTOR = "          Bad file descriptor\n"


def configure(*detectors: Detector, **settings: object) -> None:
    chosen = detectors or (Detector("1", target="/srv/t", minpause=1),)
    write_configuration({"logfile": LOG_FILE, **settings}, chosen)


def failed(name: str, reason: str = NO_DESCRIPTOR) -> str:
    return f"++ Error: Failed to pass {name} to VANTREL\n{reason}"


def read_available(descriptor: int) -> bytes:
    try:
        return os.read(descriptor, 1 << 20)
    except BlockingIOError:
        return b""


def test_without_the_pipe_each_process_is_warned_about_once(daemon: Daemon) -> None:
    configure()
    scripted.add_listing([f"f{number}" for number in range(250)])
    scripted.add_listing(["one-more"])
    daemon.start()
    log = daemon.wait_for_log("1: Removed file", 4)
    assert log.count(expected.NO_FIFO) == 4
    assert log.count("VANTREL") == 4
    assert expected.block(confirmed=["one-more"]) in log
    assert not FIFO.exists()


def test_a_pipe_that_comes_later_is_used_from_the_next_process_on(daemon: Daemon) -> None:
    configure()
    scripted.add_listing(["a"])
    daemon.start()
    daemon.wait_for_log("1: Removed file")
    with Consumer() as consumer:
        scripted.add_listing(["b"])
        consumer.wait_for(1)
        assert consumer.lines() == ["/srv/t/./b"]
        daemon.wait_for_log("1: Removed file", 2)
        daemon.end()


def test_the_line_of_the_start_is_kept_open(daemon: Daemon) -> None:
    configure(Detector("1", minpause=60000), uid=1000, gid=100)
    with Consumer() as consumer:
        daemon.start()
        wait_until(consumer.lines, "the line of the start")
        scripted.wait_for_calls("listing", 1)
        assert consumer.lines() == ["usershift: 1000 100"]
        found = processes.descriptors(daemon.pid)
        held = [number for number, place in found.items() if place == str(FIFO.resolve())]
        assert len(held) == 1 and held[0] >= 3, found
        daemon.end()


def test_without_a_reader_the_start_goes_on_and_its_line_is_lost(daemon: Daemon) -> None:
    os.mkfifo(FIFO)
    configure(Detector("1", minpause=1), uid=1000, gid=100)
    daemon.start()
    scripted.wait_for_calls("listing", 2)
    with Consumer() as consumer:
        scripted.add_listing(["a"])
        consumer.wait_for(1)
        assert consumer.lines() == ["/srv/images/./a"]
        daemon.end()


def test_without_a_reader_the_evaluator_waits(daemon: Daemon) -> None:
    os.mkfifo(FIFO)
    names = [f"f{number}" for number in range(250)]
    configure()
    scripted.add_listing(names)
    daemon.start()
    # The processes end (their reports fit into their pipes) and are waited for; nothing is lost.
    log = daemon.wait_for_log("1: Child process", 3)
    daemon.wait_for_pids(1)
    assert expected.BLOCK_BEGIN not in log and "VANTREL" not in log
    assert len(file_lists()) == 3
    listings = len(scripted.calls("listing"))
    with Consumer() as consumer:
        consumer.wait_for(250)
        daemon.wait_for_log("1: Removed file", 3)
        daemon.end()
    assert listings == 1
    assert sorted(consumer.lines()) == sorted(f"/srv/t/./{name}" for name in names)


def test_without_a_reader_a_long_report_stops_its_process(daemon: Daemon) -> None:
    os.mkfifo(FIFO)
    configure()
    scripted.add_listing(["a"])
    done = scripted.gate("done")
    lines = "".join(f"line {number:05d}\n" for number in range(20000))
    text = scripted.FOLDER / "long-report"
    text.write_text(lines)
    scripted.add_copy([f"file {text}", "confirm-all", f"touch {done}"])
    daemon.start()
    pid = scripted.wait_for_calls("copy", 1)[0].pid

    def blocked() -> bool:
        found = processes.process(pid)
        place = Path(f"/proc/{pid}/wchan").read_text()
        return found is not None and found.state == "S" and "pipe" in place

    wait_until(blocked, "the copy process to be stopped by a full pipe")
    assert not done.exists()
    with Consumer() as consumer:
        consumer.wait_for(1)
        log = daemon.wait_for_log("1: Removed file")
        daemon.end()
    assert done.exists()
    assert expected.block(lines, ["a"]) in log


def test_a_waiting_evaluator_does_not_stop_other_detectors(daemon: Daemon) -> None:
    os.mkfifo(FIFO)
    waiting = Detector("waiting", "127.0.0.1", target="/srv/w", minpause=1)
    idle = Detector("idle", "127.0.0.2", target="/srv/i", minpause=1)
    configure(waiting, idle)
    scripted.add_listing(["w"], waiting)
    daemon.start()
    daemon.wait_for_log("waiting: Child process")
    count = len(scripted.calls("listing"))
    scripted.wait_for_calls("listing", count + 10)
    with Consumer() as consumer:
        consumer.wait_for(1)
        daemon.wait_for_log("waiting: Removed file")
        daemon.end()


def test_a_slow_reader_gets_everything(daemon: Daemon) -> None:
    os.mkfifo(FIFO)
    names = [f"run/{number:04d}-{'n' * 60}" for number in range(500)]
    configure()
    scripted.add_listing(names)
    reader = os.open(FIFO, os.O_RDONLY | os.O_NONBLOCK)
    fcntl.fcntl(reader, F_SETPIPE_SZ, 4096)
    daemon.start()
    daemon.wait_for_log("1: Child process", 5)
    # All reports are in, but the pipe to the reader is full.
    log = daemon.log()
    assert expected.BLOCK_END not in log
    assert len(file_lists()) == 5
    received = b""

    def all_read() -> bool:
        nonlocal received
        received += read_available(reader)[:4096]
        return received.count(b"\n") == 501

    wait_until(all_read, lambda: f"500 records; there are {received.count(10)} lines")
    daemon.wait_for_log("1: Removed file", 5)
    daemon.end()
    lines = received.decode().splitlines()
    assert lines[0] == "usershift:  "
    assert sorted(lines[1:]) == sorted(f"/srv/t/./{name}" for name in names)
    assert "VANTREL" not in log
    os.close(reader)


def test_each_record_is_one_write(daemon: Daemon) -> None:
    """Records of eight processes come whole, however they are interleaved."""
    names = [f"{number:05d}-{'n' * (number % 200)}" for number in range(1600)]
    configure()
    scripted.add_listing(names)
    with Consumer() as consumer:
        daemon.start()
        consumer.wait_for(1600)
        daemon.wait_for_log("1: Removed file", 8)
        daemon.end()
    assert sorted(consumer.announced()) == sorted(f"/srv/t/./{name}" for name in names)


def long_target(record: int, name: str) -> str:
    """A target that makes a record of so many bytes with `name`."""
    length = record - len("/.") - len("/" + name + "\n")
    target = "/srv"
    while len(target) < length:
        target += "/" + "t" * min(199, length - len(target) - 1)
    return target


@pytest.mark.parametrize("size", [4095, 4096, 4097, 5000])
def test_records_about_the_size_that_is_written_whole(daemon: Daemon, size: int) -> None:
    name = "frame.dat"
    target = long_target(size, name)
    configure(uid=1)
    scripted.add_listing([name])
    scripted.add_copy([out(f"SENT: {name}\nCONFIRMED: x {name}\nCONFIRMED: x b\n")])
    with Consumer() as consumer:
        daemon.start("-d", f"1:/:{target}")
        consumer.wait_for(2)
        log = daemon.wait_for_log("1: Removed file")
        daemon.end()
    record = f"{target}/./{name}"
    assert len(record) + 1 == size
    assert consumer.announced() == [record, f"{target}/./b"]

    def warning(of: str) -> str:
        return (
            f'++ Warning: Path to "{of}" is longer than 4096\n'
            "            Atomicity of pipe operation is not guaranteed.\n"
        )

    log = log.replace(expected.ended("1", scripted.calls("copy")[0].pid), "")
    assert log.count("Warning") == (size > 4096) + (size - 8 > 4096)
    if size > 4096:
        assert warning(name) in log
    if size - 8 > 4096:
        assert warning(name) + warning("b") in log
    assert expected.block(confirmed=[name, "b"]) in log


def test_a_folder_in_place_of_the_pipe(daemon: Daemon) -> None:
    FIFO.mkdir()
    configure()
    scripted.add_listing(["a", "b"])
    scripted.add_copy([out("SENT: a\nCONFIRMED: x a\nCONFIRMED: x\nCONFIRMED: x b\nSENT: c\n")])
    daemon.start()
    log = daemon.wait_for_log("1: Removed file")
    passed = failed("a") + failed("") + failed("b")
    assert passed + expected.block(confirmed=["a", "b"], lost=["c"]) in log.replace(
        expected.ended("1", scripted.calls("copy")[0].pid), ""
    )
    assert expected.NO_FIFO not in log


def test_a_pipe_that_may_not_be_written(daemon: Daemon) -> None:
    os.mkfifo(FIFO, 0o600)
    for place in ("/run", "/srv"):
        os.chmod(place, 0o777)
    configure(uid=1000)
    LOG_FILE.parent.chmod(0o777)
    scripted.add_listing(["a"])
    with Consumer() as consumer:
        daemon.start(user=SOMEBODY)
        log = daemon.wait_for_log("1: Removed file")
        assert daemon.end() == -signal.SIGTERM
        assert consumer.lines() == []
    assert failed("a") in log
    assert expected.block(confirmed=["a"]) in log


def test_a_regular_file_in_place_of_the_pipe(daemon: Daemon) -> None:
    """It is written like the pipe: each opening starts at its beginning and cuts nothing off."""
    FIFO.write_text("x" * 100)
    configure(uid="u", gid="g")
    daemon.start()
    scripted.wait_for_calls("listing", 1)
    assert FIFO.read_text() == "usershift: u g\n" + "x" * 85
    scripted.add_listing(["a", "b"])
    log = daemon.wait_for_log("1: Removed file")
    records = "/srv/t/./a\n/srv/t/./b\n"
    assert FIFO.read_text() == records + "x" * (100 - len(records))
    assert "VANTREL" not in log
    assert stat.S_ISREG(FIFO.stat().st_mode)


def test_a_link_to_the_pipe_is_followed_and_one_to_nothing_is_no_pipe(daemon: Daemon) -> None:
    FIFO.symlink_to("/srv/elsewhere")
    configure()
    scripted.add_listing(["a"])
    daemon.start()
    daemon.wait_for_log(expected.NO_FIFO)
    daemon.wait_for_log("1: Removed file")
    with Consumer(Path("/srv/elsewhere")) as consumer:
        scripted.add_listing(["b"])
        consumer.wait_for(1)
        assert consumer.announced() == ["/srv/t/./b"]
        daemon.wait_for_log("1: Removed file", 2)
        daemon.end()


def test_a_reader_that_goes_away_while_records_are_written_ends_the_daemon(
    daemon: Daemon,
) -> None:
    os.mkfifo(FIFO)
    configure()
    scripted.add_listing(["a", "b"])
    go_on = scripted.gate("go-on")
    scripted.add_copy([out("CONFIRMED: x a\n"), f"wait {go_on}", out("CONFIRMED: x b\n")])
    daemon.start()
    scripted.wait_for_calls("listing", 1)  # the line of the start has found no reader
    reader = os.open(FIFO, os.O_RDONLY)
    received = os.read(reader, 100)
    assert received == b"/srv/t/./a\n"
    os.close(reader)
    go_on.touch()
    assert daemon.wait_ended() == -signal.SIGPIPE


def test_the_pipe_is_opened_once_for_each_process_and_closed_with_it(daemon: Daemon) -> None:
    os.mkfifo(FIFO)
    configure()
    daemon.start()  # without a reader, so that the start leaves no descriptor
    scripted.wait_for_calls("listing", 1)
    end = scripted.gate("end")
    scripted.set_default_copy([f"wait {end}", "confirm-all"])

    def opened() -> list[int]:
        found = processes.descriptors(daemon.pid)
        return [number for number, place in found.items() if place == str(FIFO.resolve())]

    with Consumer() as consumer:
        scripted.add_listing([f"f{number}" for number in range(250)])
        wait_until(lambda: len(opened()) == 3, lambda: f"three descriptors, not {opened()}")
        assert min(opened()) >= 3
        end.touch()
        consumer.wait_for(250)
        daemon.wait_for_log("1: Removed file", 3)
        assert opened() == []
        daemon.end()
