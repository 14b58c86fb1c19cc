"""What a copy run has left unannounced when it, or the daemon, died is announced by a later run."""

from __future__ import annotations

import os
import signal
import socket
import stat
import subprocess
from pathlib import Path

import pytest

from confirming_rsync.program import (
    CALLS,
    DAEMON_ENVIRONMENT,
    FILE_LIST,
    OPTIONS,
    TARGET,
    URL,
    Program,
    Result,
    calls,
    names,
    run,
    script_rsync,
    scripted_binary,
)
from support import processes
from support.waiting import wait_until

JOURNALS = Path("/var/lib/skarn/journal")

# What a copy does that is killed on the way: it has received everything and waits.
RECEIVED = """
for name in open(FILE_LIST).read().split():
    os.makedirs(os.path.dirname(os.path.join(TARGET, name)), exist_ok=True)
    open(os.path.join(TARGET, name), "w").close()
    out("SENT: %s\\n" % name)
""".replace("FILE_LIST", repr(str(FILE_LIST))).replace("TARGET", repr(str(TARGET)))
WAIT = "time.sleep(60)"

# The answers of a share that has nothing of what it is asked for, and of one that has all.
ALL_GONE = """
for name in given.split("\\0"):
    if name:
        missing("/" + name)
sys.exit(23)
"""
ALL_THERE = """
for name in given.split("\\0"):
    if name:
        out("-rw-r--r--  0 2026/01/01 00:00:00 %s\\n" % name)
"""


def journals() -> list[Path]:
    """All journals."""
    return sorted(JOURNALS.glob("*/run-*"))


def next_cycle(*listed: str) -> None:
    """The daemon has removed the list of the cycle that is over, and writes another one."""
    FILE_LIST.unlink(missing_ok=True)
    names(*listed)


def kill(program: Program) -> Result:
    """Ends a run as nothing else does."""
    program.signal(signal.SIGKILL)
    return program.finish()


def recovered(result: Result) -> list[str]:
    """The names that the run announced for an earlier one."""
    beginning = "CONFIRMED: recovered "
    return [line[len(beginning) :] for line in result.lines if line.startswith(beginning)]


def broken_run(*listed: str, copying: str = RECEIVED, shows: str = "") -> None:
    """A run that has received everything, and removed it as far as is known, is killed."""
    next_cycle(*listed)
    script_rsync(copying + WAIT)
    program = Program(scripted_binary())
    program.read_until(shows or f"SENT: {listed[-1]}")
    kill(program)


