"""What fails around the daemon is logged, survived, and made up for by the next cycle."""

from __future__ import annotations

import os
import signal
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest

from support import expected, processes, scripted
from support.consumer import Consumer
from support.daemon import (
    COPY_PROGRAM,
    LISTING_ERRORS,
    LOG_FILE,
    PID_FILE,
    STATUS_FILE,
    Daemon,
    Detector,
    file_lists,
    write_configuration,
)
from support.scripted import listing, out
from support.waiting import wait_until

SOMEBODY = 4321
NO_FORK = "1: Error: Could not fork subprocess\n"
# Ten blanks where no pipe could be had, seven where no process could.
NO_PIPE_REASON = NO_FORK + " " * 10 + "Too many open files\n"
NO_PROCESS_REASON = NO_FORK + " " * 7 + "Resource temporarily unavailable\n"
LISTING_FAILED = "1: Error: Listing failed\n"


def start_held_listing(daemon: Daemon, names: list[str], user: int | None = None) -> Path:
    """Starts detector 1 with a listing that prints its names and then waits; returns its gate."""
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    if user is not None:
        for place in (Path("/run"), Path("/srv"), LOG_FILE.parent):
            place.chmod(0o777)
    go_on = scripted.gate("listed")
    content = scripted.FOLDER / "names"
    content.write_text(listing(names))
    scripted.add_listing_script([f"file {content}", f"wait {go_on}"])
    daemon.start(user=user)
    scripted.wait_for_calls("listing", 1)
    return go_on


def set_soft_limit(daemon: Daemon, name: str, value: int) -> Callable[[], None]:
    """Lowers a limit ("nofile" or "nproc") of the running daemon; the result puts it back.

    Done by a process of the daemon's own user: root may lack the right over others' limits.
    """
    user = os.stat(f"/proc/{daemon.pid}").st_uid

    def prlimit(*words: str) -> str:
        command = ["prlimit", f"--pid={daemon.pid}", *words]
        run = subprocess.run(
            command,
            user=user,
            group=user,
            extra_groups=[],
            stdout=subprocess.PIPE,
            check=True,
            timeout=30,
        )
        return run.stdout.decode().strip()

    before = prlimit("--noheadings", "--output=SOFT", f"--{name}")
    prlimit(f"--{name}={value}:")

    def put_back() -> None:
        prlimit(f"--{name}={before}:")

    return put_back


def threads(daemon: Daemon) -> int:
    return len(os.listdir(f"/proc/{daemon.pid}/task"))


def calls_lines(names_of_lists: list[str], reasons: list[str]) -> str:
    """The lines of copy processes that were called and what followed each."""
    return "".join(
        expected.rsync_call(
            "1", expected.copy_command(name, expected.url(), "/srv/images/.")
        )
        + reason
        for name, reason in zip(names_of_lists, reasons)
    )


def list_stem(log: str) -> str:
    """The names of the file lists in a log, without their last number."""
    start = log.index(" --files-from=") + len(" --files-from=")
    return log[start : log.index(" rsync://", start)].rpartition("_")[0]


def test_no_pipe_for_any_process(daemon: Daemon) -> None:
    go_on = start_held_listing(daemon, ["a"])
    # One descriptor for the log, one for the file list: a pipe takes more.
    put_back = set_soft_limit(daemon, "nofile", 4)
    go_on.touch()
    daemon.wait_for_log(NO_PIPE_REASON)
    log = daemon.wait_for_log(LISTING_FAILED, 3)
    put_back()
    name = list_stem(log) + "_0"
    # The listings fail too, and end their lines: the separators come out with each.
    assert (
        expected.SEPARATOR
        + expected.starting("1", 1)
        + calls_lines([name], [NO_PIPE_REASON])
        + expected.removed("1", name)
        + (expected.SEPARATOR + LISTING_FAILED) * 3
    ) in log
    assert not scripted.calls("copy")
    assert PID_FILE.read_text() == f"{daemon.pid}\n"
    scripted.add_listing(["a"])
    daemon.wait_for_log(expected.block(confirmed=["a"]))


