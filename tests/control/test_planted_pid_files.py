"""PID files that were tampered with, are damaged or out of date: no foreign process is signalled."""

from __future__ import annotations

import os
import re
import shutil
import signal
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

from support import processes, scripted
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
    spawn_with_pid,
    start_daemon,
)
from support.daemon import COPY_PROGRAM, PID_FILE, Detector, sanitizer_of, write_configuration
from support.waiting import LIMIT, wait_until

pytestmark = pytest.mark.usefixtures("host")

DAEMON = binary().with_name("skarn")


@pytest.fixture(name="victim")
def _victim() -> Iterator[Victim]:
    """A foreign process; at the end of every test it must be unharmed."""
    victim = Victim()
    yield victim
    victim.check()


def plant(text: str) -> None:
    """Writes a PID file."""
    PID_FILE.write_text(text, encoding="ascii")


def try_everything(status: int, *, stop: int) -> list[Result]:
    """Runs each subcommand that could signal somebody; checks their statuses.

    What they do must not depend on which of them comes first.
    """
    text = PID_FILE.read_bytes()
    results = []
    for words in (["stop"], ["stop", "--when-idle=1"], ["stop", "--timeout=0"], ["restart"]):
        PID_FILE.write_bytes(text)
        told = skarnctl("status")
        assert told.status == status, told
        result = skarnctl(*words)
        results.append(result)
        started = re.search(r"^skarn started, process ([0-9]+)", result.output, re.MULTILINE)
        assert (started is not None) == (words == ["restart"] and stop == 0), result
        if started is not None:
            kill_daemon(int(started[1]))
        assert result.status == stop, result
    PID_FILE.unlink(missing_ok=True)
    PID_FILE.write_bytes(text)
    return results


DAMAGED = {
    "empty": "",
    "cut off": "{victim}",
    "cut off in the second line": "{victim}\n{victim}",
    "negative": "-{victim}\n",
    "all of the system": "-1\n",
    "own group": "0\n",
    "first process": "1\n",
    "first process as copy process": "{victim}\n1\n",
    "negative as copy process": "{victim}\n-{victim}\n",
    "blanks": " {victim}\n",
    "two in a line": "{victim} {victim}\n",
    "carriage returns": "{victim}\r\n",
    "octal": "0{victim}\n",
    "too large": "18446744073709551617\n",
    "wraps to the victim": "{wrapped}\n",
    "words": "kill {victim}\n",
    "NUL": "{victim}\0\n",
    "an empty line": "{victim}\n\n",
}


@pytest.mark.parametrize("name", DAMAGED)
def test_a_damaged_file_is_believed_in_no_line(name: str, victim: Victim) -> None:
    plant(DAMAGED[name].format(victim=victim.pid, wrapped=victim.pid + 2**32))
    text = PID_FILE.read_bytes()
    result = skarnctl("stop")
    assert result.status == 0 and "is damaged" in result.output, result
    assert not PID_FILE.exists()
    if name in ("empty", "first process as copy process"):
        PID_FILE.write_bytes(text)
        try_everything(1, stop=0)


@pytest.mark.parametrize("name", ["empty", "cut off", "words", "another's number"])
def test_a_running_daemon_behind_a_wrong_file_is_told_and_ended(name: str, victim: Victim) -> None:
    for words in (["stop"], ["stop", "--when-idle=5"], ["restart"]):
        pid = start_daemon()
        plant(DAMAGED.get(name, "{victim}\n{victim}\n").format(victim=victim.pid))
        told = skarnctl("status")
        assert told.status == 4 and f"1 process ({pid}) runs {DAEMON}" in told.output
        result = skarnctl(*words)
        assert result.status == 0 and f"skarn, process {pid}, ended" in result.output
        assert not is_running(pid)
    assert skarnctl("stop").status == 0
    assert not PID_FILE.exists()


def test_foreign_number_as_the_daemon(victim: Victim) -> None:
    plant(f"{victim.pid}\n")
    for result in try_everything(1, stop=0):
        assert f"process {victim.pid} of {PID_FILE} runs another program" in result.output


def test_foreign_numbers_as_copy_processes(victim: Victim) -> None:
    others = [Victim(leader=False), Victim(f"--files-from=/tmp/file_list_{victim.pid}_1_0")]
    for words in (["stop"], ["stop", "--when-idle=5"], ["restart"]):
        pid = start_daemon()
        plant(f"{pid}\n{victim.pid}\n{others[0].pid}\n{others[1].pid}\n{os.getpid()}\n")
        listed = skarnctl("status", "--json").json
        assert listed["pid"] == pid and listed["copy_processes"] == []
        assert skarnctl(*words).status == 0
        assert not is_running(pid)
        assert skarnctl("stop").status == 0
    for other in others:
        other.check()