class OtherDaemon:
    """Another process that starts a run, and can be killed while the run goes on or after it."""

    CODE = """
import os, sys
child = os.posix_spawn(sys.argv[2], sys.argv[2:], {"RSYNC_UID": "", "RSYNC_GID": ""})
with open(sys.argv[1] + ".new", "w") as file:
    file.write(str(child))
os.rename(sys.argv[1] + ".new", sys.argv[1])
os.waitpid(child, 0)
os.read(0, 1)
"""

    def __init__(self) -> None:
        pid_file = Path("/srv/started")
        pid_file.unlink(missing_ok=True)
        TARGET.mkdir(parents=True, exist_ok=True)
        call: list[str | Path] = [scripted_binary(), *OPTIONS, URL, f"{TARGET}/"]
        self.process = subprocess.Popen(
            ["/usr/bin/python3", "-Ic", self.CODE, pid_file, *call],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        wait_until(pid_file.exists, "the run's start")
        self.run_pid = int(pid_file.read_text("ascii"))

    def wait_for_run(self) -> None:
        """Waits until the run has ended by itself."""
        wait_until(lambda: processes.process(self.run_pid) is None, "the run's end")

    def die(self) -> None:
        """Ends the daemon, and with it the reader of what the run reports."""
        self.process.kill()
        self.process.wait(10)
        assert self.process.stdin and self.process.stdout
        self.process.stdin.close()
        self.process.stdout.close()


def test_what_a_killed_run_has_moved_is_announced_by_the_next_one() -> None:
    broken_run("a", "sub/b")
    next_cycle("c")
    script_rsync(RECEIVED + 'out("sender removed c\\n")', ALL_GONE)
    result = run(scripted_binary())
    assert recovered(result) == ["a", "sub/b"]
    assert result.confirmed == ["c"]
    assert result.status == 0
    # And by no other one.
    next_cycle("d")
    script_rsync(RECEIVED + 'out("sender removed d\\n")', ALL_GONE)
    result = run(scripted_binary())
    assert recovered(result) == []
    assert len(journals()) == 1


def test_only_what_is_gone_at_the_source_and_in_place_is_announced() -> None:
    broken_run("here", "gone", "nowhere", "also/gone")
    (TARGET / "nowhere").unlink()
    next_cycle("c")
    answer = 'missing("/gone"); missing("/also/gone"); out("-rw-r--r-- 0 1/1/1 0:0:0 here\\n")'
    script_rsync(RECEIVED + 'out("sender removed c\\n")', f"{answer}\nsys.exit(23)")
    result = run(scripted_binary())
    assert recovered(result) == ["gone", "also/gone"]
    assert "nowhere" not in calls()[-2]["input"] + calls()[-1]["input"]


def test_what_the_same_daemon_has_been_told_is_not_announced_again() -> None:
    told = RECEIVED + 'out("sender removed a\\n")\nout("SENT: last\\n")\n'
    broken_run("a", "b", copying=told, shows="SENT: last")
    text = journals()[0].read_text("utf-8")
    assert "\nc a\n" in text and "\nc b\n" not in text
    next_cycle("c")
    script_rsync(RECEIVED + 'out("sender removed c\\n")', ALL_GONE)
    assert recovered(run(scripted_binary())) == ["b"]


def test_what_another_daemon_was_told_is_announced_again() -> None:
    next_cycle("a", "b")
    script_rsync(RECEIVED + 'out("sender removed a\\nsender removed b\\n")')
    other = OtherDaemon()
    other.wait_for_run()
    # While that daemon lives, its runs are its own affair.
    next_cycle("c")
    script_rsync(RECEIVED + 'out("sender removed c\\n")', ALL_GONE)
    assert recovered(run(scripted_binary())) == []
    other.die()
    next_cycle("d")
    script_rsync(RECEIVED + 'out("sender removed d\\n")', ALL_GONE)
    assert recovered(run(scripted_binary())) == ["a", "b"]


def test_a_run_that_ended_well_is_forgotten_when_its_cycle_is_over() -> None:
    names("a")
    script_rsync(RECEIVED + 'out("sender removed a\\n")')
    assert run(scripted_binary()).confirmed == ["a"]
    first = journals()
    assert len(first) == 1
    # A run of the same cycle: the list is still there, and nobody knows what was handed off.
    run(scripted_binary())
    assert set(first) < set(journals())
    next_cycle("b")
    run(scripted_binary())
    assert not set(first) & set(journals())
    assert len(journals()) == 1


def test_a_run_that_goes_on_is_left_alone() -> None:
    next_cycle("a")
    script_rsync(RECEIVED + WAIT)
    going_on = Program(scripted_binary())
    going_on.read_until("SENT: a")
    next_cycle("b")
    script_rsync(RECEIVED + 'out("sender removed b\\n")', ALL_GONE)
    assert recovered(run(scripted_binary())) == []
    kill(going_on)
    next_cycle("c")
    script_rsync(RECEIVED + 'out("sender removed c\\n")', ALL_GONE)
    assert recovered(run(scripted_binary())) == ["a"]


def test_of_eight_runs_at_once_one_announces() -> None:
    listed = [f"f{index}" for index in range(50)]
    broken_run(*listed)
    next_cycle("x")
    script_rsync("", ALL_GONE)
    programs = [Program(scripted_binary()) for _ in range(8)]
    announced = [recovered(program.finish()) for program in programs]
    assert sorted(sum(announced, [])) == sorted(listed)
    assert sum(bool(names_of_one) for names_of_one in announced) == 1


@pytest.mark.parametrize("confirms", [True, False], ids=["and confirmed by it", "and dies"])
def test_a_name_that_another_run_takes_care_of_is_left_to_it(confirms: bool) -> None:
    next_cycle("a", "b")
    script_rsync(RECEIVED + WAIT)
    killed = Program(scripted_binary())
    killed.read_until("SENT: b")
    # Of two runs of the next cycle, one has the name "a" in its list, and takes its time.
    next_cycle("a")
    script_rsync('out("SENT: a\\n")\ntime.sleep(1)\n' + (
        'out("sender removed a\\n")\n' if confirms else WAIT
    ), ALL_GONE)
    slow = Program(scripted_binary())
    slow.read_until("SENT: a")
    kill(killed)
    next_cycle("c")
    script_rsync(RECEIVED + 'out("sender removed c\\n")', ALL_GONE)
    assert recovered(run(scripted_binary())) == ["b"]
    if confirms:
        assert slow.finish().confirmed == ["a"]
    else:
        kill(slow)
    next_cycle("d")
    script_rsync(RECEIVED + 'out("sender removed d\\n")', ALL_GONE)
    assert recovered(run(scripted_binary())) == ([] if confirms else ["a"])


def test_a_question_without_an_answer_leaves_the_decision_to_a_later_run() -> None:
    broken_run("a", "b")
    next_cycle("c")
    script_rsync(RECEIVED + 'out("sender removed c\\n")', "sys.exit(10)")
    result = run(scripted_binary())
    assert recovered(result) == [] and result.confirmed == ["c"]
    complaint = "rsync_orbelin: cannot ask the source about 2 files of an earlier run: "
    assert [line for line in result.lines if line.startswith(complaint)] == [
        complaint + "rsync ended with status 10; a later run will"
    ]
    next_cycle("d")
    script_rsync(RECEIVED + 'out("sender removed d\\n")', ALL_GONE)
    assert recovered(run(scripted_binary())) == ["a", "b"]


def test_open_names_of_a_run_without_an_answer_are_asked_about_by_the_next() -> None:
    next_cycle("a")
    script_rsync(RECEIVED + "sys.exit(12)", "sys.exit(10)")
    assert run(scripted_binary()).confirmed == []
    next_cycle("b")
    script_rsync(RECEIVED + 'out("sender removed b\\n")', ALL_GONE)
    assert recovered(run(scripted_binary())) == ["a"]


def test_only_what_a_broken_run_has_received_stays_open() -> None:
    next_cycle("a", "b", "c")
    received = RECEIVED.replace(".split()", ".split()[:2]")
    script_rsync(received + 'out("sender removed a\\n")\nsys.exit(11)', ALL_THERE)
    assert run(scripted_binary()).confirmed == ["a"]
    text = journals()[0].read_text("utf-8")
    assert text.endswith("done: own names\n")
    assert [line.split()[3] for line in text.splitlines() if line.startswith("i ")] == ["b"]
    # By the next cycle, "b" has been removed late; "c" was not received before it was.
    (TARGET / "c").touch()
    next_cycle("d")
    script_rsync(RECEIVED + 'out("sender removed d\\n")', ALL_GONE)
    assert recovered(run(scripted_binary())) == ["b"]


def test_names_that_stay_at_the_source_are_not_asked_about_for_ever() -> None:
    broken_run("stays")
    for _ in range(5):
        next_cycle("stays")
        script_rsync("", ALL_THERE)
        assert recovered(run(scripted_binary())) == []
    next_cycle("c")
    asked = len([call for call in calls() if call["input"]])
    script_rsync(RECEIVED + 'out("sender removed c\\n")', ALL_THERE)
    run(scripted_binary())
    assert len([call for call in calls() if call["input"]]) == asked


def test_journals_are_this_users_alone() -> None:
    names("a")
    old = os.umask(0)
    try:
        script_rsync(RECEIVED + 'out("sender removed a\\n")')
        run(scripted_binary())
    finally:
        os.umask(old)
    assert stat.S_IMODE(JOURNALS.stat().st_mode) == 0o700
    for folder in JOURNALS.iterdir():
        assert stat.S_IMODE(folder.stat().st_mode) == 0o700
        for file in folder.iterdir():
            assert stat.S_IMODE(file.stat().st_mode) == 0o600


@pytest.mark.parametrize("obstacle", ["file", "open to others", "read-only"])
def test_without_a_journal_copying_goes_on_and_one_line_says_so(obstacle: str) -> None:
    if obstacle == "file":
        JOURNALS.parent.mkdir(parents=True, exist_ok=True)
        JOURNALS.touch()
    elif obstacle == "open to others":
        JOURNALS.mkdir(parents=True)
        JOURNALS.chmod(0o777)
    else:
        JOURNALS.parent.mkdir(parents=True, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "tmpfs", JOURNALS.parent], check=True)
    try:
        names("a")
        script_rsync(RECEIVED + 'out("sender removed a\\n")')
        result = run(scripted_binary())
    finally:
        if obstacle == "read-only":
            subprocess.run(["umount", JOURNALS.parent], check=True)
    assert result.confirmed == ["a"] and result.status == 0
    beginning = f"rsync_orbelin: cannot keep a journal in {JOURNALS}: "
    assert len([line for line in result.lines if line.startswith(beginning)]) == 1
    assert len(result.lines) == 3


