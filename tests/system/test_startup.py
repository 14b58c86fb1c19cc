"""How the daemon starts, detaches and refuses to start."""

from __future__ import annotations

import os
import re
import stat
import time
from pathlib import Path

import pytest

from support import expected, processes, scripted
from support.daemon import (
    CONFIGURATION,
    COPY_PROGRAM,
    FIFO,
    LOG_FILE,
    PASSWORD_FILE,
    PID_FILE,
    SECOND_CONFIGURATION,
    STATUS_FILE,
    Daemon,
    Detector,
    Start,
    write_configuration,
    write_raw_configuration,
)
from support.waiting import wait_until

NOTHING_SAID = Start(0, "", "")
SOMEBODY = 4321


def mode_of(path: Path) -> int:
    return stat.S_IMODE(path.stat().st_mode)


def test_without_detectors_it_announces_itself_and_ends_at_once(daemon: Daemon) -> None:
    write_configuration()
    before = time.time()
    assert daemon.start() == NOTHING_SAID
    assert daemon.wait_ended() == 0
    log = daemon.log()
    date = expected.date_in(log)
    assert log == expected.banner(date) + expected.settings()
    assert before - 2 <= time.mktime(time.strptime(date)) <= time.time() + 1
    assert PID_FILE.read_text() == f"{daemon.pid}\n"
    assert STATUS_FILE.read_text() == "njobs 8\n"
    # Nothing but the project, where it lies there.
    assert [name for name in os.listdir("/tmp") if not __file__.startswith(f"/tmp/{name}/")] == []


def test_each_file_has_its_mode_whatever_the_umask(daemon: Daemon) -> None:
    write_configuration()
    assert daemon.start(umask=0o777) == NOTHING_SAID
    assert daemon.wait_ended() == 0
    assert [mode_of(path) for path in (LOG_FILE, PID_FILE, STATUS_FILE)] == [0o644] * 3


def test_a_log_that_exists_gets_its_mode_and_keeps_its_text(daemon: Daemon) -> None:
    write_configuration()
    LOG_FILE.write_text("from an earlier run\n")
    LOG_FILE.chmod(0o600)
    assert daemon.start() == NOTHING_SAID
    assert daemon.wait_ended() == 0
    assert mode_of(LOG_FILE) == 0o644
    log = daemon.log()
    banner = expected.banner(expected.date_in(log))
    assert log == "from an earlier run\n" + banner + expected.settings()


def test_no_configuration_file(daemon: Daemon) -> None:
    # The status that it passes on is 512, of which a parent sees the low eight bits.
    assert daemon.start() == Start(0, "", "Error no config file found\n")
    assert not daemon.detached
    assert not PID_FILE.exists()


def test_the_configuration_is_missed_before_the_command_line_is_looked_at(daemon: Daemon) -> None:
    for word in ("--version", "-x"):
        assert daemon.start(word) == Start(0, "", "Error no config file found\n")
        assert not daemon.detached


def test_the_second_place_of_the_configuration(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE, "logfile_max_number": 22}, path=SECOND_CONFIGURATION)
    assert daemon.start() == NOTHING_SAID
    assert daemon.wait_ended() == 0
    assert "++    max # of backuped logfiles: 22\n" in daemon.log()


def test_of_two_configurations_only_the_first_is_read(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE})
    write_configuration({"logfile_max_number": 22, "uid": 5}, path=SECOND_CONFIGURATION)
    assert daemon.start() == NOTHING_SAID
    assert daemon.wait_ended() == 0
    assert "++    max # of backuped logfiles: 10\n" in daemon.log()


def test_an_unreadable_first_configuration_counts_as_missing(daemon: Daemon) -> None:
    write_configuration()
    CONFIGURATION.chmod(0)
    assert daemon.start(user=SOMEBODY) == Start(0, "", "Error no config file found\n")
    assert not daemon.detached


def test_a_log_that_cannot_be_opened(daemon: Daemon) -> None:
    write_raw_configuration("logfile /srv/nowhere/skarn.log\n")
    assert daemon.start() == Start(0, "", "Cannot access /srv/nowhere/skarn.log\n")
    assert not daemon.detached
    assert not PID_FILE.exists()


def test_a_log_that_is_a_folder(daemon: Daemon) -> None:
    write_raw_configuration("logfile /srv\n")
    assert daemon.start() == Start(0, "", "Cannot access /srv\n")
    assert not daemon.detached


def test_no_password_file(daemon: Daemon) -> None:
    write_configuration()
    PASSWORD_FILE.unlink()
    assert daemon.start() == NOTHING_SAID
    assert not daemon.detached
    assert daemon.log() == f"Error: {PASSWORD_FILE} does not exist\n"
    assert not PID_FILE.exists()


