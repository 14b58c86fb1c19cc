"""skarnctl status: its exit codes, its text, its JSON."""

from __future__ import annotations

import os
import re
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

from support import scripted
from support.control import (
    binary,
    kill_daemon,
    pids_in_file,
    skarnctl,
    start_beside,
    start_daemon,
)
from support.daemon import PID_FILE
from support.waiting import wait_until

pytestmark = pytest.mark.usefixtures("host")

KEYS = {
    "state",
    "exit_status",
    "text",
    "pid",
    "since",
    "start_options",
    "copy_processes",
    "copy_process_limit",
    "unvouched_processes",
    "pid_file",
}


def test_not_running() -> None:
    result = skarnctl("status")
    assert (result.status, result.output, result.errors) == (3, "skarn does not run\n", "")
    report = skarnctl("status", "--json")
    assert report.status == 3 and report.json.keys() == KEYS
    assert report.json["state"] == "not_running" and report.json["exit_status"] == 3
    assert report.json["pid"] is None and report.json["since"] is None
    assert report.json["pid_file"] == {"path": str(PID_FILE), "state": "absent", "problem": ""}


def test_running() -> None:
    before = time.time()
    pid = start_daemon()
    result = skarnctl("status")
    assert result.status == 0 and result.errors == ""
    started = time.strptime(
        result.output.removeprefix(f"skarn runs as process {pid} since ").rstrip("\n"),
        "%Y-%m-%d %H:%M:%S",
    )
    assert before - 2 <= time.mktime(started) <= time.time() + 1
    report = skarnctl("status", "--json").json
    assert report["state"] == "running" and report["exit_status"] == 0
    assert report["pid"] == pid and report["start_options"] == []
    assert report["copy_processes"] == [] and report["copy_process_limit"] == 8
    assert before - 2 <= report["since"] <= time.time() + 1


def test_running_with_options_and_copy_processes() -> None:
    scripted.add_listing([f"file{number}" for number in range(150)])
    gate = scripted.gate("open")
    scripted.set_default_copy([f"wait {gate}"])
    pid = start_daemon("-u", "1:2", "--detector", "1:/i 't:s':/srv/x\ny")
    # Also before they stand in the PID file.
    copies = sorted(call.pid for call in scripted.wait_for_calls("copy", 2))
    result = skarnctl("status")
    assert result.status == 0
    first, second = result.output.splitlines()
    assert first.startswith(f"skarn runs as process {pid} since ")
    assert first.endswith(f", with 2 copy processes ({copies[0]} and {copies[1]})")
    assert second == "start options: -u 1:2 --detector '1:/i '\\''t:s'\\'':/srv/x\\012y'"
    report = skarnctl("status", "--json").json
    assert [each["pid"] for each in report["copy_processes"]] == copies
    assert report["start_options"] == ["-u", "1:2", "--detector", "1:/i 't:s':/srv/x\ny"]
    gate.touch()


def test_start_options_that_are_no_text() -> None:
    run = subprocess.run(
        [os.environ["SKARNCTL_BINARY"], "start", "-u", b"\xff\x1b:2"], check=False
    )
    assert run.returncode == 0
    assert skarnctl("status").output.splitlines()[1] == "start options: -u '\\377\\033:2'"
    assert skarnctl("status", "--json").json["start_options"] == ["-u", "\ufffd\x1b:2"]


def test_dead() -> None:
    pid = start_daemon()
    kill_daemon(pid)
    result = skarnctl("status")
    assert result.status == 1
    assert result.output == f"skarn is dead: process {pid} of {PID_FILE} has ended\n"
    report = skarnctl("status", "--json").json
    assert report["state"] == "dead" and report["exit_status"] == 1 and report["pid"] is None


def test_a_zombie_is_dead() -> None:
    pid = start_daemon()
    os.kill(pid, signal.SIGKILL)
    wait_until(lambda: skarnctl("status").status == 1, "the daemon to count as dead")


def test_a_daemon_that_stands_still_runs() -> None:
    pid = start_daemon()
    os.kill(pid, signal.SIGSTOP)
    assert skarnctl("status").status == 0