def test_foreign_numbers_as_copy_processes_of_a_dead_daemon(victim: Victim) -> None:
    pid = start_daemon()
    kill_daemon(pid)
    # One that leads a session and has such a list, but is another program.
    other = Victim("rsync_orbelin", f"--files-from=/tmp/file_list_{pid}_1_0")
    plant(f"{pid}\n{victim.pid}\n{other.pid}\n{os.getpid()}\n")
    for result in try_everything(1, stop=0):
        assert "copy process" not in result.output
    other.check()


def test_thousands_of_lines(victim: Victim) -> None:
    pid = start_daemon()
    plant(f"{pid}\n" + f"{victim.pid}\n" * 8000)
    assert skarnctl("status").status == 0
    assert skarnctl("stop").status == 0
    assert not is_running(pid)


def test_a_file_of_a_gigabyte(victim: Victim) -> None:
    pid = start_daemon()
    with PID_FILE.open("wb") as file:
        file.write(f"{pid}\n".encode() + f"{victim.pid}\n".encode() * 10000)
        file.truncate(2**30)
    # An instrumented program takes terabytes of addresses for itself.
    limited = [] if sanitizer_of(binary()) else ["prlimit", "--as=1000000000"]
    for words in (["status"], ["status", "--json"], ["start"]):
        result = skarnctl(*words, wrapper=limited)
        assert result.status == (4 if words[0] == "status" else 1), result
        assert "longer than 65536 bytes" in result.output + result.errors
    assert is_running(pid)
    assert skarnctl("stop", wrapper=limited).status == 0 and not is_running(pid)


def test_the_caller_of_skarnctl_is_not_signalled(victim: Victim) -> None:
    script = (
        "import signal, subprocess, sys, os\n"
        "got = []\n"
        "for number in signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP, signal.SIGCHLD}:\n"
        "    signal.signal(number, lambda n, f: got.append(n))\n"
        f"open('{PID_FILE}', 'w').write(sys.argv[2].format(me=os.getpid()))\n"
        "subprocess.run([sys.argv[1], 'status'], check=False)\n"
        "subprocess.run([sys.argv[1], 'stop', '--timeout=0'], check=False)\n"
        "sys.exit(len(got))\n"
    )
    for text in ("{me}\n", f"{victim.pid}\n{{me}}\n", "{me}\n{me}\n"):
        run = subprocess.run(
            [sys.executable, "-c", script, str(binary()), text],
            start_new_session=True,
            timeout=LIMIT,
            check=False,
        )
        assert run.returncode == 0


def test_a_foreign_process_got_the_daemons_number(victim: Victim) -> None:
    pid = start_daemon()
    kill_daemon(pid)
    heir = Victim(pid=pid)
    assert heir.pid == pid
    for result in try_everything(1, stop=0):
        assert f"process {pid} of {PID_FILE} runs another program" in result.output
    heir.check()


def test_a_process_of_the_daemons_name_got_its_number(victim: Victim) -> None:
    pid = start_daemon()
    kill_daemon(pid)
    elsewhere = Path("/srv/elsewhere")
    elsewhere.mkdir(exist_ok=True)
    namesake = elsewhere / "skarn"
    shutil.copy(os.path.realpath(sys.executable), namesake)
    heir = Victim(program=namesake, pid=pid)
    assert processes.process(pid) is not None and heir.pid == pid
    found = processes.process(pid)
    assert found is not None and found.name == "skarn"
    for result in try_everything(1, stop=0):
        assert f"runs another program ({namesake})" in result.output
    heir.check()


def test_a_copy_of_the_daemon_elsewhere_is_another_program(victim: Victim) -> None:
    elsewhere = Path("/srv/elsewhere")
    elsewhere.mkdir(exist_ok=True)
    copy = elsewhere / "skarn"
    shutil.copy(DAEMON, copy)
    assert skarnctl("--daemon", str(copy), "start").status == 0
    pid = pids_in_file()[0]
    for result in try_everything(1, stop=0):
        assert f"process {pid} of {PID_FILE} runs another program ({copy})" in result.output
    assert is_running(pid)
    assert skarnctl("--daemon", str(copy), "stop").status == 0
    assert not is_running(pid)


def test_a_clock_that_was_set_after_the_start_makes_no_daemon_a_stranger(victim: Victim) -> None:
    pid = start_daemon()
    written = PID_FILE.stat().st_mtime - 3600
    os.utime(PID_FILE, (written, written))
    assert skarnctl("status").output.startswith(f"skarn runs as process {pid} ")
    assert skarnctl("stop").status == 0 and not is_running(pid)


def test_a_daemons_executable_that_leads_no_session(victim: Victim) -> None:
    # A start command that waits for a reader of its log, in the session of this test.
    fifo = Path("/srv/log.fifo")
    os.mkfifo(fifo)
    write_configuration({"logfile": fifo}, [Detector("1")])
    command = subprocess.Popen([str(DAEMON)])
    wait_until(
        lambda: os.readlink(f"/proc/{command.pid}/exe") == str(DAEMON), "the start command"
    )
    for words in (["stop"], ["stop", "--when-idle=1"]):
        plant(f"{command.pid}\n")
        result = skarnctl(*words)
        assert result.status == 0
        assert "leads no session of its own" in result.output
    assert command.poll() is None
    command.kill()
    command.wait(timeout=LIMIT)
    fifo.unlink()


