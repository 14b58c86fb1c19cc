"""skarnctl stop and restart: who is ended, in which order, how, and the wait for an idle moment."""

from __future__ import annotations

import os
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

from support import processes, scripted
from support.bed import Bed
from support.control import (
    Result,
    Victim,
    begin,
    binary,
    finish,
    is_running,
    kill_daemon,
    pids_in_file,
    skarnctl,
    start_beside,
    start_daemon,
)
from support.detector import frame_names
from support.daemon import (
    CONFIGURATION,
    LOG_FILE,
    PASSWORD_FILE,
    PID_FILE,
    Detector,
    file_lists,
    write_configuration,
)
from support.waiting import wait_until

pytestmark = pytest.mark.usefixtures("host")


def copy_processes(count: int, steps: list[str]) -> tuple[int, list[int]]:
    """A running daemon with so many copy processes that do these steps; all their numbers."""
    scripted.add_listing([f"file{number}" for number in range(101 * (count - 1) + 1)])
    scripted.set_default_copy(steps)
    pid = start_daemon()
    copies = [call.pid for call in scripted.wait_for_calls("copy", count)]
    wait_until(lambda: set(pids_in_file()) == {pid, *copies}, "all of them in the PID file")
    return pid, sorted(copies)


def told(result: Result) -> str:
    """What a stop said, but for a listing that it may have met."""
    lines = result.output.splitlines(keepends=True)
    return "".join(line for line in lines if "further process" not in line)


def numbers(pids: list[int]) -> str:
    """How skarnctl lists them."""
    return ", ".join(str(pid) for pid in pids)


@pytest.mark.parametrize("command", [["stop"], ["stop", "--when-idle"], ["stop", "--timeout=1"]])
def test_nothing_to_stop(command: list[str]) -> None:
    result = skarnctl(*command)
    assert (result.status, result.output, result.errors) == (0, "skarn does not run\n", "")


def test_the_daemon_alone() -> None:
    pid = start_daemon()
    result = skarnctl("stop")
    assert (result.status, result.errors) == (0, "")
    assert told(result) == f"skarn, process {pid}, ended by SIGTERM\n"
    assert not is_running(pid)
    assert skarnctl("status").status == 3
    assert not PID_FILE.exists()


def test_the_daemon_and_then_its_copy_processes() -> None:
    pid, copies = copy_processes(3, [f"wait {scripted.gate('never')}"])
    result = skarnctl("stop")
    assert (result.status, result.errors) == (0, "")
    assert told(result) == (
        f"skarn, process {pid}, ended by SIGTERM\n"
        f"3 copy processes ({numbers(copies)}) ended by SIGTERM\n"
    )
    assert not any(is_running(each) for each in [pid, *copies])
    # Had a copy process gone first, the daemon would have noted its end.
    assert "Child process" not in LOG_FILE.read_text(encoding="utf-8")


def test_copy_processes_that_are_not_yet_recorded() -> None:
    write_configuration(None, [Detector("1", interrun_pause=2000)])
    # The third comes only after a pause, and the PID file only after that.
    scripted.add_listing([f"file{number}" for number in range(250)])
    scripted.set_default_copy([f"wait {scripted.gate('never')}"])
    pid = start_daemon()
    copies = sorted(call.pid for call in scripted.wait_for_calls("copy", 2))
    assert pids_in_file() == [pid]
    result = skarnctl("stop")
    assert result.status == 0 and not any(is_running(each) for each in [pid, *copies])
    assert f"2 copy processes ({numbers(copies)}) ended by SIGTERM" in result.output


def test_a_copy_process_that_does_not_heed_the_signal() -> None:
    pid, copies = copy_processes(2, [f"wait {scripted.gate('never')}"])
    os.kill(copies[0], signal.SIGSTOP)
    result = skarnctl("stop", "--timeout", "1")
    assert (result.status, result.errors) == (0, "")
    assert told(result).splitlines() == [
        f"skarn, process {pid}, ended by SIGTERM",
        f"1 copy process ({copies[1]}) ended by SIGTERM; "
        f"1 copy process ({copies[0]}) ended by SIGKILL, not having heeded SIGTERM",
    ]
    assert not any(is_running(each) for each in copies)


def test_a_daemon_that_stands_still_is_killed() -> None:
    pid = start_daemon()
    os.kill(pid, signal.SIGSTOP)
    result = skarnctl("stop", "--timeout=1")
    assert result.status == 0
    assert told(result) == (
        f"skarn, process {pid}, ended by SIGKILL, not having heeded SIGTERM\n"
    )