def test_a_journal_that_fills_the_disk_ends_and_the_copying_does_not() -> None:
    JOURNALS.parent.mkdir(parents=True, exist_ok=True)
    subprocess.run(
        ["mount", "-t", "tmpfs", "-o", "size=16k", "tmpfs", JOURNALS.parent], check=True
    )
    try:
        listed = [f"{index:0200}" for index in range(50)]
        names(*listed)
        removed = 'for name in given_names: out("sender removed %s\\n" % name)'
        script_rsync(
            RECEIVED + f"given_names = open({str(FILE_LIST)!r}).read().split()\n" + removed
        )
        result = run(scripted_binary())
        assert result.confirmed == listed and result.status == 0
        complaints = [line for line in result.lines if line.startswith("rsync_orbelin: ")]
        assert len(complaints) == 1 and complaints[0].endswith("No space left on device")
        # What is left of it does not have files announced twice.
        next_cycle("x")
        script_rsync(RECEIVED + 'out("sender removed x\\n")', ALL_GONE)
        assert recovered(run(scripted_binary())) == []
    finally:
        subprocess.run(["umount", JOURNALS.parent], check=True)


def damage(journal: Path, how: str) -> None:
    """Makes a journal one that must not be trusted."""
    if how == "text":
        journal.write_bytes(journal.read_bytes().replace(b"\nn ", b"\nN "))
    elif how == "empty":
        journal.write_bytes(b"")
    elif how == "leads out":
        journal.write_bytes(journal.read_bytes() + b"n ../outside\n")
    elif how == "owner":
        os.chown(journal, 1, 1)
    elif how == "mode":
        journal.chmod(0o666)
    elif how == "link":
        journal.rename(JOURNALS / "elsewhere")
        journal.symlink_to(JOURNALS / "elsewhere")
    elif how == "folder":
        journal.unlink()
        journal.mkdir()
    elif how == "fifo":
        journal.unlink()
        os.mkfifo(journal, 0o600)
    elif how == "socket":
        journal.unlink()
        with socket.socket(socket.AF_UNIX) as server:
            os.chdir(journal.parent)  # its path is longer than an address may be
            server.bind(journal.name)
            os.chdir("/")
    elif how == "share":
        journal.write_bytes(journal.read_bytes().replace(b"/ramdisk/", b"/other/"))