def test_the_password_file_is_missed_first(daemon: Daemon) -> None:
    write_configuration()
    PASSWORD_FILE.unlink()
    COPY_PROGRAM.unlink()
    assert daemon.start() == NOTHING_SAID
    assert daemon.log() == f"Error: {PASSWORD_FILE} does not exist\n"


def test_no_copy_program(daemon: Daemon) -> None:
    write_configuration()
    COPY_PROGRAM.unlink()
    assert daemon.start() == NOTHING_SAID
    assert not daemon.detached
    assert daemon.log() == f"Error: {COPY_PROGRAM}: no such file or directory\n"


@pytest.mark.parametrize("mode", [0o655, 0o011, 0o600])
def test_only_the_owner_s_execute_bit_of_the_copy_program_counts(
    daemon: Daemon, mode: int
) -> None:
    write_configuration()
    COPY_PROGRAM.chmod(mode)
    assert daemon.start() == NOTHING_SAID
    assert not daemon.detached
    assert daemon.log() == f"Error: {COPY_PROGRAM} does not exist or is not executable\n"


def test_the_owner_s_execute_bit_alone_is_enough(daemon: Daemon) -> None:
    write_configuration()
    COPY_PROGRAM.chmod(0o100)
    assert daemon.start() == NOTHING_SAID
    assert daemon.wait_ended() == 0


def test_a_command_line_error_leaves_nothing_behind(daemon: Daemon) -> None:
    write_configuration()
    assert daemon.start("-x").status == 1
    assert not daemon.detached
    assert not LOG_FILE.exists() and not PID_FILE.exists() and not STATUS_FILE.exists()


def test_a_pid_file_that_cannot_be_written_ends_the_daemon_silently(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1")])
    PID_FILE.mkdir()
    assert daemon.start() == NOTHING_SAID
    assert daemon.wait_ended() == 64
    assert daemon.log() == ""
    assert not STATUS_FILE.exists()
    assert not scripted.calls()


def test_without_the_right_to_write_the_pid_file(daemon: Daemon) -> None:
    write_configuration()
    LOG_FILE.parent.chmod(0o777)
    PID_FILE.write_text("4711\n4712\n")
    assert daemon.start(user=SOMEBODY) == NOTHING_SAID
    assert daemon.wait_ended() == 64
    assert daemon.log() == ""
    assert PID_FILE.read_text() == "4711\n4712\n"


def test_a_status_file_that_cannot_be_written_is_done_without(daemon: Daemon) -> None:
    write_configuration()
    STATUS_FILE.mkdir()
    assert daemon.start() == NOTHING_SAID
    assert daemon.wait_ended() == 0
    log = daemon.log()
    assert log == expected.banner(expected.date_in(log)) + expected.settings()


def test_what_an_earlier_run_left_is_overwritten(daemon: Daemon) -> None:
    write_configuration()
    PID_FILE.write_text("123456\n" * 1000)
    STATUS_FILE.write_text("njobs 8\nand more\n")
    assert daemon.start() == NOTHING_SAID
    assert daemon.wait_ended() == 0
    assert PID_FILE.read_text() == f"{daemon.pid}\n"
    assert STATUS_FILE.read_text() == "njobs 8\n"


def test_a_second_daemon_takes_the_files_over(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=60000)])
    daemon.start()
    scripted.wait_for_calls("listing", 1)
    with Daemon() as second:
        assert second.start() == NOTHING_SAID
        second.wait_for_log(expected.starting_thread("1"), 2)
        assert PID_FILE.read_text() == f"{second.pid}\n"
        assert daemon.is_running() and second.is_running()


def test_a_fork_that_fails(daemon: Daemon) -> None:
    write_configuration()
    LOG_FILE.parent.chmod(0o777)
    os.chmod("/run", 0o777)
    # The leak check would want a process of its own.
    start = daemon.start(user=SOMEBODY, wrapper=["prlimit", "--nproc=1"], leak_check=False)
    assert start == Start(8, "", "")
    assert not daemon.detached
    assert daemon.log() == ""
    assert not PID_FILE.exists()


@pytest.mark.parametrize("user", [None, SOMEBODY])
def test_the_default_log_takes_everything_and_keeps_nothing(
    daemon: Daemon, user: int | None
) -> None:
    null = Path("/dev/null")
    before = null.stat()
    write_raw_configuration("\n".join(Detector("1", minpause=60000).lines()))
    os.chmod("/run", 0o777)
    assert daemon.start(user=user) == NOTHING_SAID
    scripted.wait_for_calls("listing", 1)
    assert PID_FILE.read_text() == f"{daemon.pid}\n"
    assert daemon.is_running()
    # It is the whole machine's: every user must be able to write to it as before.
    assert (null.stat().st_mode, null.stat().st_uid) == (before.st_mode, before.st_uid)
    assert mode_of(null) == 0o666


