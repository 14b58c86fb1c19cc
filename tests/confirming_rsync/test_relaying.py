"""What becomes of what rsync says, and how the report gets to its reader. rsync is scripted."""

from __future__ import annotations

import os
import signal
import time
from pathlib import Path

import pytest

from confirming_rsync.program import (
    CALLS,
    TARGET,
    URL,
    Program,
    calls,
    journals,
    list_share,
    make_target,
    measures_memory,
    names,
    run,
    script_rsync,
    scripted_binary,
    scripted_rsync,
)
from support import daemon, processes
from support.waiting import wait_until

GATE = Path("/srv/gate")


@pytest.fixture(autouse=True)
def two_names() -> None:
    """A list, without which nothing is copied."""
    names("a", "b")


def is_gone(pid: int) -> bool:
    """Whether no process of that id is left but perhaps a zombie."""
    found = processes.process(pid)
    return found is None or found.is_zombie


def test_confirmations_flow_while_the_copying_goes_on() -> None:
    make_target("a")
    script_rsync(
        'out("SENT: a\\nsender removed a\\nSENT: b")\n'
        f'while not os.path.exists("{GATE}"): time.sleep(0.01)\n'
        'out("\\nsender removed b\\n")'
    )
    program = Program(scripted_binary())
    assert program.read_until("CONFIRMED: removed a\n") == "SENT: a\nCONFIRMED: removed a\n"
    GATE.touch()
    assert program.finish().lines == [
        "SENT: a",
        "CONFIRMED: removed a",
        "SENT: b",
        "CONFIRMED: removed b",
    ]


def test_removals_wait_for_their_sent_line_or_for_the_end() -> None:
    names("link", "idle", "regular", "missing")
    make_target("regular")
    (TARGET / "link").symlink_to("regular")
    (TARGET / "idle").symlink_to("regular")
    script_rsync(
        'absent.add("missing")\n'
        'out("sender removed link\\nsender removed idle\\nsender removed regular\\n")\n'
        'out("sender removed missing\\nSENT: link\\nmore\\n")'
    )
    assert run(scripted_binary()).lines == [
        "sender removed missing",
        "SENT: link",
        "CONFIRMED: removed link",
        "more",
        "CONFIRMED: removed idle",
        "CONFIRMED: removed regular",
    ]


def test_no_name_is_confirmed_that_is_not_on_the_list() -> None:
    make_target("a", "sub/x", "other")
    script_rsync('out("sender removed other\\nsender removed sub/x\\nsender removed a\\n")')
    assert run(scripted_binary()).lines == [
        "sender removed other",
        "sender removed sub/x",
        "CONFIRMED: removed a",
    ]


def test_no_file_is_in_place_behind_a_link() -> None:
    """A share that sends the link d and says of d/key that it was removed, or that it is gone."""
    names("d", "d/key", "d/sent", "d/up-to-date")
    elsewhere = Path("/srv/elsewhere")
    elsewhere.mkdir()
    for name in ("key", "sent", "up-to-date"):
        (elsewhere / name).write_text("another's", encoding="ascii")
    TARGET.mkdir()
    (TARGET / "d").symlink_to(elsewhere)
    script_rsync(
        'out("receiving file list ... done\\nSENT: d/sent\\nsender removed d/key\\n")',
        'for name in given.split("\\0")[:-1]: missing("/" + name)\nsys.exit(23)',
    )
    result = run(scripted_binary())
    assert result.confirmed == ["d"]
    assert calls()[1]["input"] == "d\0"


def test_streams_are_read_apart() -> None:
    make_target("a")
    script_rsync(
        'out("SENT: a\\nsender rem"); err("rsync: half"); time.sleep(0.2)\n'
        'out("oved a\\n"); err(" a line\\nsender removed b\\nCONFIRMED: removed c\\n")'
    )
    result = run(scripted_binary())
    assert result.sent == ["a"]
    assert result.confirmed == ["a"]
    assert "rsync: half a line" in result.lines
    assert "sender removed b" in result.lines
    assert "rsync: CONFIRMED: removed c" in result.lines