@pytest.mark.parametrize(
    "how",
    ["text", "empty", "leads out", "owner", "mode", "link", "folder", "fifo", "socket", "share"],
)
def test_a_journal_that_is_not_sound_is_set_aside(how: str) -> None:
    broken_run("a")
    (TARGET.parent / "outside").touch()
    journal = journals()[0]
    damage(journal, how)
    next_cycle("c")
    script_rsync(RECEIVED + 'out("sender removed c\\n")', ALL_GONE)
    result = run(scripted_binary())
    assert result.confirmed == ["c"] and recovered(result) == [] and result.status == 0
    beginning = f"rsync_orbelin: the journal {journal.name} is not used: "
    ending = f"; set aside as damaged-{journal.name}"
    remarks = [line for line in result.lines if line.startswith("rsync_orbelin: ")]
    assert len(remarks) == 1, result.lines
    assert remarks[0].startswith(beginning) and remarks[0].endswith(ending)
    assert os.path.lexists(journal.with_name(f"damaged-{journal.name}"))
    # Said once.
    next_cycle("d")
    script_rsync(RECEIVED + 'out("sender removed d\\n")', ALL_GONE)
    assert not [line for line in run(scripted_binary()).lines if line.startswith("rsync_orbelin")]


def test_a_journal_that_cannot_be_opened_now_is_kept() -> None:
    broken_run("a")
    next_cycle("c")
    script_rsync(RECEIVED + 'out("sender removed c\\n")', ALL_GONE)
    # Enough descriptors for the report, the folder and the turn, and none for what others left.
    found: list[bytes | str] = []
    for limit in range(4, 16):
        program = subprocess.run(
            ["prlimit", f"--nofile={limit}", scripted_binary(), *OPTIONS, URL, f"{TARGET}/"],
            env=DAEMON_ENVIRONMENT,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            timeout=60,
            check=False,
        )
        assert b"damaged" not in program.stdout and b"not used" not in program.stdout
        found += [line for line in program.stdout.splitlines() if b"recovered a" in line]
        next_cycle("c")
    assert found + recovered(run(scripted_binary())) in (["a"], [b"CONFIRMED: recovered a"])
    assert not list(JOURNALS.glob("*/damaged-*"))