def test_what_a_copy_process_leaves_behind_goes_too() -> None:
    gate = scripted.gate("never")
    pid, copies = copy_processes(1, [f"linger {gate}", f"wait {gate}"])

    def children_of_copy() -> list[int]:
        return [one.pid for one in processes.processes() if one.parent == copies[0]]

    wait_until(children_of_copy, "the copy process' child")
    child = children_of_copy()[0]
    result = skarnctl("stop")
    assert result.status == 0
    assert result.output.splitlines()[2] == f"1 further process ({child}) ended by SIGTERM"
    assert not any(is_running(each) for each in [pid, child, *copies])


def test_a_listing_that_hangs_goes_too() -> None:
    scripted.add_listing_script([f"wait {scripted.gate('never')}"])
    pid = start_daemon()
    listing = scripted.wait_for_calls("listing", 1)[0].pid
    result = skarnctl("stop")
    assert result.status == 0
    assert result.output.startswith(f"skarn, process {pid}, ended by SIGTERM\n")
    assert "further process" in result.output and str(listing) in result.output
    assert not is_running(listing)


def test_stop_after_a_crash_ends_what_it_left() -> None:
    pid, copies = copy_processes(2, [f"wait {scripted.gate('never')}"])
    kill_daemon(pid)
    result = skarnctl("stop")
    assert (result.status, result.errors) == (0, "")
    assert result.output == (
        f"skarn is dead: process {pid} of {PID_FILE} has ended; it left 2 copy processes "
        f"({copies[0]} and {copies[1]}) that run\n"
        f"2 copy processes ({numbers(copies)}) ended by SIGTERM\n"
    )
    assert not any(is_running(each) for each in copies)
    assert skarnctl("status").status == 3


def test_restart_takes_new_start_options() -> None:
    first = start_daemon("-u", "1:2")
    result = skarnctl("restart", "-u", "3:4")
    second = pids_in_file()[0]
    assert (result.status, result.errors) == (0, "")
    assert told(result) == (
        f"skarn, process {first}, ended by SIGTERM\nskarn started, process {second}\n"
    )
    assert skarnctl("status", "--json").json["start_options"] == ["-u", "3:4"]
    assert not is_running(first)


def test_restart_waits_for_an_idle_moment() -> None:
    gate = scripted.gate("busy")
    pid, copies = copy_processes(1, [f"wait {gate}", "confirm-all"])
    result = skarnctl("restart", "--when-idle=1", "-u", "3:4")
    assert result.status == 1 and "always had copy processes" in result.complaint
    assert is_running(pid) and is_running(copies[0])
    gate.touch()
    result = skarnctl("restart", "--when-idle", "-u", "3:4")
    assert (result.status, result.errors) == (0, "")
    assert re.match(idle_line(pid) + r"skarn started, process \d+\n", told(result)), result
    assert skarnctl("status", "--json").json["start_options"] == ["-u", "3:4"]


def test_restart_starts_also_what_did_not_run() -> None:
    result = skarnctl("restart")
    assert result.status == 0
    assert result.output == f"skarn does not run\nskarn started, process {pids_in_file()[0]}\n"


def test_restart_lets_a_daemon_run_when_another_would_not_start() -> None:
    pid = start_daemon()
    refused = "nothing was stopped: skarn would not start: "
    result = skarnctl("restart", "-u", "1")
    assert (result.status, result.output) == (1, "")
    assert result.complaint == (
        f"{refused}-u needs UID:GID"
    )
    configuration = CONFIGURATION.read_bytes()
    CONFIGURATION.write_bytes(configuration.replace(b"detectorID", b"detektorID"))
    assert skarnctl("restart").complaint.startswith(f"{refused}the file defines no detector")
    CONFIGURATION.write_bytes(configuration)
    PASSWORD_FILE.unlink()
    result = skarnctl("restart")
    assert (result.status, result.output) == (1, "")
    assert result.complaint.startswith(f"{refused}the password file {PASSWORD_FILE} can't be found")
    CONFIGURATION.unlink()
    assert skarnctl("restart").complaint.startswith(f"{refused}no configuration: neither")
    assert is_running(pid) and pids_in_file() == [pid]


