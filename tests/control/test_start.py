"""skarnctl start: refusing, passing on, and telling apart why the daemon did not come up."""

from __future__ import annotations

import os
import signal
import socket
import subprocess
import time
from collections.abc import Iterator
from pathlib import Path

import pytest

from support import processes, scripted
from support.control import (
    LOCK_FILE,
    begin,
    binary,
    finish,
    is_running,
    kill_daemon,
    pids_in_file,
    skarnctl,
    start_daemon,
)
from support.daemon import (
    CONFIGURATION,
    COPY_PROGRAM,
    LOG_FILE,
    PASSWORD_FILE,
    PID_FILE,
    SECOND_CONFIGURATION,
    Detector,
    install_password_file,
    write_configuration,
)
from support.waiting import wait_until

pytestmark = pytest.mark.usefixtures("host")

DID_NOT_START = "skarn did not start: "


def reason(*words: str | bytes) -> str:
    """Why a start failed, as skarnctl says it; no daemon is left."""
    result = skarnctl("start", *words)
    assert result.status == 1 and result.output == "", result
    assert result.complaint.startswith(DID_NOT_START), result
    assert skarnctl("status").status in (1, 3)
    return result.complaint.removeprefix(DID_NOT_START)


def words_of(pid: int) -> list[bytes]:
    """The words of a process' command line behind the program."""
    return Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")[1:-1]


@pytest.fixture(name="read_only_pid_file")
def _read_only_pid_file() -> Iterator[None]:
    PID_FILE.write_text("", encoding="ascii")
    subprocess.run(["mount", "--bind", str(PID_FILE), str(PID_FILE)], check=True)
    subprocess.run(["mount", "-o", "remount,bind,ro", str(PID_FILE)], check=True)
    yield
    subprocess.run(["umount", str(PID_FILE)], check=True)


def test_the_daemon_runs_when_start_says_so() -> None:
    result = skarnctl("start")
    pid = pids_in_file()[0]
    assert result.status == 0 and result.errors == ""
    assert result.output == f"skarn started, process {pid}\n"
    assert is_running(pid)
    assert "++ skarn 3.7.1 started\n" in LOG_FILE.read_text(encoding="utf-8")


def test_a_service_manager_is_told_which_process_the_daemon_is() -> None:
    path = "/run/notify"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(path)
        manager.settimeout(5)
        assert skarnctl("start", variables={"NOTIFY_SOCKET": path}).status == 0
        assert manager.recv(100) == f"MAINPID={pids_in_file()[0]}".encode("ascii")


def test_a_second_start_is_refused_and_names_the_daemon() -> None:
    pid = start_daemon()
    before = LOG_FILE.read_bytes()
    result = skarnctl("start")
    assert result.status == 1 and result.output == ""
    assert result.complaint.startswith(
        f"nothing was started: skarn runs as process {pid} since 20"
    )
    assert LOG_FILE.read_bytes().count(b" started\n") == before.count(b" started\n") == 1
    assert pids_in_file()[0] == pid and is_running(pid)


@pytest.mark.parametrize("problem", ["absent", "empty", "another's number"])
def test_a_daemon_that_no_pid_file_vouches_for_is_in_the_way(problem: str) -> None:
    pid = start_daemon()
    if problem == "absent":
        PID_FILE.unlink()
    else:
        PID_FILE.write_text("" if problem == "empty" else f"{os.getpid()}\n", encoding="ascii")
    result = skarnctl("start")
    assert result.status == 1 and result.output == ""
    assert f"1 process ({pid}) runs {binary().with_name('skarn')}" in result.complaint
    assert is_running(pid)


def test_two_starts_at_once_make_one_daemon() -> None:
    runs = [begin("start") for _ in range(4)]
    results = [finish(run) for run in runs]
    assert sorted(result.status for result in results) == [0, 1, 1, 1]
    pid = pids_in_file()[0]
    for result in results:
        assert str(pid) in result.output + result.errors, result
    assert LOG_FILE.read_text(encoding="utf-8").count(" started\n") == 1