def test_unknown() -> None:
    pid = start_daemon()
    PID_FILE.unlink()
    result = skarnctl("status")
    assert result.status == 4
    assert result.output.startswith(
        "whether skarn runs is uncertain: there is no PID file, but 1 process "
        f"({pid}) runs /"
    )
    report = skarnctl("status", "--json").json
    assert report["state"] == "unknown" and report["exit_status"] == 4
    assert report["unvouched_processes"] == [pid] and report["pid"] is None


def test_a_daemon_that_was_upgraded_while_it_ran() -> None:
    here = Path("/usr/local/sbin/skarn")
    here.parent.mkdir(exist_ok=True)
    original = Path(os.environ["SKARN_BINARY"])
    fresh = here.with_name("fresh")
    for path in (here, fresh):
        path.write_bytes(original.read_bytes())
        path.chmod(0o755)
    assert skarnctl("--daemon", str(here), "start").status == 0
    pid = pids_in_file()[0]
    assert "replaced" not in skarnctl("--daemon", str(here), "status").output
    fresh.rename(here)
    assert os.readlink(f"/proc/{pid}/exe").endswith(" (deleted)")
    result = skarnctl("--daemon", str(here), "status")
    assert result.status == 0
    assert result.output.endswith("; its program was replaced since: a restart runs the new one\n")
    # Another path of the same file is the same program; another file is not.
    assert skarnctl("status").status == 1
    here.unlink()
    assert skarnctl("--daemon", str(here), "status").status == 0
    assert skarnctl("--daemon", str(here), "stop").status == 0


def test_another_path_of_the_same_file() -> None:
    here = Path("/usr/local/sbin/skarn")
    here.parent.mkdir(exist_ok=True)
    here.unlink(missing_ok=True)
    here.symlink_to(os.environ["SKARN_BINARY"])
    pid = start_daemon()
    result = skarnctl("--daemon", str(here), "status")
    assert result.status == 0 and f"process {pid} " in result.output
    here.unlink()


def test_without_the_rights() -> None:
    assert skarnctl("status", user=65534).status == 3
    pid = start_daemon()
    result = skarnctl("status", user=65534)
    assert result.status == 5
    assert re.fullmatch(
        rf"skarn seems to run: process {pid}, skarn, since [-0-9: ]+; only root can be sure\n",
        result.output,
    )
    report = skarnctl("status", "--json", user=65534).json
    assert report["state"] == "seems_to_run" and report["pid"] == pid
    PID_FILE.unlink()
    result = skarnctl("status", user=65534)
    assert result.status == 4
    assert "only root may look at 1 process" in result.output


def test_two_daemons_are_told() -> None:
    first = start_daemon()
    PID_FILE.unlink()
    second = start_beside()
    result = skarnctl("status")
    assert result.status == 0
    assert result.output.startswith(f"skarn runs as process {second} since ")
    assert f"; but 1 more process ({first}) runs as a daemon, too" in result.output
    assert skarnctl("status", "--json").json["unvouched_processes"] == [first]
    assert skarnctl("start").status == 1


def test_a_process_whose_memory_can_not_be_read_hangs_nobody() -> None:
    # It stands for one whose memory hangs its reader: this one would make him fail.
    PID_FILE.write_text("", encoding="ascii")
    with subprocess.Popen(["sleep", "1000"], user=65534, start_new_session=True) as stranger:
        trace = subprocess.run(
            ["strace", "-f", "-e", "trace=open,openat", str(binary()), "status"],
            capture_output=True, encoding="utf-8", check=False,
        )
        stranger.kill()
    assert f"/proc/{stranger.pid}/stat" in trace.stderr
    assert f"/proc/{stranger.pid}/cmdline" not in trace.stderr


@pytest.mark.parametrize("word", ["-x", "stop", "--json=x", "--timeout", "now"])
def test_bad_words(word: str) -> None:
    result = skarnctl("status", word)
    assert result.status == 2 and result.output == "" and result.complaint, result


def test_a_full_proc_is_looked_through_in_bounded_time() -> None:
    crowd = [
        subprocess.Popen([sys.executable, "-c", "input()"], stdin=subprocess.PIPE)
        for _ in range(40)
    ]
    PID_FILE.write_text("", encoding="ascii")
    assert skarnctl("status", timeout=20).status == 1
    for each in crowd:
        each.communicate(b"\n")
