"""The journal that a copy run keeps: what it may have moved, whatever becomes of it."""

from __future__ import annotations

import os
import signal
import stat
import subprocess

import pytest

from confirming_rsync.listing import (
    JOURNALS,
    MOVE,
    RECEIVE,
    REMINDER,
    WAIT,
    broken_run,
    called,
    copy,
    cycle,
    end_cycle,
    found,
    journals,
    kill,
    list_share,
    mounted,
    remarks,
    script,
    strace,
)
from confirming_rsync.program import (
    DAEMON_ENVIRONMENT,
    FILE_LIST,
    OPTIONS,
    TARGET,
    URL,
    Program,
    names,
    scripted_binary,
)


def body(number: int = 0) -> list[str]:
    """What a journal says below its head."""
    return journals()[number].read_text("utf-8").split("\nnames\n", 1)[1].splitlines()


def test_a_journal_says_whose_run_it_is_and_what_became_of_each_name() -> None:
    names("a", "b", "two words")
    script()
    program = copy()
    result = program.finish()
    assert result.confirmed == ["a", "b", "two words"]
    (journal,) = journals()
    head = journal.read_text("utf-8").split("\nnames\n", 1)[0].splitlines()
    listed = FILE_LIST.stat()
    stat_line = open("/proc/self/stat", encoding="ascii").read().rsplit(")", 1)[1].split()
    boot = open("/proc/sys/kernel/random/boot_id", encoding="ascii").read().strip()
    assert head[0] == "skarn journal 2"
    assert head[1] == f"daemon {boot} {os.getpid()} {stat_line[19]}"
    assert head[2].startswith("begun ")
    assert head[3] == f"list {listed.st_dev} {listed.st_ino} {listed.st_mtime_ns} {FILE_LIST}"
    assert head[4:] == [f"source {URL}", f"destination {TARGET}/"]
    assert journal.name == f"run-{head[2][6:]}-{program.pid}"
    assert body() == ["n a", "n b", "n two words", "c a", "c b", "c two words", "done"]
    # Its folders have names that an operator can read.
    assert journal.parent.parent.name == "rsync:%2F%2Froot@127.0.0.1:49371%2Framdisk%2F"
    assert journal.parent.name == "%2Fsrv%2Ftarget%2F"


def test_what_an_orphan_of_a_dead_daemon_has_confirmed_is_announced_again() -> None:
    """Whoever takes over the orphans is not the daemon, and may live for ever."""
    daemon = subprocess.Popen(["true"])
    daemon.wait()
    listed = FILE_LIST.with_name(f"file_list_{daemon.pid}_1_0")
    listed.write_text("a\n", encoding="ascii")
    script()
    TARGET.mkdir()
    options = [*OPTIONS[:-1], f"--files-from={listed}", URL, f"{TARGET}/"]
    program = Program(scripted_binary(), options)
    assert program.finish().confirmed == ["a"]
    (journal,) = journals()
    assert journal.read_text("utf-8").splitlines()[1].split()[2] == str(program.pid)
    listed.unlink()
    assert cycle().recovered == ["a"]


def test_a_list_of_the_living_daemon_tells_nothing_else() -> None:
    listed = FILE_LIST.with_name(f"file_list_{os.getpid()}_1_0")
    listed.write_text("a\n", encoding="ascii")
    script()
    TARGET.mkdir()
    options = [*OPTIONS[:-1], f"--files-from={listed}", URL, f"{TARGET}/"]
    assert Program(scripted_binary(), options).finish().confirmed == ["a"]
    (journal,) = journals()
    assert journal.read_text("utf-8").splitlines()[1].split()[2] == str(os.getpid())
    listed.unlink()
    assert cycle().recovered == []


def test_the_names_are_written_down_before_rsync_gets_them() -> None:
    names("a", "b")
    pattern = f"{JOURNALS}/*/*/run-*"
    look = f"import glob\nfor path in glob.glob({pattern!r}): out(open(path).read())"
    script(look)
    lines = copy().finish().lines
    assert lines[-2:] == ["n a", "n b"]


def test_a_name_that_rsync_shows_escaped_is_written_as_it_is_shown() -> None:
    names(b"n\x01l", b"\xe4")
    script("receive()")
    copy().finish()
    assert journals()[0].read_bytes().endswith(b"names\nn n\\#001l\nn \xe4\ndone\n")


@pytest.mark.parametrize("how", ["breaks off", "is told to stop", "gives no answer"])
def test_a_run_that_cannot_account_for_its_names_does_not_say_that_it_is_done(how: str) -> None:
    names("a", "b", "never")
    received = 'receive("a", "b")\nremove("a")\nout("receiving file list ... done\\n")\n'
    endings = {"breaks off": "sys.exit(12)", "is told to stop": WAIT, "gives no answer": ""}
    script(received + endings[how])
    program = copy()
    if how == "is told to stop":
        program.read_until("CONFIRMED: removed a\n")
        program.signal(signal.SIGTERM)
    result = program.finish()
    assert result.confirmed == ["a"]
    assert result.status == {"breaks off": 12, "is told to stop": -signal.SIGTERM}.get(how, 0)
    assert body() == ["n a", "n b", "n never", "c a"]
    # Only of a server that has done all that it was told is the question worth asking.
    assert len(called("asked")) == (1 if how == "gives no answer" else 0)
    complaint = "cannot ask the source what is still there: rsync ended with status 10; 1 file left"
    assert any(complaint in line for line in result.lines) == (how == "gives no answer")
    # The next listing tells.
    one = cycle("never")
    assert one.recovered == ["b"] and one.confirmed == ["never"]