def test_a_lock_that_is_never_let_go_ends_the_wait() -> None:
    holder = subprocess.Popen(
        ["flock", str(LOCK_FILE), "sh", "-c", "echo locked; exec sleep 1000"],
        stdout=subprocess.PIPE,
    )
    assert holder.stdout is not None and holder.stdout.readline() == b"locked\n"
    result = skarnctl("start")
    assert result.status == 1
    assert result.complaint == (
        "another skarnctl is starting or stopping the daemon (it has "
        f"{LOCK_FILE} locked)"
    )
    assert not PID_FILE.exists()
    holder.kill()
    holder.wait()
    processes.end_descendants()


def test_the_words_reach_the_daemon_untouched() -> None:
    words = ["-u", "1:2", "-d", "1:/a b:/srv/x", "--user", "--daemon:--json", "-d", "1:/'q:r':/s"]
    pid = start_daemon(*words)
    assert words_of(pid) == [word.encode() for word in words]
    text = LOG_FILE.read_text(encoding="utf-8")
    assert " started\n" in text


@pytest.mark.parametrize("word", ["stop", "--", "++", "", "--help", "-h", "--json", "start", "%s"])
def test_words_that_look_like_skarnctls_are_the_daemons(word: str) -> None:
    said = f"Unknown option {word}".strip()
    assert reason(word, "--timeout=3", "").startswith(said + " (")


def test_odd_bytes_in_a_word_do_not_reach_the_terminal() -> None:
    result = skarnctl("start", b"\x1b[2J\xc2\x9b\xff\r")
    assert result.status == 1
    assert "Unknown option \\033[2J\\302\\233\\377" in result.complaint
    assert result.errors.isprintable() or result.errors.rstrip("\n").isprintable()


@pytest.mark.parametrize(
    ("words", "said"),
    [
        (["-u"], "-u needs UID:GID"),
        (["--user", "1:2:3"], "--user needs UID:GID"),
        (["-d", "1:/a"], "-d needs DETECTOR_ID:SOURCE:TARGET"),
        (["-d", "7:/a:/b"], "No detectorID 7 found in config file"),
        (["-u", "1:2", "-x"], "Unknown option -x"),
    ],
)
def test_bad_start_options(words: list[str], said: str) -> None:
    assert f"({said})" in reason(*words)


def test_the_version_is_no_start() -> None:
    assert reason("--version") .startswith("SKARN version 3.7.1")


def test_no_configuration() -> None:
    CONFIGURATION.unlink()
    assert reason() == (
        f"Error no config file found (no configuration: neither {CONFIGURATION} nor "
        f"{SECOND_CONFIGURATION} exists)"
    )


def test_log_in_a_folder_that_is_missing() -> None:
    write_configuration({"logfile": "/srv/nowhere/skarn.log"}, [Detector("1")])
    Path("/srv/nowhere").rmdir()
    assert reason() == (
        "Cannot access /srv/nowhere/skarn.log (the folder of the log, \"/srv/nowhere\", does not "
        "exist: the daemon does not start)"
    )


def test_log_that_is_a_folder() -> None:
    write_configuration({"logfile": "/srv"}, [Detector("1")])
    assert reason() == 'Cannot access /srv (the log "/srv" is a directory)'


@pytest.mark.parametrize("log", [LOG_FILE, Path("/dev/null")])
def test_what_the_daemon_needs_and_does_not_find(log: Path) -> None:
    write_configuration({"logfile": log}, [Detector("1")])
    own = "Error: " if log == LOG_FILE else "ended with status 0 and left no daemon"
    COPY_PROGRAM.chmod(0o677)
    said = reason()
    assert own in said and f"the copy program {COPY_PROGRAM} is not executable by its" in said
    COPY_PROGRAM.unlink()
    said = reason()
    assert own in said and f"the copy program {COPY_PROGRAM} can't be found" in said
    COPY_PROGRAM.symlink_to("/nowhere")
    assert reason() == said
    COPY_PROGRAM.unlink()
    PASSWORD_FILE.unlink()
    said = reason()
    assert own in said and f"the password file {PASSWORD_FILE} can't be found" in said


def test_an_old_complaint_in_the_log_is_not_taken_for_a_new_one() -> None:
    PASSWORD_FILE.unlink()
    assert f"Error: {PASSWORD_FILE} does not exist" in reason()
    install_password_file()
    COPY_PROGRAM.unlink()
    said = reason()
    assert said.startswith(f"Error: {COPY_PROGRAM}") and str(PASSWORD_FILE) not in said