def test_no_pipe_for_some_processes(daemon: Daemon) -> None:
    names = [f"f{number}" for number in range(1000)]
    go_on = start_held_listing(daemon, names)
    scripted.set_default_copy([f"wait {scripted.gate('end')}", "confirm-all"])
    # From 3 on there is room for the reports of seven processes, and for one end of another pipe.
    put_back = set_soft_limit(daemon, "nofile", 11)
    go_on.touch()
    daemon.wait_for_log("rsync call", 8)
    failed = daemon.wait_for_log(NO_PIPE_REASON).count(NO_PIPE_REASON)
    assert failed == 1, daemon.log()
    calls = sorted(scripted.wait_for_calls("copy", 8 - failed), key=lambda call: call.slot)
    pids = daemon.wait_for_pids(9 - failed)
    assert pids == [daemon.pid, *(call.pid for call in calls)]
    put_back()
    scripted.gate("end").touch()
    log = daemon.wait_for_log("1: Removed file", 8)
    stem = list_stem(log)
    started = {call.slot for call in calls}
    reasons = ["" if slot in started else NO_PIPE_REASON for slot in range(8)]
    lines = calls_lines([f"{stem}_{slot}" for slot in range(8)], reasons)
    assert lines in log.replace(expected.NO_FIFO, "")
    assert log.endswith("".join(expected.removed("1", f"{stem}_{slot}") for slot in range(8)))
    for call in calls:
        assert call.names == names[call.slot :: 8]
        assert expected.block(confirmed=call.names) in log
    # What was left in the share is listed again.
    left = [name for slot in range(8) if slot not in started for name in names[slot::8]]
    scripted.add_listing(left)
    daemon.wait_for_log("1: Removed file", 8 + len(left) // 101 + 1)
    copied: list[str] = []
    for call in scripted.calls("copy"):
        assert call.names is not None
        copied += call.names
    assert sorted(copied) == sorted(names)


def test_no_process_for_any(daemon: Daemon) -> None:
    names = [f"f{number}" for number in range(250)]
    go_on = start_held_listing(daemon, names, SOMEBODY)
    put_back = set_soft_limit(daemon, "nproc", threads(daemon))
    go_on.touch()
    daemon.wait_for_log(NO_PROCESS_REASON, 3)
    log = daemon.wait_for_log(LISTING_FAILED, 2)
    put_back()
    lists = [f"{list_stem(log)}_{slot}" for slot in range(3)]
    assert (
        expected.SEPARATOR
        + expected.starting("1", 3)
        + calls_lines(lists, [NO_PROCESS_REASON] * 3)
        + "".join(expected.removed("1", name) for name in lists)
        + (expected.SEPARATOR + LISTING_FAILED) * 2
    ) in log
    assert PID_FILE.read_text() == f"{daemon.pid}\n"
    scripted.add_listing(["a"])
    daemon.wait_for_log(expected.block(confirmed=["a"]))


def test_no_process_for_some(daemon: Daemon) -> None:
    names = [f"f{number}" for number in range(250)]
    go_on = start_held_listing(daemon, names, SOMEBODY)
    scripted.set_default_copy([f"wait {scripted.gate('end')}", "confirm-all"])
    # Room for one copy process and its evaluator.
    put_back = set_soft_limit(daemon, "nproc", threads(daemon) + 2)
    go_on.touch()
    daemon.wait_for_log(NO_PROCESS_REASON, 2)
    call = scripted.wait_for_calls("copy", 1)[0]
    assert daemon.wait_for_pids(2) == [daemon.pid, call.pid]
    put_back()
    scripted.gate("end").touch()
    log = daemon.wait_for_log("1: Removed file", 3)
    lists = [f"{list_stem(log)}_{slot}" for slot in range(3)]
    reasons = ["", NO_PROCESS_REASON, NO_PROCESS_REASON]
    assert calls_lines(lists, reasons) in log.replace(expected.NO_FIFO, "")
    assert expected.block(confirmed=names[0::3]) in log
    assert log.count(expected.BLOCK_BEGIN) == 1
    assert log.endswith("".join(expected.removed("1", name) for name in lists))
    scripted.add_listing(["a"])
    daemon.wait_for_log(expected.block(confirmed=["a"]))


def test_no_thread_for_an_evaluator(daemon: Daemon) -> None:
    """The report is read all the same: unread, it would stop the copy process for ever."""
    go_on = start_held_listing(daemon, ["a", "b"], SOMEBODY)
    scripted.set_default_copy([f"wait {scripted.gate('end')}", "confirm-all"])
    put_back = set_soft_limit(daemon, "nproc", threads(daemon) + 1)
    with Consumer() as consumer:
        os.chmod(consumer.path, 0o666)
        go_on.touch()
        call = scripted.wait_for_calls("copy", 1)[0]
        # While the worker itself waits for the report.
        assert daemon.wait_for_pids(2) == [daemon.pid, call.pid]
        scripted.gate("end").touch()
        log = daemon.wait_for_log("1: Removed file")
        put_back()
        assert expected.block(confirmed=["a", "b"]) in log
        consumer.wait_for(2)
        scripted.add_listing(["c"])
        consumer.wait_for(3)
        daemon.wait_for_log("1: Removed file", 2)
        daemon.end()
    assert consumer.announced() == [f"/srv/images/./{name}" for name in "abc"]


def gone() -> None:
    COPY_PROGRAM.unlink()


def not_executable() -> None:
    COPY_PROGRAM.chmod(0o644)


def no_program() -> None:
    COPY_PROGRAM.unlink()
    COPY_PROGRAM.write_text("echo SENT: a\n")
    COPY_PROGRAM.chmod(0o755)


@pytest.mark.parametrize("spoil", [gone, not_executable, no_program])
def test_a_copy_program_that_cannot_be_run(daemon: Daemon, spoil: Callable[[], None]) -> None:
    go_on = start_held_listing(daemon, [f"f{number}" for number in range(101)])
    spoil()
    go_on.touch()
    log = daemon.wait_for_log("1: Removed file", 2)
    assert log.count("terminated") == 2
    # Nothing was printed, and no name is lost: none was announced as sent.
    assert log.count(expected.block()) == 2
    assert "Error" not in log
    assert daemon.wait_for_pids(1) == [daemon.pid]
    scripted.install()
    scripted.add_listing(["a"])
    daemon.wait_for_log(expected.block(confirmed=["a"]))


def test_a_copy_program_that_is_gone_makes_empty_listings(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    daemon.start()
    scripted.wait_for_calls("listing", 2)
    COPY_PROGRAM.unlink()
    wait_until(lambda: "rsync_orbelin" in LISTING_ERRORS.read_text(), "the shell's complaint")
    log = daemon.log()
    assert "rsync_orbelin" not in log and "Error" not in log
    scripted.install()
    scripted.add_listing(["a"])
    daemon.wait_for_log(expected.block(confirmed=["a"]))


def test_a_copy_process_that_is_killed_is_waited_for_and_its_names_come_again(
    daemon: Daemon,
) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    scripted.add_listing(["a", "b"])
    scripted.add_copy([out("SENT: a\nCONFIRMED: x a\nSENT: b\n"), f"wait {scripted.gate('never')}"])
    daemon.start()
    pid = daemon.wait_for_pids(2)[1]
    scripted.wait_for_calls("copy", 1)
    assert scripted.calls("copy")[0].pid == pid
    # Not before it has spoken.
    wait_until(
        lambda: "nanosleep" in Path(f"/proc/{pid}/wchan").read_text(), "the process to wait"
    )
    scripted.add_listing(["b"])
    os.kill(pid, signal.SIGKILL)
    log = daemon.wait_for_log("1: Removed file", 2)
    assert expected.block(confirmed=["a"], lost=["b"]) in log
    assert expected.block(confirmed=["b"]) in log
    assert expected.ended("1", pid) in log


def test_nothing_piles_up(daemon: Daemon) -> None:
    """Hundreds of cycles leave no thread, no descriptor and no child behind."""
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    daemon.start()
    scripted.wait_for_calls("listing", 2)
    idle = threads(daemon)
    with Consumer() as consumer:
        for number in range(100):
            scripted.add_listing([f"f{number}"])
        consumer.wait_for(100)
        daemon.wait_for_log("1: Removed file", 100)
        scripted.wait_for_calls("listing", len(scripted.calls("listing")) + 2)
        wait_until(
            lambda: not processes.descriptors(daemon.pid),
            lambda: f"no descriptor to be open, but there are {processes.descriptors(daemon.pid)}",
        )
        assert threads(daemon) == idle
        wait_until(
            lambda: not [each for each in processes.children(daemon.pid) if each.is_zombie],
            "no child to be left unwaited for",
        )
        daemon.end()


SIGNALS = [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT, signal.SIGUSR1]


@pytest.mark.parametrize("number", SIGNALS)
def test_a_signal_ends_it_at_once_and_leaves_everything(
    daemon: Daemon, number: signal.Signals
) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    names = [f"f{number}" for number in range(250)]
    scripted.add_listing(names)
    end, done = scripted.gate("end"), scripted.gate("done")
    scripted.set_default_copy([f"wait {end}", f"touch {done}"])
    daemon.start(wrapper=["prlimit", "--core=0"])
    pids = daemon.wait_for_pids(4)
    calls = scripted.wait_for_calls("copy", 3)
    log = daemon.log()
    assert daemon.end(number) == -number
    assert daemon.log() == log
    assert PID_FILE.read_text() == "".join(f"{pid}\n" for pid in pids)
    assert STATUS_FILE.read_text() == "njobs 8\n"
    assert sorted(str(path) for path in file_lists()) == sorted(call.list_name for call in calls)
    # The copy processes are sessions of their own and go on.
    for call in calls:
        found = processes.process(call.pid)
        assert found is not None and not found.is_zombie
    assert not done.exists()
    end.touch()
    wait_until(done.exists, "a copy process to go on")


def test_a_signal_ends_an_idle_daemon(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=60000)])
    daemon.start()
    scripted.wait_for_calls("listing", 1)
    assert daemon.end() == -signal.SIGTERM
    assert PID_FILE.read_text() == f"{daemon.pid}\n"


def test_a_signal_to_copy_processes_does_not_reach_the_daemon(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    scripted.add_listing(["a"])
    scripted.add_copy([f"wait {scripted.gate('never')}"])
    daemon.start()
    pid = daemon.wait_for_pids(2)[1]
    scripted.wait_for_calls("copy", 1)
    os.killpg(pid, signal.SIGTERM)
    daemon.wait_for_log("1: Removed file")
    assert daemon.is_running()