def test_an_answer_accounts_for_the_names() -> None:
    names("a", "b")
    script(RECEIVE, asked='missing("a")\nshow("b")\nsys.exit(23)')
    assert copy().finish().confirmed == ["a"]
    assert body() == ["n a", "n b", "c a", "done"]
    end_cycle()
    assert cycle("c").recovered == []


def test_a_run_that_is_killed_between_two_portions_has_not_touched_the_second() -> None:
    listed = [f"frame_{number:06}.raw" for number in range(1600)]
    names(*listed)
    script(MOVE + WAIT)
    program = copy()
    program.read_until(f"CONFIRMED: removed {listed[799]}\n")
    kill(program)
    assert [line for line in body() if line[0] == "n"] == [f"n {name}" for name in listed[:800]]


def test_names_of_an_earlier_run_are_written_down_before_they_are_forgotten() -> None:
    broken_run("a")
    script()
    assert cycle("c").recovered == ["a"]
    assert body() == ["t a", "c a", "n c", "c c", "done"] or body() == [
        *("t a", "n c", "c a", "c c", "done")
    ]


def test_journals_are_this_users_alone() -> None:
    names("a")
    old = os.umask(0)
    try:
        script()
        copy().finish()
    finally:
        os.umask(old)
    assert len(journals()) == 1
    for path in (JOURNALS, *JOURNALS.rglob("*")):
        mode = stat.S_IMODE(path.stat().st_mode)
        assert mode == (0o700 if path.is_dir() else 0o600), path


@pytest.mark.parametrize("obstacle", ["file", "open to others", "others' folder", "read-only"])
def test_without_a_journal_copying_goes_on_and_one_line_says_so(obstacle: str) -> None:
    JOURNALS.parent.mkdir(parents=True, exist_ok=True)
    names("a")
    script()
    if obstacle == "read-only":
        with mounted(JOURNALS.parent, "-o", "ro"):
            result = copy().finish()
    else:
        if obstacle == "file":
            JOURNALS.touch()
        elif obstacle == "open to others":
            JOURNALS.mkdir()
            JOURNALS.chmod(0o777)
        else:
            JOURNALS.mkdir()
            os.chown(JOURNALS, 1, 1)
        result = copy().finish()
    assert result.confirmed == ["a"] and result.status == 0
    beginning = f"rsync_orbelin: cannot keep a journal in {JOURNALS}: "
    assert len(result.lines) == 3 and result.lines[0].startswith(beginning)


def test_a_journal_that_fills_the_disk_ends_and_the_copying_does_not() -> None:
    with mounted(JOURNALS.parent, "-o", "size=16k"):
        listed = [f"{index:0200}" for index in range(50)]
        names(*listed)
        script()
        result = copy().finish()
        assert result.confirmed == listed and result.status == 0
        assert len(remarks(result)) == 1
        assert remarks(result)[0].endswith("No space left on device")
        # What is left of it does not have files announced twice, and is taken for what it is.
        one = cycle("x")
        assert one.recovered == [] and one.confirmed == ["x"]
        assert [line for line in one.remarks if "No space" not in line] == []


@pytest.mark.parametrize("reminded", [False, True])
def test_what_a_run_confirms_on_a_disk_that_fills_meanwhile_is_not_announced_again(
    reminded: bool,
) -> None:
    # Of names that were written down the confirmations can be, too.
    with mounted(JOURNALS.parent, "-o", "size=256k"):
        listed = [f"{index:0200}" for index in range(200)]
        if reminded:
            broken_run("left")
            script()
            list_share()
        filler = JOURNALS.parent / "filler"
        names(*([REMINDER] if reminded else []), *listed)
        fill = f'from pathlib import Path\ntry:\n    Path("{filler}").write_bytes(b"x" * 300000)'
        script(RECEIVE + f"\n{fill}\nexcept OSError:\n    pass\nremove(*mine)")
        result = copy().finish()
        assert result.confirmed == listed and result.status == 0
        assert remarks(result) == []
        assert os.statvfs(JOURNALS.parent).f_bavail == 0
        filler.unlink()
        one = cycle("x")
        assert one.recovered == [] and one.confirmed == ["x"]


def test_eight_runs_that_start_at_once_keep_a_journal_each() -> None:
    for _ in range(5):
        names("a")
        script("receive()")
        programs = [copy() for _ in range(8)]
        for program in programs:
            assert remarks(program.finish()) == []
        pids = sorted(int(path.name.rsplit("-", 1)[1]) for path in journals())
        assert pids == sorted(program.pid for program in programs)
        for number in range(8):
            assert body(number) == ["n a", "done"]
        # Nothing else: no half of a journal was ever there under a name.
        assert len([path for path in JOURNALS.rglob("*") if path.is_file()]) == 8
        cycle()
        for path in found("done-*"):
            path.unlink()


def test_a_journal_appears_whole_and_held() -> None:
    names("a")
    script("receive()")
    options = ["-y", "-e", "trace=openat,linkat,flock,write,rename,renameat"]
    copy(before=strace(*options)).finish()
    text = open("/srv/strace", encoding="utf-8").read()
    head = text.index("skarn journal 2")
    link = text.index("linkat(", head)
    made = text.rindex("O_TMPFILE", 0, head)
    held = text.rindex("flock(", 0, head)
    assert made < held < head < link
    assert text.index('"run-') > link


def test_without_a_reader_nothing_is_begun() -> None:
    names("a")
    script()
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
    assert called() == [] and journals() == []


def test_a_failure_of_the_journal_is_said_once_and_ends_nothing() -> None:
    names("a", "b")
    script()
    result = copy(before=strace("-e", "inject=linkat:error=EIO")).finish()
    assert result.confirmed == ["a", "b"] and result.status == 0
    assert remarks(result) == [
        f"rsync_orbelin: cannot keep a journal in {JOURNALS}: Input/output error"
    ]
    assert journals() == []
