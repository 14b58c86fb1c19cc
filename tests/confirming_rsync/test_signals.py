"""How the program ends when it is told to, or is ended. rsync is scripted."""

from __future__ import annotations

import signal

import pytest

from confirming_rsync.program import (
    CALLS,
    TARGET,
    Program,
    calls,
    journals,
    names,
    script_rsync,
    scripted_binary,
)
from support import processes
from support.waiting import wait_until

STOPS = [signal.SIGTERM, signal.SIGINT, signal.SIGHUP]

# An rsync that goes on until it is told to end, and then has some last words.
UNTIL_TOLD = """
def end(number, _):
    open("CALLS/told.txt", "w").write(str(number))
    out("sender removed b\\n")
    sys.exit(20)
for number in (1, 2, 15):
    signal.signal(number, end)
out("SENT: a\\nSENT: b\\n")
while True: time.sleep(0.01)
""".replace("CALLS", str(CALLS))


def is_gone(pid: int) -> bool:
    """Whether no process of that id is left but perhaps a zombie."""
    found = processes.process(pid)
    return found is None or found.is_zombie


@pytest.fixture(autouse=True)
def in_place() -> None:
    """Two files to be copied, already where they belong."""
    names("a", "b")
    TARGET.mkdir(parents=True, exist_ok=True)
    (TARGET / "a").touch()
    (TARGET / "b").touch()


@pytest.mark.parametrize("number", STOPS)
def test_stop_is_passed_on_and_nothing_known_is_lost(number: signal.Signals) -> None:
    script_rsync(UNTIL_TOLD)
    program = Program(scripted_binary())
    program.read_until("SENT: b\n")
    program.signal(number)
    result = program.finish()
    assert result.status == -number
    assert (CALLS / "told.txt").read_text() == str(int(number))
    assert result.lines == ["SENT: a", "SENT: b", "CONFIRMED: removed b"]
    (call,) = calls()
    assert is_gone(call["pid"])
    (journal,) = journals()
    assert journal.endswith("names\nn a\nn b\nc b\n"), "the next listing decides about a"


def test_stop_that_finds_nothing_moved_is_not_delayed_for_that() -> None:
    script_rsync("while True: time.sleep(0.01)")
    program = Program(scripted_binary())
    wait_until(calls, "rsync to run")
    program.signal(signal.SIGTERM)
    assert program.finish().status == -signal.SIGTERM


def test_stop_during_the_pause_of_an_idle_run_ends_it() -> None:
    names("nothing")
    script_rsync('out("idle\\n")')
    program = Program(scripted_binary())
    program.read_until("idle\n")
    program.signal(signal.SIGTERM)
    assert program.finish().status == -signal.SIGTERM


def test_rsync_that_does_not_listen_is_killed() -> None:
    script_rsync(
        "signal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
        'out("SENT: a\\nsender removed a\\n")\n'
        "while True: time.sleep(0.01)"
    )
    program = Program(scripted_binary())
    program.read_until("CONFIRMED: removed a\n")
    program.signal(signal.SIGTERM)
    assert program.finish().status == -signal.SIGTERM
    assert all(is_gone(call["pid"]) for call in calls())


def test_second_stop_ends_the_program_at_once() -> None:
    script_rsync(
        "signal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
        'out("SENT: a\\n")\n'
        "while True: time.sleep(0.01)"
    )
    program = Program(scripted_binary())
    program.read_until("SENT: a\n")
    program.signal(signal.SIGTERM)
    program.signal(signal.SIGINT)
    status = program.process.wait(4)  # the first one alone leaves rsync five seconds
    assert status in (-signal.SIGINT, -signal.SIGTERM)


def test_stop_while_the_reader_is_stuck() -> None:
    script_rsync('while True: out("x" * 1000 + "\\n")')
    program = Program(scripted_binary())
    program.read_until("xxx")
    program.signal(signal.SIGTERM)
    assert program.process.wait(30) == -signal.SIGTERM
    assert is_gone(calls()[0]["pid"])


def test_stop_during_the_question_bounds_it() -> None:
    script_rsync('out("SENT: a\\n")', "while True: time.sleep(0.01)")
    program = Program(scripted_binary())
    wait_until(lambda: len(calls()) == 2, "the question")
    program.signal(signal.SIGTERM)
    assert program.finish().status == -signal.SIGTERM
    wait_until(lambda: is_gone(calls()[1]["pid"]), "the question to be gone")


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGABRT, signal.SIGUSR1])
def test_death_of_the_program_tells_rsync_to_end(number: signal.Signals) -> None:
    script_rsync(UNTIL_TOLD)
    program = Program(scripted_binary())
    program.read_until("SENT: b\n")
    program.signal(number)
    assert program.process.wait(10) == -number
    wait_until(lambda: is_gone(calls()[0]["pid"]), "rsync to be gone")
    assert (CALLS / "told.txt").read_text() == str(int(signal.SIGTERM))


def test_signals_that_were_ignored_stay_ignored() -> None:
    script_rsync(UNTIL_TOLD)
    before = signal.signal(signal.SIGHUP, signal.SIG_IGN)
    try:
        program = Program(scripted_binary())
    finally:
        signal.signal(signal.SIGHUP, before)
    program.read_until("SENT: b\n")
    program.signal(signal.SIGHUP)
    program.signal(signal.SIGTERM)
    assert program.finish().status == -signal.SIGTERM
    assert (CALLS / "told.txt").read_text() == str(int(signal.SIGTERM))


def test_rsync_starts_with_the_signals_as_they_were() -> None:
    script_rsync(
        'out([line for line in open("/proc/self/status").read().splitlines() '
        'if line.startswith("SigBlk")][0] + "\\n")\n'
        'out("SENT: %d\\n" % os.getppid())'
    )
    program = Program(scripted_binary())
    result = program.finish()
    assert result.lines[0].split() == ["SigBlk:", "0" * 16]
    assert result.sent == [str(program.pid)]