def test_help_for_restart_and_start_does_nothing() -> None:
    pid = start_daemon()
    for subcommand in ("restart", "start"):
        for word in ("--help", "-h"):
            result = skarnctl(subcommand, word)
            assert (result.status, result.errors) == (0, "")
            assert "-u UID:GID" in result.output
    assert is_running(pid) and pids_in_file() == [pid]


@pytest.mark.parametrize("words", [["stop"], ["stop", "--when-idle"]])
def test_each_of_two_daemons_is_ended(words: list[str]) -> None:
    first = start_daemon()
    PID_FILE.unlink()
    second = start_beside()
    result = skarnctl(*words)
    assert (result.status, result.errors) == (0, "")
    for pid in (first, second):
        assert f"skarn, process {pid}, ended" in result.output
        assert not is_running(pid)
    assert not PID_FILE.exists() and skarnctl("status").status == 3


def test_a_daemon_that_may_not_be_looked_at_is_not_ended() -> None:
    pid = start_daemon()
    # Root without this right, as in a unit of systemd, can't see what the other one runs.
    limited = ["setpriv", "--bounding-set=-sys_ptrace", "--inh-caps=-sys_ptrace"]
    for words in (["stop"], ["stop", "--when-idle=0"]):
        result = skarnctl(*words, wrapper=limited)
        assert result.status == 4, result
        assert result.complaint.startswith(f"process {pid} seems to be skarn, and was not stopped")
    result = skarnctl("start", wrapper=limited)
    assert result.status == 1
    assert result.complaint.startswith(f"nothing was started: skarn seems to run: process {pid}, ")
    PID_FILE.unlink()
    result = skarnctl("start", wrapper=limited)
    assert result.status == 1 and "only root may look at 1 process" in result.complaint
    assert is_running(pid) and skarnctl("stop").status == 0


def test_two_stops_at_once() -> None:
    pid, copies = copy_processes(2, [f"wait {scripted.gate('never')}"])
    results = [finish(run) for run in [begin("stop") for _ in range(3)]]
    assert [result.status for result in results] == [0, 0, 0]
    outputs = sorted(result.output for result in results)
    assert outputs[:2] == ["skarn does not run\n"] * 2
    assert f"process {pid}, ended by SIGTERM" in outputs[2]
    assert not any(is_running(each) for each in [pid, *copies])


def test_without_the_rights() -> None:
    pid = start_daemon()
    result = skarnctl("stop", user=65534)
    assert result.status == 4 and "Permission denied" in result.complaint
    assert is_running(pid)


@pytest.mark.parametrize(
    "words",
    [
        ["--when-idle=soon"],
        ["--when-idle=-1"],
        ["--when-idle=1e3"],
        ["--when-idle=86401"],
        ["--timeout"],
        ["--timeout", "-1"],
        ["--timeout="],
        ["--timeout", "99999999999999999999"],
        ["now"],
        ["--force"],
        ["start"],
    ],
)
def test_bad_words(words: list[str]) -> None:
    pid = start_daemon()
    result = skarnctl("stop", *words)
    assert result.status == 2 and result.output == "" and result.complaint, result
    assert is_running(pid)


def idle_line(pid: int) -> str:
    """The pattern of what a stop in an idle moment says."""
    return (
        f"skarn, process {pid}, ended in a moment without copy processes, "
        r"after \d+ s\n"
    )


def test_idle_at_once() -> None:
    pid = start_daemon()
    result = skarnctl("stop", "--when-idle")
    assert result.status == 0 and re.fullmatch(idle_line(pid), told(result)), result
    assert not is_running(pid) and skarnctl("status").status == 3


def test_the_wait_lasts_until_the_report_was_passed_on() -> None:
    work, report = scripted.gate("work"), scripted.gate("report")
    scripted.add_listing(["a", "b"])
    # The copy process ends, but what it left still holds the report open.
    scripted.add_copy([f"wait {work}", f"linger {report}", "confirm-all"])
    pid = start_daemon()
    copy = scripted.wait_for_calls("copy", 1)[0].pid
    run = begin("stop", "--when-idle=50")
    time.sleep(0.3)
    assert is_running(pid) and run.poll() is None
    work.touch()
    wait_until(lambda: not is_running(copy), "the copy process to end")
    time.sleep(0.3)
    assert is_running(pid) and run.poll() is None
    report.touch()
    result = finish(run)
    assert result.status == 0 and re.fullmatch(idle_line(pid), told(result)), result
    log = LOG_FILE.read_text(encoding="utf-8")
    assert "Removed file /tmp/file_list_" in log
    assert not file_lists()