def test_the_detached_daemon(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=60000)])
    assert daemon.start(umask=0o027, directory="/srv") == NOTHING_SAID
    scripted.wait_for_calls("listing", 1)
    pid = daemon.pid
    found = processes.process(pid)
    assert found is not None
    assert (found.session, found.group, found.parent) == (pid, pid, os.getpid())
    assert os.readlink(f"/proc/{pid}/cwd") == "/"
    assert processes.status_field(pid, "Umask") == "0000"
    wait_until(
        lambda: not processes.descriptors(pid),
        lambda: f"no descriptor to be open, but there are {processes.descriptors(pid)}",
    )


def test_standard_descriptors_never_come_back(daemon: Daemon) -> None:
    names = [f"f{number}" for number in range(300)]
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=0)])
    gate = scripted.gate("end")
    scripted.set_default_copy([f"wait {gate}", "confirm-all"])
    scripted.add_listing(names)
    daemon.start()
    calls = scripted.wait_for_calls("copy", 3)
    daemon.wait_for_pids(4)

    def standard() -> dict[int, str]:
        found = processes.descriptors(daemon.pid)
        return {number: target for number, target in found.items() if number < 3}

    wait_until(lambda: not standard(), lambda: f"0 to 2 to be closed; they are {standard()}")
    gate.touch()
    seen: set[str] = set()
    for _ in range(300):
        seen.update(standard().values())
    assert "/dev/null" not in seen
    assert len(calls) == 3


@pytest.mark.parametrize("closed", [(0,), (1,), (2,), (0, 1, 2)])
def test_it_starts_without_standard_descriptors(daemon: Daemon, closed: tuple[int, ...]) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1")])
    scripted.add_listing(["a"])
    assert daemon.start(closed=closed) == NOTHING_SAID
    log = daemon.wait_for_log("1: Removed file")
    assert expected.block(confirmed=["a"]) in log
    call = scripted.calls("copy")[0]
    assert sorted(call.descriptors) == [1, 2]
    assert PID_FILE.read_text() == f"{daemon.pid}\n"


def test_signals_keep_the_action_and_mask_they_had(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=60000)])
    scripted.add_listing(["a"])
    scripted.set_default_copy([f"wait {scripted.gate('end')}"])
    script = 'trap "" HUP USR1; exec "$0" "$@"'
    assert daemon.start(wrapper=["/bin/sh", "-c", script]) == NOTHING_SAID
    wanted = 1 << 0 | 1 << 9  # the two that were ignored at the start
    call = scripted.wait_for_calls("copy", 1)[0]
    assert (call.ignored_signals, call.blocked_signals) == (wanted, 0)
    assert int(processes.status_field(daemon.pid, "SigIgn"), 16) == wanted
    assert int(processes.status_field(daemon.pid, "SigBlk"), 16) == 0
    if daemon.sanitizer is None:  # a sanitizer catches what it reports
        # Two signals of the thread library's own are no business of the program.
        assert int(processes.status_field(daemon.pid, "SigCgt"), 16) & ~(3 << 31) == 0


def test_renaming_the_binary_changes_no_name(daemon: Daemon) -> None:
    other = Path("/srv/otherwise")
    other.write_bytes(daemon.binary.read_bytes())
    other.chmod(0o755)
    write_configuration()
    with Daemon(other) as renamed:
        assert renamed.start() == NOTHING_SAID
        assert renamed.wait_ended() == 0
        assert PID_FILE.read_text() == f"{renamed.pid}\n"
        assert "++ skarn 3.7.1 started\n" in renamed.log()
        assert renamed.start("-x").errors == "Unknown option -x\n" + expected.USAGE
    assert STATUS_FILE.exists()


def test_detectors_start_in_the_order_of_their_ids(daemon: Daemon) -> None:
    blocks = [
        Detector(name, f"127.0.0.{number}", minpause=60000)
        for number, name in enumerate(("b", "10", "a", "B", "9"), start=1)
    ]
    write_configuration({"logfile": LOG_FILE}, blocks)
    daemon.start()
    log = daemon.wait_for_log("++ Starting copy thread for detector", 5)
    wait_until(lambda: len(scripted.calls("listing")) == 5, "each detector's listing")
    order = re.findall(r"^\+\+ Starting copy thread for detector (.*)$", log, re.MULTILINE)
    assert order == ["10", "9", "B", "a", "b"]


def test_the_usershift_line_and_absent_pipe(daemon: Daemon) -> None:
    write_configuration()
    daemon.start()
    assert daemon.wait_ended() == 0
    assert not FIFO.exists(), "the daemon never makes the pipe"
    assert "VANTREL" not in daemon.log()