def copy_of(daemon: int, gate: Path) -> subprocess.Popen[bytes]:
    """The copy program with a list of that daemon, though no daemon has started it."""
    scripted.set_default_copy([f"wait {gate}"])
    return subprocess.Popen(
        [str(COPY_PROGRAM), "--confirm-files", f"--files-from=/tmp/file_list_{daemon}_1_0"],
        start_new_session=True,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL,
    )


def test_copy_processes_of_another_daemon(victim: Victim) -> None:
    pid = start_daemon()
    kill_daemon(pid)
    other = copy_of(pid + 1000, scripted.gate("other"))
    scripted.wait_for_calls("copy", 1)
    plant(f"{pid}\n{other.pid}\n")
    try_everything(1, stop=0)
    assert other.poll() is None


def test_a_copy_process_that_started_after_the_file_was_written(victim: Victim) -> None:
    pid = start_daemon()
    kill_daemon(pid)
    late = copy_of(pid, scripted.gate("late"))
    scripted.wait_for_calls("copy", 1)
    plant(f"{pid}\n{late.pid}\n")
    os.utime(PID_FILE, (1, 1))
    assert skarnctl("stop").status == 0
    assert late.poll() is None
    # The same, written in time, is a copy process that the daemon left behind.
    plant(f"{pid}\n{late.pid}\n")
    result = skarnctl("stop")
    assert f"1 copy process ({late.pid}) ended by SIGTERM" in result.output
    assert late.wait(timeout=LIMIT) == -signal.SIGTERM


def test_a_foreign_process_got_a_copy_processs_number(victim: Victim) -> None:
    gate = scripted.gate("reuse")
    scripted.add_listing(["a"])
    scripted.set_default_copy([f"wait {gate}"])
    pid = start_daemon()
    copy = scripted.wait_for_calls("copy", 1)[0].pid
    wait_until(lambda: copy in pids_in_file(), "the copy process in the PID file")
    text = PID_FILE.read_text(encoding="ascii")
    kill_daemon(pid)
    kill_daemon(copy)
    heir = Victim(pid=copy)
    second = spawn_with_pid(["sleep", "1000"], pid)
    plant(text)
    try_everything(1, stop=0)
    assert second.poll() is None
    heir.check()


@pytest.mark.parametrize("kind", ["folder", "pipe", "link", "dangling link", "device"])
def test_something_else_in_the_place_of_the_pid_file(kind: str, victim: Victim) -> None:
    pid = start_daemon()
    PID_FILE.unlink()
    target = Path("/srv/planted.pid")
    target.write_text(f"{pid}\n{victim.pid}\n", encoding="ascii")
    if kind == "folder":
        PID_FILE.mkdir()
    elif kind == "pipe":
        os.mkfifo(PID_FILE)
    elif kind == "device":
        os.mknod(PID_FILE, 0o20666, os.makedev(1, 5))
    else:
        PID_FILE.symlink_to(target if kind == "link" else "/srv/nowhere")
    said = {"folder": "it is a directory", "link": "it is a symbolic link",
            "dangling link": "it is a symbolic link"}
    for words in (["status"], ["start"]):
        result = skarnctl(*words, timeout=LIMIT)
        assert result.status == (4 if words == ["status"] else 1)
        text = result.output + result.errors
        assert f"{PID_FILE} cannot be read: {said.get(kind, 'not a regular file')}" in text
        assert str(pid) in text
    assert is_running(pid)
    assert skarnctl("stop", timeout=LIMIT).status == 0 and not is_running(pid)
    assert target.read_text(encoding="ascii") == f"{pid}\n{victim.pid}\n"
    for words in (["status"], ["stop"], ["restart"]):
        result = skarnctl(*words, timeout=LIMIT)
        assert result.status == (4 if words == ["status"] else 1)
        said_now = "is no regular file" if words == ["restart"] else f"no process runs {DAEMON}"
        assert said_now in result.output + result.errors


def test_a_file_that_is_rewritten_all_the_time(victim: Victim) -> None:
    pid = start_daemon()
    writer = subprocess.Popen(
        [
            sys.executable,
            "-c",
            "while True:\n"
            f"    with open('{PID_FILE}', 'w') as file:\n"
            f"        file.write('{pid}\\n'); file.flush(); file.write('{victim.pid}\\n')\n",
        ]
    )
    for _ in range(10):
        # Never is it dead, and never is another process taken for it.
        assert skarnctl("status").status in (0, 4)
    run = begin("stop")
    result = finish(run)
    assert result.status in (0, 1)
    writer.kill()
    writer.wait(timeout=LIMIT)


def test_a_foreign_number_does_not_keep_restart_from_starting(victim: Victim) -> None:
    plant(f"{victim.pid}\n")
    result = skarnctl("restart")
    assert result.status == 0, result
    pid = pids_in_file()[0]
    assert pid != victim.pid and is_running(pid)