def test_when_it_is_never_idle_the_daemon_goes_on() -> None:
    gate = scripted.gate("busy")
    pid, copies = copy_processes(1, [f"wait {gate}", "confirm-all"])
    result = skarnctl("stop", "--when-idle=1")
    assert result.status == 1 and result.output == ""
    assert result.complaint == (
        f"skarn, process {pid}, always had copy processes or their reports to deal with for 1 s; "
        "it goes on"
    )
    assert is_running(copies[0])
    gate.touch()
    wait_until(
        lambda: "Removed file" in LOG_FILE.read_text(encoding="utf-8"), "the daemon to go on"
    )
    assert is_running(pid)


def test_a_stale_file_list_of_the_same_number_is_not_waited_for() -> None:
    pid = start_daemon()
    stale = Path(f"/tmp/file_list_{pid}_1_0")
    stale.write_text("a\n", encoding="ascii")
    os.utime(stale, (1, 1))
    assert skarnctl("stop", "--when-idle=3").status == 0


def test_file_lists_in_a_private_tmp_are_seen() -> None:
    gate = scripted.gate("private")
    scripted.add_listing(["a"])
    # It ends at once, but its report stays open: nothing but the list tells.
    scripted.add_copy([f"linger {gate}"])
    # That /tmp hides what stands below the other one, and the programs under test may.
    Path("/usr/local/sbin").mkdir(exist_ok=True)
    for program in (binary(), Path(os.environ["SKARN_BINARY"])):
        shutil.copy(program, "/usr/local/sbin")
    stop = ("--daemon=/usr/local/sbin/skarn", "stop")
    begin_there = 'mount -t tmpfs tmpfs /tmp; exec /usr/local/sbin/"${0##*/}" "$@"'
    result = skarnctl("start", wrapper=["unshare", "--mount", "sh", "-c", begin_there])
    assert result.status == 0, result
    pid = pids_in_file()[0]
    copy = scripted.wait_for_calls("copy", 1)[0].pid
    wait_until(lambda: not is_running(copy), "the copy process to end")
    assert not file_lists()
    result = skarnctl(*stop, "--when-idle=1")
    assert result.status == 1, result
    gate.touch()
    assert skarnctl(*stop, "--when-idle=30").status == 0
    assert not is_running(pid)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_an_interrupted_wait_leaves_the_daemon_running(number: signal.Signals) -> None:
    # Cycles come so fast that it is stopped and looked at again and again.
    scripted.set_default_listing(["a"])
    gate = scripted.gate("hold")
    scripted.set_default_copy(["confirm-all", f"linger {gate}"])
    pid = start_daemon()
    scripted.wait_for_calls("copy", 1)  # until then it is idle
    run = begin("stop", "--when-idle=60")
    time.sleep(0.2)
    run.send_signal(number)
    result = finish(run)
    assert result.status == -number

    def goes_on() -> bool:
        one = processes.process(pid)
        return one is not None and one.state in "SRD"

    wait_until(goes_on, "the daemon to run")
    gate.touch()


def test_an_idle_moment_among_fast_cycles_loses_no_announcement() -> None:
    with Bed() as bed:
        bed.start()
        bed.simulator.burst(frame_names(400))
        result = skarnctl("stop", "--when-idle=60")
        assert result.status == 0, result
        assert not bed.daemon.is_running()
        gone = set(bed.simulator.frames) - set(bed.simulator.left())
        wait_until(lambda: set(bed.announced()) >= gone, "what was moved to be announced")
        bed.start()
        # Between the end of its last cycle and its next listing, a daemon has not noted yet that
        # all was handed off; then the next daemon announces it again.
        bed.finish(again=gone)


def test_foreign_processes_are_left_alone_by_every_way_to_stop() -> None:
    victims = [Victim(), Victim(leader=False)]
    for command in (["stop"], ["stop", "--when-idle"], ["restart"], ["stop", "--timeout=0"]):
        start_daemon()
        assert skarnctl(*command).status == 0
        skarnctl("stop")
    for victim in victims:
        victim.check()


def test_stop_works_from_any_folder_and_with_closed_output() -> None:
    pid = start_daemon()
    run = subprocess.run(
        ["sh", "-c", '"$0" stop >&- 2>&- <&-', os.environ["SKARNCTL_BINARY"]],
        cwd="/srv",
        check=False,
    )
    assert run.returncode == 0 and not is_running(pid)