def test_pid_file_that_cannot_be_written(read_only_pid_file: None) -> None:
    said = reason()
    assert said.endswith(f"ended with status 64 ({PID_FILE} can't be written: Read-only file system)")


@pytest.mark.parametrize("kind", ["folder", "pipe", "link"])
def test_something_else_in_the_place_of_the_pid_file(kind: str) -> None:
    target = Path("/srv/precious")
    target.write_text("precious", encoding="ascii")
    if kind == "folder":
        PID_FILE.mkdir()
    elif kind == "pipe":
        os.mkfifo(PID_FILE)
    else:
        PID_FILE.symlink_to(target)
    result = skarnctl("start")
    assert result.status == 1
    assert result.complaint == (
        f"nothing was started: {PID_FILE} is in the way of the daemon's PID file and not a "
        "regular file; remove it"
    )
    assert target.read_text(encoding="ascii") == "precious"
    assert not LOG_FILE.exists()


def test_no_detector() -> None:
    write_configuration(None, [])
    said = reason()
    assert "ended with status 0 (the file defines no detector" in said


@pytest.mark.parametrize(
    ("path", "said"),
    [
        ("/nowhere/skarn", "No such file or directory"),
        ("/etc/passwd", "Permission denied"),
        ("/srv", "Permission denied"),
        ("", "No such file or directory"),
    ],
)
def test_a_daemon_that_cannot_be_run(path: str, said: str) -> None:
    result = skarnctl("--daemon", path, "start", "-u", "1:2")
    assert result.status == 1
    assert result.complaint == f"{DID_NOT_START}cannot run {path}: {said}"


def script(text: str) -> str:
    """A program in place of the daemon."""
    path = Path("/srv/script")
    path.write_text("#!/bin/bash\n" + text, encoding="ascii")
    path.chmod(0o755)
    return str(path)


@pytest.mark.parametrize(
    ("text", "said"),
    [
        ("kill -KILL $$", "was killed by signal 9 (Killed) and left no daemon"),
        ("echo; echo Odd >&2; echo more >&2; exit 3", f"{DID_NOT_START}Odd"),
        ("exit 8", "ended with status 8 and left no daemon"),
        ("exit 0", "ended with status 0 and left no daemon"),
    ],
)
def test_other_ends_of_the_start_command(text: str, said: str) -> None:
    result = skarnctl("--daemon", script(text), "start")
    assert result.status == 1 and result.complaint.endswith(said), result


@pytest.mark.parametrize(
    ("end", "said"),
    [
        ("exit 16", "ended with status 16"),
        ("exit 0", "ended with status 0"),
        ("kill -SEGV $BASHPID", "was killed by signal 11 (Segmentation fault)"),
    ],
)
def test_other_ends_of_the_daemon(end: str, said: str) -> None:
    # Unlike the daemon's start command, a shell would take notice of a child that ends before it.
    wait = "while kill -0 $$ 2>/dev/null; do sleep 0.01; done"
    text = f"(exec <&- >&- 2>&-; {wait}; {end}) & exit 0"
    result = skarnctl("--daemon", script(text), "start")
    assert result.status == 1 and result.complaint.endswith(said), result


def test_a_start_command_that_hangs_is_given_up() -> None:
    # The daemon waits for a reader of its log, before it detaches.
    fifo = Path("/srv/log.fifo")
    os.mkfifo(fifo)
    write_configuration({"logfile": fifo}, [Detector("1")])
    result = skarnctl("start")
    fifo.unlink()
    assert result.status == 1
    assert "skarn did not detach within 10 seconds and was killed" in result.complaint
    assert not [one for one in processes.processes() if one.name == "skarn" and not one.is_zombie]


def test_a_daemon_without_a_pid_file_is_not_left_behind() -> None:
    result = skarnctl("--daemon", script("(exec -a x sleep 1000 <&- >&- 2>&-) & exit 0"), "start")
    assert result.status == 1
    assert result.complaint.endswith("did not write its PID file within 10 seconds")
    assert not [one for one in processes.processes() if one.name == "sleep" and not one.is_zombie]


def test_a_log_that_rotates_at_once_hides_no_start() -> None:
    write_configuration(
        {"logfile": LOG_FILE, "logfile_max_size": 0, "logfile_max_number": 3}, [Detector("1")]
    )
    scripted.set_default_listing(["a"])
    for _ in range(3):
        pid = start_daemon()
        kill_daemon(pid)
    for path in LOG_FILE.parent.glob(LOG_FILE.name + ".*"):
        path.unlink()