def test_slow_reader_slows_rsync_down_and_loses_nothing() -> None:
    total = 20000
    script_rsync(
        f"for i in range({total}):\n"
        '    out("SENT: file-%07d\\n" % i)\n'
        f'    if i % 100 == 0: open("{CALLS}/progress.txt", "w").write(str(i))'
    )
    program = Program(scripted_binary())
    progress = CALLS / "progress.txt"
    wait_until(lambda: progress.exists() and progress.read_text(), "the first lines")

    def has_stopped() -> bool:
        before = progress.read_text()
        time.sleep(1)
        return progress.read_text() == before

    wait_until(has_stopped, "rsync to wait for the reader")
    # Two pipes and what the program itself holds are all that could be written.
    assert int(progress.read_text()) * 19 < 400_000
    assert program.finish().sent == [f"file-{i:07}" for i in range(total)]


def test_a_long_report_to_a_slow_reader_takes_little_memory() -> None:
    script_rsync('for i in range(300): out((b"x" * 999 + b"\\n") * 60)')
    program = Program(scripted_binary())
    status = Path(f"/proc/{program.pid}/status")

    def memory() -> int:
        lines = status.read_text(encoding="ascii").splitlines()
        return int(next(line for line in lines if line.startswith("VmHWM:")).split()[1])

    program.read_slowly(1_000_000)
    before = memory()
    program.read_slowly(12_000_000)
    if measures_memory():
        assert memory() - before < 2000, "kB more, for 11 MB that were read"
    assert len(program.finish().report) == 300 * 60_000


def test_output_without_line_end_is_passed_on_and_not_kept() -> None:
    script_rsync('for i in range(2000): out(b"x" * 65536)\nout(b"\\nSENT: a\\n")')
    program = Program(scripted_binary())
    program.read_until("x" * 1000)
    result = program.finish()
    assert result.report.replace(b"\n", b"") == b"x" * (2000 * 65536) + b"SENT: a"
    assert max(map(len, result.report.split(b"\n"))) <= 1023


def test_any_byte_passes_but_those_that_a_terminal_may_obey() -> None:
    noise = bytes(range(256)) * 3
    shown = b"".join(
        b"\\#%03o" % byte if 0x7F <= byte <= 0x9F else bytes([byte]) for byte in noise
    )
    script_rsync(f"out({noise!r} + b'\\n')")
    assert run(scripted_binary()).report == shown + b"\n"


def test_no_line_reads_as_one_of_the_daemons_log() -> None:
    misleading = ["++ RSYNC OUTPUT END ++++", "++", " ++x", "Copied 3 files in the range of: a", "CONFIRMED:"]
    honest = ["+", "Copied3", "x ++", "copied 1"]
    lines = "".join(line + "\n" for line in misleading + honest)
    script_rsync(f"out({lines!r})\nerr({lines!r})")
    result = run(scripted_binary())
    expected = [f"rsync: {line}" for line in misleading] + honest
    assert sorted(result.lines) == sorted(expected * 2)


def test_complaints_of_a_listing_have_a_bound() -> None:
    listed = "-rw-r--r--  0 2026/01/01 00:00:00 a\n"
    script_rsync("", f'err("x" * 3_000_000)\nout({listed!r})\nsys.exit(23)')
    result = list_share(scripted_binary())
    assert result.status == 23
    assert result.report.count(b"x") == 1024 * 1024
    assert listed.encode() in result.report


def test_reader_that_goes_away_ends_both() -> None:
    script_rsync(
        "def end(*_):\n"
        f'    open("{CALLS}/told.txt", "w").write("TERM"); sys.exit(20)\n'
        "signal.signal(signal.SIGTERM, end)\n"
        'out("SENT: a\\n")\n'
        "while True: time.sleep(0.01)"
    )
    program = Program(scripted_binary())
    program.read_until("SENT: a\n")
    program.close_report()
    # rsync says nothing more, so that only the closed pipe itself can tell.
    result = program.finish()
    assert result.status == -signal.SIGPIPE
    assert (CALLS / "told.txt").read_text() == "TERM"
    assert is_gone(calls()[0]["pid"])


