"""On a disk, what is copied is made durable before it is removed at the source."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import time
from collections.abc import Iterator
from pathlib import Path

import pytest

from confirming_rsync.disk import ext4
from confirming_rsync.listing import (
    MOVE,
    RECEIVE,
    called,
    copy,
    cycle,
    end_cycle,
    found,
    journals,
    list_share,
    other_boot,
    remarks,
    script,
    strace,
)
from confirming_rsync.program import (
    FILE_LIST,
    OPTIONS,
    TARGET,
    URL,
    Program,
    Result,
    names,
    real_binary,
)
from support import daemon
from support.rsync_server import RsyncServer
from support.waiting import wait_until

SHARE = Path("/srv/share")
TRACE = Path("/srv/strace")

ADDED = ["--8-bit-output", "--contimeout=30", "--sockopts=TCP_NODELAY", "--no-motd"]
NOT_HANDED_ON = ("--confirm-files", f"--files-from={FILE_LIST}")
KEPT = [option for option in OPTIONS if option not in NOT_HANDED_ON]
BOTH_PASSES = ["--from0", "--files-from=-", "--modify-window=-1", *ADDED, "--info=remove1"]


@pytest.fixture(name="disk", autouse=True)
def disk_fixture() -> Iterator[Path]:
    """The target, on a disk."""
    with ext4(TARGET) as target:
        yield target


@pytest.fixture(name="server", params=[2, None], ids=["reports-removals", "default-verbosity"])
def server_fixture(request: pytest.FixtureRequest) -> Iterator[RsyncServer]:
    """A server that reports what it removes, and one that does not."""
    daemon.install_password_file()
    state = Path("/srv/state")
    with RsyncServer("127.0.0.1", SHARE, state, max_verbosity=request.param, log=True) as server:
        yield server


def not_durable(reason: str) -> str:
    """What is said when a flush fails."""
    beginning = "rsync_orbelin: nothing is removed at the source: what was copied did not reach "
    return f"{beginning}the disk: {reason}"


def start_real(*before: str) -> Program:
    """A copy by stock rsync."""
    call: list[str | bytes] = [*before, str(real_binary()), *OPTIONS, URL, f"{TARGET}/"]
    return Program(Path(str(call[0])), call[1:])


def copy_really(*before: str) -> Result:
    """The whole of it."""
    return start_real(*before).finish()


def make(*listed: str) -> None:
    """Puts files into the share."""
    for name in listed:
        (SHARE / name).parent.mkdir(parents=True, exist_ok=True)
        (SHARE / name).write_text(f"the content of {name}", "utf-8")


def injected() -> int:
    """How many system calls were tampered with."""
    return TRACE.read_text("utf-8", errors="replace").count("(INJECTED)")


def positions(*patterns: str) -> list[int]:
    """Where the trace shows each of these for the first time after the one before."""
    text = TRACE.read_text("utf-8", errors="replace")
    at = 0
    positioned: list[int] = []
    for pattern in patterns:
        match = re.compile(pattern, re.MULTILINE).search(text, at)
        assert match, f"{pattern} after {positioned} in\n{text[:20000]}"
        positioned.append(match.start())
        at = match.end()
    return positioned


def test_each_portion_is_copied_then_removed_with_the_same_names() -> None:
    listed = [f"{number:04}" for number in range(1501)]
    names(*listed)
    script(MOVE.replace("remove(*mine)", ""))
    result = copy().finish()
    assert result.status == 0 and result.confirmed == result.sent == listed
    copy_options = [option for option in KEPT if option != "--remove-source-files"]
    last = ["--temp-dir=/proc", "--no-verbose"]
    kinds = [call["kind"] for call in called()]
    assert kinds == ["copying", "removing"] * 2
    inputs = ["".join(f"{n}\0" for n in part) for part in (listed[:750], listed[750:])]
    assert [call["input"] for call in called()] == [inputs[0], inputs[0], inputs[1], inputs[1]]
    for call in called("copying"):
        assert call["arguments"] == [*BOTH_PASSES, *copy_options, URL, f"{TARGET}/"]
    for call in called("removing"):
        assert call["arguments"] == [*BOTH_PASSES, *KEPT, *last, URL, f"{TARGET}/"]


def test_only_what_is_in_place_is_removed() -> None:
    (TARGET / "old").write_text("there before", "ascii")
    names("a", "old", "missing", "discarded", "b")
    script(
        'receive("a", "discarded", "b")\n'
        'err("ERROR: discarded failed verification -- update discarded.\\n")\n'
        "sys.exit(23)"
    )
    result = copy().finish()
    assert [call["input"] for call in called("removing")] == ["a\0old\0b\0"]
    assert result.status == 23 and result.confirmed == ["a", "old", "b"]
    assert result.sent == ["a", "old", "b"] or result.sent == ["a", "b"]


def leave_as_after_a_cut(*left: str) -> None:
    """At the target, what a cut of the power may leave of files that were not flushed yet: all that
    ext4 keeps of a file, and nothing of what was in it."""
    for name in left:
        status = (SHARE / name).stat()
        (TARGET / name).parent.mkdir(parents=True, exist_ok=True)
        (TARGET / name).touch()
        os.truncate(TARGET / name, status.st_size)
        os.utime(TARGET / name, ns=(status.st_atime_ns, status.st_mtime_ns))


def contents(*listed: str) -> dict[str, str]:
    """What is at the target."""
    return {name: (TARGET / name).read_text("utf-8") for name in listed}


@pytest.mark.usefixtures("server")
def test_what_a_cut_of_the_power_left_does_not_pass_for_up_to_date() -> None:
    listed = ("a", "sub/b", "new")
    make(*listed)
    names(*listed)
    leave_as_after_a_cut("a", "sub/b")
    archived = Path("/srv/target/archived")
    os.link(TARGET / "a", archived)
    before = archived.stat().st_mtime_ns
    with other_boot():
        # Since then all files were given their owner again.
        wait_until(lambda: time.time() >= os.stat(TARGET / "a").st_ctime + 1, "the next second")
        for path in (TARGET / "a", TARGET / "sub/b"):
            os.chown(path, 0, 0)
        result = copy_really()
    assert result.status == 0 and sorted(result.confirmed) == sorted(listed)
    assert contents(*listed) == {name: f"the content of {name}" for name in listed}
    assert not any((SHARE / name).exists() for name in listed)
    assert archived.stat().st_mtime_ns == before, "the consumer's own link was touched"


@pytest.mark.usefixtures("server")
def test_what_this_boot_has_copied_is_not_copied_again() -> None:
    make("a")
    names("a")
    shutil.copy2(SHARE / "a", TARGET / "a")
    inode = (TARGET / "a").stat().st_ino
    result = copy_really()
    assert result.confirmed == ["a"] and not (SHARE / "a").exists()
    assert (TARGET / "a").stat().st_ino == inode


@pytest.mark.usefixtures("server")
def test_what_a_cut_left_and_cannot_be_replaced_stays_at_the_source() -> None:
    make("a", "b")
    names("a", "b")
    leave_as_after_a_cut("a")
    subprocess.run(["/usr/bin/chattr", "+i", TARGET / "a"], check=True)
    with other_boot():
        result = copy_really()
        assert result.confirmed == ["b"] and (SHARE / "a").exists()
        remark = "1 file at the target from before the machine's start not replaced"
        assert f"rsync_orbelin: {remark}; left for the next cycle" in result.lines
        names("a")
        assert copy_really().status == 23 and (SHARE / "a").exists()
        subprocess.run(["/usr/bin/chattr", "-i", TARGET / "a"], check=True)
        assert copy_really().confirmed == ["a"]
    assert contents("a") == {"a": "the content of a"}


def test_each_file_is_told_of_when_it_is_removed() -> None:
    names("a", "b")
    script(RECEIVE + '\nout("first pass is over\\n")', removing='remove("b")\nremove("a")')
    lines = copy().finish().lines
    assert lines == [
        "first pass is over",
        *("SENT: b", "CONFIRMED: removed b", "SENT: a", "CONFIRMED: removed a"),
    ]


def test_a_target_in_memory_is_served_in_one_pass_without_a_flush() -> None:
    memory = Path("/srv/memory")
    names("a", "b")
    script()
    program = copy(memory, before=strace("-f", "-e", "trace=syncfs,fsync,fdatasync,sync"))
    # The scripted rsync receives to the one target.
    program.finish()
    (call,) = called()
    assert call["arguments"] == [*BOTH_PASSES, *KEPT, URL, f"{memory}/"]
    text = TRACE.read_text("utf-8")
    assert "syncfs(" not in text and "sync()" not in text
    # Of the folders of journals only, when they are made.
    assert "fsync(" not in text.replace("fsync(", "", 3)


def test_the_order_is_copy_flush_journal_removal() -> None:
    names("a", "sub/b")
    script(RECEIVE)
    options = ["-f", "-y", "-e", "trace=execve,syncfs,fsync,write,pwrite64"]
    result = copy(before=strace(*options, "-s", "200")).finish()
    assert result.confirmed == ["a", "sub/b"]
    program = r"execve\(\"/usr/local/orbelin/scripted_rsync\", "
    journal = r"</var/lib/skarn/journal/.*"
    positions(
        program,
        r"exited with 0 \+\+\+",
        rf"syncfs\(\d+<{TARGET}>\)",
        rf"write\(\d+{journal}n a\\nn sub/b\\n",
        rf"fsync\(\d+{journal}\) *= 0",
        rf"fsync\(\d+{journal}%2F>\) *= 0",
        program + r".*--temp-dir=/proc",
        r"write\(1<.*CONFIRMED: removed a\\n",
        rf"write\(\d+{journal}c a\\n",
    )
    assert len(re.findall(r"syncfs\(", TRACE.read_text("utf-8"))) == 1


@pytest.mark.parametrize(
    "error, reason",
    [
        ("EIO", "Input/output error"),
        ("ENOSPC", "No space left on device"),
        ("EDQUOT", "Disk quota exceeded"),
    ],
)
def test_nothing_is_removed_when_the_flush_fails(
    server: RsyncServer, error: str, reason: str
) -> None:
    assert server.pid
    listed = ["a", "sub/b", "sub/deep/c"]
    make(*listed)
    (SHARE / "link").symlink_to("a")
    names(*listed, "link")
    result = copy_really(*strace("-e", f"inject=syncfs:error={error}"))
    assert injected() == 1
    assert result.status == 11 and remarks(result) == [not_durable(reason)]
    # Of what is neither sent nor confirmed the daemon misses nothing.
    assert result.sent == result.confirmed == []
    assert server.connections() == 1
    for name in listed:
        assert (SHARE / name).read_text("utf-8") == f"the content of {name}"
        # What memory shows may not be what is on the disk: it is no longer up to date.
        assert (TARGET / name).stat().st_mtime == 0
        (TARGET / name).write_text(f"something else: {name}", "utf-8")
        os.utime(TARGET / name, (0, 0))
    again = copy_really()
    assert again.status == 0 and remarks(again) == []
    assert sorted(again.confirmed) == sorted([*listed, "link"])
    assert set(again.sent) >= set(listed)
    for name in listed:
        assert (TARGET / name).read_text("utf-8") == f"the content of {name}"
        assert not (SHARE / name).exists()


def test_a_flush_that_fails_is_no_cause_to_look_for_the_names() -> None:
    names("a")
    script(RECEIVE)
    result = copy(before=strace("-e", "inject=syncfs:error=EIO")).finish()
    assert result.lines == [not_durable("Input/output error")] and result.seconds >= 1
    assert [call["kind"] for call in called()] == ["copying"]
    assert journals()[0].read_text("utf-8").endswith("\nnames\ndone\n")
    # The detector takes the file away: it is not announced.
    assert cycle().copying is None
    # It is still there.
    assert cycle("a", copying=RECEIVE).confirmed == ["a"]


def test_a_flush_that_fails_ends_the_run() -> None:
    names(*(f"{number:04}" for number in range(1501)))
    script(RECEIVE)
    result = copy(before=strace("-e", "inject=syncfs:error=EIO:when=1")).finish()
    assert len(called()) == 1 and result.status == 11 and len(remarks(result)) == 1


def test_a_target_that_became_read_only_has_failed(server: RsyncServer) -> None:
    assert server.pid
    make("a")
    names("a")
    program = start_real(*strace("-e", "inject=syncfs:delay_enter=2000000"))
    wait_until((TARGET / "a").exists, "the file's arrival")
    subprocess.run(["sync", "-f", TARGET], check=True)
    wait_until(
        lambda: subprocess.run(["mount", "-o", "remount,ro", TARGET], check=False).returncode == 0,
        "the target to become read-only",
    )
    result = program.finish()
    assert remarks(result) == [not_durable("Read-only file system")]
    assert result.confirmed == [] and (SHARE / "a").exists()
    subprocess.run(["mount", "-o", "remount,rw", TARGET], check=True)
    assert copy_really().confirmed == ["a"]


def test_a_file_that_changes_after_it_was_copied_stays_for_the_next_cycle(
    server: RsyncServer,
) -> None:
    assert server.pid
    make("same", "changes", "grows", "sub/changes")
    moment = 1_700_000_000 * 10**9
    for name in ("same", "changes", "grows", "sub/changes"):
        os.utime(SHARE / name, ns=(moment, moment))
    names("same", "changes", "grows", "sub/changes")
    program = start_real(*strace("-e", "inject=syncfs:delay_enter=1500000"))
    wait_until((TARGET / "sub/changes").exists, "the last file's arrival")
    changed = {}
    for name in ("changes", "grows", "sub/changes"):
        old = (SHARE / name).read_text("utf-8")
        changed[name] = old + "more" if name == "grows" else old.upper()
        fresh = SHARE / "fresh.tmp"
        fresh.write_text(changed[name], "utf-8")
        os.utime(fresh, ns=(moment + 500, moment + 500))
        fresh.rename(SHARE / name)
    result = program.finish()
    assert result.confirmed == ["same"] and result.sent == ["same"]
    assert remarks(result) == [
        "rsync_orbelin: 3 files written anew while being copied, left for the next cycle"
    ]
    assert "mkstemp" not in result.report.decode()
    for name, content in changed.items():
        assert (SHARE / name).read_text("utf-8") == content
    assert not (SHARE / "same").exists()
    end_cycle()
    names(*changed)
    again = copy_really()
    assert sorted(again.confirmed) == sorted(changed) and again.status == 0
    for name, content in changed.items():
        assert (TARGET / name).read_text("utf-8") == content


def test_a_first_pass_that_broke_off_hands_off_what_is_in_place() -> None:
    names("a", "b", "never")
    script('receive("a", "b")\nsys.exit(12)')
    result = copy().finish()
    assert result.confirmed == ["a", "b"] and result.status == 12
    assert [call["input"] for call in called("removing")] == ["a\0b\0"]
    # The first one's failure ends the run, and is its status.
    assert journals()[0].read_text("utf-8").endswith("\nn a\nn b\nc a\nc b\ndone\n")


def test_a_second_pass_that_broke_off_leaves_the_rest_to_the_next_listing() -> None:
    names("a", "b", "c")
    script(RECEIVE, removing='remove("a")\nsys.exit(12)')
    result = copy().finish()
    assert result.confirmed == ["a"] and result.status == 12
    assert result.sent == ["a", "b", "c"]
    assert called("asked") == []
    one = cycle("c", copying=RECEIVE)
    assert one.recovered == ["b"] and one.confirmed == ["c"]


def test_what_a_silent_server_removed_is_asked_about() -> None:
    names("a", "b")
    script(RECEIVE, removing="pass", asked='missing("a")\nshow("b")\nsys.exit(23)')
    result = copy().finish()
    assert result.lines[:2] == ["SENT: a", "CONFIRMED: removed a"]
    assert result.confirmed == ["a"]
    assert [call["input"] for call in called("asked")] == ["a\0b\0"]


def test_a_full_disk_does_not_keep_what_has_arrived(server: RsyncServer) -> None:
    assert server.pid
    make("a", "b")
    (SHARE / "c").write_bytes(os.urandom(40 * 1024 * 1024))
    names("a", "b", "c")
    result = copy_really()
    assert result.confirmed == ["a", "b"]
    assert result.status == 11 and "No space left on device" in result.report.decode()
    assert sorted(os.listdir(SHARE)) == ["c"]
    assert not (TARGET / "c").exists()
    # There is room again.
    (SHARE / "c").write_bytes(b"smaller")
    end_cycle()
    names("c")
    assert copy_really().confirmed == ["c"]


def test_nothing_is_removed_before_it_is_written_down_that_it_may_be() -> None:
    # Whatever becomes of the program in the second pass: a listing finds the names.
    names("a", "b")
    script(RECEIVE, removing="os.kill(os.getppid(), 9)")
    result = copy().finish()
    assert result.status == -9 and result.confirmed == []
    assert journals()[0].read_text("utf-8").endswith("\nn a\nn b\n")
    assert cycle("c", copying=RECEIVE).recovered == ["a", "b"]


def test_names_of_an_earlier_run_are_on_the_disk_before_they_are_announced() -> None:
    names("a")
    script(RECEIVE, removing="os.kill(os.getppid(), 9)")
    copy().finish()
    end_cycle()
    script()
    list_share()
    assert len(found("left")) == 1
    names("/rsync_orbelin:recovery")
    options = ["-y", "-e", "trace=fsync,write,unlinkat", "-s", "200"]
    assert copy(before=strace(*options)).finish().lines == ["CONFIRMED: recovered a"]
    journal = r"</var/lib/skarn/journal/.*"
    positions(
        rf"write\(\d+{journal}t a\\n",
        rf"fsync\(\d+{journal}\) *= 0",
        rf"fsync\(\d+{journal}%2F>\) *= 0",
        r"unlinkat\(.*\"left\"",
        r"write\(1<.*CONFIRMED: recovered a\\n",
    )