def test_a_daemon_of_another_version_comes_up() -> None:
    # Whatever its banner may be: what counts is what it does.
    other = Path("/srv/other-version")
    other.write_text(
        "#!/usr/bin/python3\nimport os, threading, time\n"
        "if os.fork(): os._exit(0)\n"
        "os.setsid(); os.closerange(0, 3)\n"
        f"open('{PID_FILE}', 'w').write(f'{{os.getpid()}}\\n')\n"
        "threading.Thread(target=time.sleep, args=(1000,)).start(); time.sleep(1000)\n",
        encoding="ascii",
    )
    other.chmod(0o755)
    result = skarnctl("--daemon", str(other), "start")
    assert result.status == 0 and result.output.startswith("skarn started, process "), result
    os.kill(pids_in_file()[0], signal.SIGKILL)


def test_start_without_a_log() -> None:
    write_configuration({"logfile": "/dev/null"}, [Detector("1")])
    pid = start_daemon()
    assert is_running(pid)


def test_the_daemon_inherits_nothing_of_skarnctl() -> None:
    extra = os.open("/dev/null", os.O_RDONLY)
    os.set_inheritable(extra, True)
    run = subprocess.Popen(
        [
            "/usr/bin/python3",
            "-c",
            "import os, signal, sys\n"
            "for n in (signal.SIGCHLD, signal.SIGPIPE, signal.SIGHUP, signal.SIGUSR1):\n"
            "    signal.signal(n, signal.SIG_IGN)\n"
            "signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM, signal.SIGUSR2})\n"
            "os.execv(sys.argv[1], sys.argv[1:])\n",
            str(binary()),
            "start",
        ],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        encoding="utf-8",
        env={**os.environ, "MARK": "from the caller"},
        pass_fds=[extra],
    )
    result = finish(run)
    os.close(extra)
    assert result.status == 0, result
    pid = pids_in_file()[0]
    # While it prepares a target (through system()) the daemon itself ignores two; a third is the C
    # library's.
    its_own = 1 << (signal.SIGINT - 1) | 1 << (signal.SIGQUIT - 1) | 1 << 31
    assert int(processes.status_field(pid, "SigIgn"), 16) & ~its_own == 0
    worker_mask = int(processes.status_field(pid, "SigBlk"), 16)
    assert worker_mask & (1 << (signal.SIGTERM - 1) | 1 << (signal.SIGUSR2 - 1)) == 0
    assert b"MARK=from the caller" in Path(f"/proc/{pid}/environ").read_bytes().split(b"\0")
    assert all("null" not in target for target in processes.descriptors(pid).values())
    assert not any(
        "pipe:" in target or "skarnctl" in target
        for number, target in processes.descriptors(pid).items()
        if number < 3
    )


def test_start_after_a_crash_in_the_middle_of_copying() -> None:
    gate = scripted.gate("crash")
    scripted.add_listing(["a", "b"])
    scripted.add_copy([f"wait {gate}"])
    first = start_daemon()
    copy = scripted.wait_for_calls("copy", 1)[0].pid
    wait_until(lambda: copy in pids_in_file(), "the copy process in the PID file")
    kill_daemon(first)

    status = skarnctl("status")
    assert status.status == 1
    assert f"it left 1 copy process ({copy}) that runs" in status.output

    result = skarnctl("start")
    second = pids_in_file()[0]
    assert result.status == 0 and second != first
    assert result.output == (
        f"skarn started, process {second} (the daemon before it died and left copy processes: "
        f"{copy})\n"
    )
    assert is_running(copy), "what an earlier daemon left is not for start to end"
    gate.touch()
    wait_until(lambda: not is_running(copy), "the copy process to end")


def test_without_the_rights() -> None:
    result = skarnctl("start", user=65534)
    assert result.status == 4
    assert result.complaint.startswith(f"cannot open {LOCK_FILE}: Permission denied")


def test_an_interrupted_start_leaves_a_daemon_or_none() -> None:
    run = begin("start")
    time.sleep(0.01)
    run.send_signal(signal.SIGINT)
    finish(run)

    def settled() -> bool:
        return skarnctl("status").status in (0, 3)

    wait_until(settled, "the daemon to run or not")
