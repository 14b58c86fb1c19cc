"""A long list is copied by one rsync after the other, each with a portion of the names."""

from __future__ import annotations

import os
import signal
from pathlib import Path

import pytest

from confirming_rsync.program import (
    ADDED,
    FILE_LIST,
    KEPT,
    REMINDER,
    REMINDER_LINE,
    TARGET,
    URL,
    Program,
    calls,
    journals,
    list_share,
    make_target,
    names,
    real_binary,
    run,
    script_rsync,
    scripted_binary,
)
from support import daemon
from support.rsync_server import RsyncServer

LARGEST = 1000
LISTED = [f"frame_{number:06d}.raw" for number in range(2 * LARGEST + 700)]
PORTIONS = [LISTED[:900], LISTED[900:1800], LISTED[1800:]]

# What each copy does first: it takes its names, in the order in which the copies were started.
TAKE = """
number = len([n for n in os.listdir(folder) if "." not in n])
mine = given.split("\\0")[:-1]
out("receiving file list ... done\\n")
"""
REMOVE = 'for name in mine: out("SENT: %s\\nsender removed %s\\n" % (name, name))\n'


def test_a_long_list_is_copied_in_portions() -> None:
    names(*LISTED)
    taken = 'out("mine: %s to %s, %d\\n" % (mine[0], mine[-1], len(mine)))\n'
    script_rsync(TAKE + taken + "begin = time.monotonic()\n" + REMOVE + "time.sleep(0.2)")
    result = run(scripted_binary())
    assert result.status == 0
    assert [line for line in result.lines if line.startswith("mine: ")] == [
        f"mine: {portion[0]} to {portion[-1]}, {len(portion)}" for portion in PORTIONS
    ]
    assert result.sent == result.confirmed == LISTED
    made = calls()
    assert [call["arguments"][1:] for call in made] == [
        [*ADDED, *KEPT, URL, f"{TARGET}/"]
    ] * 3
    starts = [call["time"] for call in made]
    assert all(later - earlier >= 0.2 for earlier, later in zip(starts, starts[1:]))


def test_a_list_of_one_portion_is_for_one_rsync() -> None:
    names(*LISTED[:LARGEST])
    script_rsync('out("receiving file list ... done\\n")')
    assert run(scripted_binary()).status == 0
    (call,) = calls()
    assert call["arguments"][1:] == [*ADDED, *KEPT, URL, f"{TARGET}/"]
    assert call["input"] == "".join(name + "\0" for name in LISTED[:LARGEST])


def test_an_rsync_that_breaks_off_is_the_last_one() -> None:
    names(*LISTED)
    make_target(PORTIONS[1][5], PORTIONS[2][0])
    script_rsync(TAKE + "if number == 2:\n    sys.exit(10)\n" + REMOVE)
    result = run(scripted_binary())
    assert result.status == 10
    assert result.confirmed == PORTIONS[0]
    assert len(calls()) == 2, "and nothing is asked after it"
    # There from before, and seen at the source: it may have been removed.
    (journal,) = journals()
    assert not journal.endswith("done\n"), "the next listing decides"
    assert f"n {PORTIONS[1][5]}\n" in journal and f"n {PORTIONS[2][0]}\n" not in journal


def test_what_one_rsync_saw_at_the_source_says_nothing_of_the_names_of_the_next() -> None:
    names(*LISTED)
    make_target(PORTIONS[1][5])
    take = TAKE.replace("out(", "if number == 1: out(")
    script_rsync(take + "if number == 2:\n    sys.exit(10)\n" + REMOVE)
    result = run(scripted_binary())
    assert result.confirmed == PORTIONS[0]
    (journal,) = journals()
    assert journal.endswith("done\n"), "an rsync that saw nothing has removed nothing"


def test_files_that_are_missing_in_one_portion_do_not_stop_the_next() -> None:
    names(*LISTED)
    gone = PORTIONS[1][7]
    script_rsync(
        TAKE + f'if number == 2:\n    missing("/{gone}")\n    mine.remove("{gone}")\n' + REMOVE +
        "if number == 2:\n    sys.exit(23)"
    )
    result = run(scripted_binary())
    assert result.status == 23
    assert result.confirmed == [name for name in LISTED if name != gone]


def test_no_further_rsync_is_started_after_a_signal() -> None:
    names(*LISTED)
    script_rsync(TAKE + REMOVE + "if number == 2:\n    time.sleep(60)")
    program = Program(scripted_binary())
    program.read_until(f"CONFIRMED: removed {PORTIONS[1][-1]}\n")
    program.signal(signal.SIGTERM)
    result = program.finish()
    assert result.status == -signal.SIGTERM
    assert result.confirmed == [*PORTIONS[0], *PORTIONS[1]]
    assert len(calls()) == 2


def test_what_a_killed_run_left_in_its_second_portion_is_announced_by_the_next() -> None:
    names(*LISTED)
    receive = (
        "for name in mine:\n"
        f'    open("{TARGET}/" + name, "w").close()\n'
        '    out("SENT: %s\\n" % name)\n'
        "    if number == 1:\n"
        '        out("sender removed %s\\n" % name)\n'
    )
    script_rsync(TAKE + receive + "if number == 2:\n    time.sleep(60)")
    program = Program(scripted_binary())
    program.read_until(f"SENT: {PORTIONS[1][-1]}\n")
    program.signal(signal.SIGKILL)
    killed = program.finish()
    assert killed.confirmed == PORTIONS[0]

    FILE_LIST.unlink()
    script_rsync('out("SENT: next.raw\\nsender removed next.raw\\n")', "sys.exit(0)")
    assert list_share(scripted_binary()).lines == [REMINDER_LINE]
    names("next.raw", REMINDER)
    result = run(scripted_binary())
    assert result.recovered == PORTIONS[1]
    assert result.confirmed == ["next.raw"]


@pytest.mark.parametrize("max_verbosity", [2, None], ids=["reports-removals", "default-verbosity"])
def test_a_real_server_gives_all_files_of_a_long_list(max_verbosity: int | None) -> None:
    share = Path("/srv/share")
    daemon.install_password_file()
    with RsyncServer(
        "127.0.0.1", share, Path("/srv/state"), max_verbosity=max_verbosity, log=True
    ) as server:
        (share / "sub").mkdir(parents=True)
        listed = [*LISTED[:-1], "sub/last one.raw"]
        for name in listed:
            (share / name).write_text(name, encoding="ascii")
        names(*listed)
        before = server.connections()
        result = run(real_binary())
        assert result.status == 0
        assert sorted(result.confirmed) == sorted(listed)
        assert len(result.sent) == len(listed)
        assert server.connections() - before >= 3
    assert os.listdir(share) == ["sub"] and not os.listdir(share / "sub")
    for name in listed:
        assert (TARGET / name).read_text(encoding="ascii") == name