def test_a_journal_that_was_being_begun_is_cleared_away() -> None:
    names("a")
    script_rsync(RECEIVED + 'out("sender removed a\\n")')
    run(scripted_binary())
    begun = journals()[0].with_name("new-1-2")
    begun.write_text("skarn journal 1\n", "ascii")
    begun.chmod(0o600)
    next_cycle("b")
    run(scripted_binary())
    assert not begun.exists()


def test_without_a_reader_nothing_is_begun() -> None:
    names("a")
    script_rsync(RECEIVED)
    CALLS.mkdir(parents=True)
    TARGET.mkdir(parents=True)
    read_end, write_end = os.pipe()
    os.close(read_end)
    process = subprocess.run(
        [scripted_binary(), *OPTIONS, URL, f"{TARGET}/"],
        env=DAEMON_ENVIRONMENT,
        stdin=subprocess.DEVNULL,
        stdout=write_end,
        stderr=subprocess.STDOUT,
        timeout=30,
        check=False,
    )
    os.close(write_end)
    assert process.returncode == -signal.SIGPIPE
    assert calls() == [] and journals() == []


LISTING = ["-mrlDHW", "--list-only", "--exclude=**.tmp", "--password-file=/p", URL]
ROOT_ENTRY = "drwxr-xr-x             40 2026/01/01 00:00:00 ."
REMINDER = "/rsync_orbelin:recovery"


def list_share() -> Result:
    """The daemon's listing of the share."""
    return Program(scripted_binary(), LISTING).finish()


def reminders(result: Result) -> int:
    """How often the listing names what makes the daemon start a copy run."""
    return sum(line.split()[4:] == [REMINDER] for line in result.lines)


def test_an_empty_listing_reminds_of_open_names() -> None:
    broken_run("a")
    FILE_LIST.unlink()
    script_rsync('sys.exit("not to be called")', f'out("{ROOT_ENTRY}\\n")\nerr("noise\\n")')
    result = list_share()
    assert reminders(result) == 1 and result.status == 0
    assert sorted(result.lines[:2]) == sorted([ROOT_ENTRY, "noise"]) and len(result.lines) == 3
    # What the daemon makes of it.
    before = len(calls())
    next_cycle(REMINDER)
    script_rsync('sys.exit("not to be called")', ALL_GONE)
    announcing = run(scripted_binary())
    assert announcing.lines == ["CONFIRMED: recovered a"] and announcing.status == 0
    assert len(calls()) == before + 1
    FILE_LIST.unlink()
    script_rsync("", f'out("{ROOT_ENTRY}\\n")')
    assert list_share().lines == [ROOT_ENTRY]
    assert journals() == []


@pytest.mark.parametrize(
    "listing",
    [f'out("{ROOT_ENTRY}\\n-rw-r--r-- 0 2026/01/01 00:00:00 b\\n")', "sys.exit(10)"],
    ids=["of files", "that fails"],
)
def test_no_other_listing_reminds(listing: str) -> None:
    broken_run("a")
    FILE_LIST.unlink()
    script_rsync("", listing)
    for _ in range(5):
        result = list_share()
        assert reminders(result) == 0
        assert result.status == (10 if "exit" in listing else 0)
    script_rsync("", f'out("{ROOT_ENTRY}\\n")')
    assert reminders(list_share()) == 1


def test_a_listing_while_the_cycle_goes_on_does_not_remind() -> None:
    broken_run("a")
    script_rsync("", f'out("{ROOT_ENTRY}\\n")')
    assert reminders(list_share()) == 0


def test_a_reminder_that_nobody_follows_is_not_repeated_for_ever() -> None:
    broken_run("a")
    FILE_LIST.unlink()
    script_rsync("", f'out("{ROOT_ENTRY}\\n")')
    assert [reminders(list_share()) for _ in range(5)] == [1, 1, 1, 0, 0]
    # The next file brings it back to mind.
    next_cycle("b")
    script_rsync(RECEIVED + 'out("sender removed b\\n")', ALL_GONE)
    assert recovered(run(scripted_binary())) == ["a"]


def test_nothing_is_kept_for_a_source_that_is_no_share() -> None:
    names("a")
    script_rsync(RECEIVED + 'out("sender removed a\\n")')
    program = Program(scripted_binary(), [*OPTIONS, "/srv/share/", f"{TARGET}/"])
    assert program.finish().confirmed == ["a"]
    assert not JOURNALS.exists()