def test_reader_that_goes_away_ends_an_rsync_that_does_not_listen() -> None:
    script_rsync(
        "signal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
        'out("SENT: a\\n")\n'
        'while True: out("more\\n")'
    )
    program = Program(scripted_binary())
    program.read_until("SENT: a\n")
    program.close_report()
    assert program.finish().status == -signal.SIGPIPE
    wait_until(lambda: is_gone(calls()[0]["pid"]), "rsync to be gone")


def test_what_rsync_leaves_running_does_not_keep_the_report_open() -> None:
    script_rsync(
        'out("SENT: a\\nsender removed a\\n")\n'
        "if os.fork() == 0:\n"
        f'    open("{CALLS}/left.txt", "w").write(str(os.getpid()))\n'
        "    while True: time.sleep(1)\n"
        "sys.exit(3)"
    )
    make_target("a")
    result = run(scripted_binary())
    assert result.status == 3
    assert result.confirmed == ["a"]
    left = int((CALLS / "left.txt").read_text())
    wait_until(lambda: is_gone(left), "what rsync left running to be gone")


class TestQuestion:
    """What is asked when removals were not reported, and what the answer is taken for."""

    SENT = 'out("SENT: a\\nSENT: b\\nSENT: c\\n")\n'
    LISTED = "-rw-r--r--  1 2026/11/21 05:30:34 "

    def test_confirms_exactly_what_the_share_says_is_gone(self) -> None:
        names("a", "b", "c")
        make_target("a", "b", "c")
        script_rsync(
            self.SENT,
            f'out("{self.LISTED}b\\n"); missing("/a"); missing("/b"); missing("/x"); sys.exit(23)',
        )
        result = run(scripted_binary())
        assert result.lines == ["SENT: a", "SENT: b", "SENT: c", "CONFIRMED: removed a"]
        assert result.status == 0
        assert journals()[-1].endswith("done\n"), "all is accounted for"

    def test_is_put_once_with_the_same_access(self) -> None:
        names("a", "b", "c")
        make_target("a", "b", "c")
        script_rsync(self.SENT + 'out("sender removed b\\n")', "sys.exit(0)")
        assert run(scripted_binary()).confirmed == ["b"]
        copy, question = calls()
        assert question["arguments"] == [
            str(scripted_rsync()),
            "--list-only",
            "--files-from=-",
            "--from0",
            "--8-bit-output",
            "--no-motd",
            "--contimeout=10",
            "--timeout=20",
            f"--password-file={daemon.PASSWORD_FILE}",
            URL,
            ".",
        ]
        assert copy["input"] == "a\0b\0c\0"
        assert question["input"] == "a\0c\0"
        assert question["environment"] == copy["environment"]
        assert sorted(question["descriptors"]) == ["0", "1", "2"]

    def test_is_not_put_when_all_is_confirmed(self) -> None:
        names("a", "gone", "nothing", "sub")
        make_target("a", "gone", "sub/x")
        script_rsync('out("SENT: a\\nsender removed a\\n"); missing("/gone"); sys.exit(23)')
        assert run(scripted_binary()).confirmed == ["a"]
        assert len(calls()) == 1

    def test_asks_about_files_that_were_up_to_date(self) -> None:
        names("a", "b")
        make_target("a", "b")
        script_rsync(
            'missing("/b"); out("receiving file list ... done\\n"); sys.exit(23)',
            'missing("/a"); missing("/b"); sys.exit(23)',
        )
        assert run(scripted_binary()).confirmed == ["a"]
        assert calls()[1]["input"] == "a\0"

    def test_does_not_take_a_file_for_up_to_date_if_rsync_never_saw_the_source(self) -> None:
        names("a")
        make_target("a")
        script_rsync("sys.exit(10)", 'missing("/a"); sys.exit(23)')
        assert run(scripted_binary()).confirmed == []
        assert len(calls()) == 1

    def test_confirms_nothing_that_is_not_in_place(self) -> None:
        names("a", "b", "c")
        make_target("b")
        script_rsync(self.SENT, 'missing("/a"); missing("/b"); missing("/c"); sys.exit(23)')
        assert run(scripted_binary()).confirmed == ["b"]

    def test_confirms_nothing_that_rsync_discarded(self) -> None:
        names("a", "b")
        make_target("a", "b")
        script_rsync(
            'out("SENT: a\\nSENT: b\\n")\n'
            'err("ERROR: a failed verification -- update discarded.\\n"); sys.exit(23)',
            'missing("/a"); missing("/b"); sys.exit(23)',
        )
        assert run(scripted_binary()).confirmed == ["b"]

    def test_confirms_nothing_that_was_not_listed(self) -> None:
        names("other")
        make_target("a", "b", "c")
        script_rsync(self.SENT, 'missing("/a"); sys.exit(23)')
        assert run(scripted_binary()).confirmed == []
        assert len(calls()) == 1

    @pytest.mark.parametrize("status", [5, 12])
    def test_that_is_not_answered_confirms_nothing(self, status: int) -> None:
        names("a", "b", "c")
        make_target("a", "b", "c")
        script_rsync(self.SENT, f'missing("/a"); sys.exit({status})')
        result = run(scripted_binary())
        assert result.confirmed == []
        assert result.lines[-1] == (
            "rsync_orbelin: cannot ask the source what is still there: "
            f"rsync ended with status {status}; 3 files left unconfirmed"
        )
        assert result.status == 0
        assert len(calls()) == 1 + 1
        assert not journals()[-1].endswith("done\n"), "the next listing decides"

    @pytest.mark.parametrize(
        "end, status", [("sys.exit(12)", 12), ("os.kill(os.getpid(), 9)", 128 + 9)]
    )
    def test_is_not_put_after_a_run_that_broke_off(self, end: str, status: int) -> None:
        names("a", "b", "c")
        make_target("a", "b", "c")
        script_rsync(self.SENT + 'out("sender removed b\\n")\n' + end, "sys.exit(0)")
        result = run(scripted_binary())
        assert result.lines == ["SENT: a", "SENT: b", "SENT: c", "CONFIRMED: removed b"]
        assert result.status == status
        assert len(calls()) == 1
        assert not journals()[-1].endswith("done\n"), "the next listing decides"

    def test_that_hangs_is_given_up(self) -> None:
        names("a")
        make_target("a")
        script_rsync('out("SENT: a\\n")', 'missing("/a")\nwhile True: time.sleep(1)')
        result = run(scripted_binary())
        assert result.confirmed == []
        assert result.lines[-1] == (
            "rsync_orbelin: cannot ask the source what is still there: "
            "no answer in time; 1 file left unconfirmed"
        )
        assert 30 <= result.seconds < 40 and len(calls()) == 2
        wait_until(lambda: is_gone(calls()[1]["pid"]), "the question to be gone")

    def test_is_put_with_the_names_as_they_are(self) -> None:
        listed = ["two words", "q\"u'o", "\\#012", "\x01", "\xe4"]
        names(*(name.encode("latin-1") for name in listed))
        for name in listed:
            (TARGET / os.fsdecode(name.encode("latin-1"))).parent.mkdir(parents=True, exist_ok=True)
            Path(os.fsdecode(bytes(TARGET) + b"/" + name.encode("latin-1"))).touch()
        shown = ["two words", "q\"u'o", "\\#134#012", "\\#001", "\xe4"]
        script_rsync(
            "\n".join(f"out({('SENT: ' + name + chr(10))!r})" for name in shown),
            "\n".join(f"missing({('/' + name)!r})" for name in shown) + "\nsys.exit(23)",
        )
        result = run(scripted_binary())
        assert calls()[1]["input"] == "".join(name + "\0" for name in listed)
        assert [os.fsencode(name).decode("latin-1") for name in result.confirmed] == shown
