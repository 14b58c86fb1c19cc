"""What the daemon makes of a copy process's report: the hand-off and the block in the log."""

from __future__ import annotations

import re
from dataclasses import dataclass

import pytest

from support import expected, processes, scripted
from support.consumer import Consumer
from support.daemon import LOG_FILE, PID_FILE, Daemon, Detector, file_lists, write_configuration
from support.scripted import err, out
from support.waiting import wait_until

BLOCK = re.compile(
    r"(?:Error: Lost [^\n]*\n)*"
    + re.escape(expected.BLOCK_BEGIN)
    + ".*?"
    + re.escape(expected.BLOCK_END),
    re.DOTALL,
)


@dataclass(frozen=True)
class Case:
    """A report, and what becomes of it."""

    report: str
    output: str = ""
    confirmed: tuple[str, ...] = ()
    lost: tuple[str, ...] = ()
    passed: tuple[str, ...] | None = None  # handed off, where it is not what was confirmed


def evaluate(daemon: Daemon, steps: list[str]) -> tuple[str, list[str]]:
    """The block and the hand-off records of one copy process that does these steps."""
    write_configuration({"logfile": LOG_FILE}, [Detector("1", target="/srv/t", minpause=1)])
    scripted.add_listing(["a"])
    scripted.add_copy(steps)
    with Consumer() as consumer:
        daemon.start()
        daemon.wait_for_log("1: Removed file")
        daemon.end()
    found: list[str] = BLOCK.findall(daemon.log())
    assert len(found) == 1, daemon.log()
    return found[0], consumer.announced()


LONG = "x" * 1500

CASES = {
    "nothing": Case(""),
    "one of two confirmed": Case(
        "SENT: a\nSENT: b\nCONFIRMED: x a\n", confirmed=("a",), lost=("b",)
    ),
    "confirmed before sent": Case("CONFIRMED: x b\nSENT: b\n", confirmed=("b",), lost=("b",)),
    "confirmed twice": Case("SENT: a\nCONFIRMED: x a\nCONFIRMED: x a\n", confirmed=("a", "a")),
    "confirmed and never sent": Case("CONFIRMED: x a\n", confirmed=("a",)),
    "sent twice": Case("SENT: a\nSENT: a\nCONFIRMED: x a\n", confirmed=("a",)),
    "sent twice and lost once": Case("SENT: a\nSENT: a\n", lost=("a",)),
    "confirmed without a name": Case("SENT: a\nCONFIRMED: x\n", lost=("a",), passed=("",)),
    "confirmed without anything": Case("CONFIRMED:\n", passed=("",)),
    "both kinds of confirmation": Case(
        "CONFIRMED: x\nCONFIRMED: x b\n", confirmed=("b",), passed=("", "b")
    ),
    "sent without a name": Case("SENT:\nSENT: \n  SENT:\t\n"),
    "blank lines are kept": Case("\n  \n\t\n", output="\n  \n\t\n"),
    "blanks around the words": Case(
        "  SENT:   a  \n\tCONFIRMED:\t x \t a\tand more\n", confirmed=("a",)
    ),
    "a name is cut at a blank": Case(
        "SENT: two words\nCONFIRMED: x two words\n", confirmed=("two",)
    ),
    "only whole words count": Case(
        "SENT:a\nCONFIRMED:x a\nsent: a\nxSENT: a\nSENT a\nCONFIRMED x a\n",
        output="SENT:a\nCONFIRMED:x a\nsent: a\nxSENT: a\nSENT a\nCONFIRMED x a\n",
    ),
    "lost names are sorted, confirmed ones are not": Case(
        "SENT: z\nSENT: B\nSENT: a\nSENT: \xe9\nSENT: m\nSENT: k\n"
        "CONFIRMED: x m\nCONFIRMED: x k\n",
        confirmed=("m", "k"),
        lost=("B", "a", "z", "\xe9"),
    ),
    "other lines stand before the summary": Case(
        "begin\nSENT: a\nmiddle\nCONFIRMED: x a\nend\n",
        output="begin\nmiddle\nend\n",
        confirmed=("a",),
    ),
    "a last line without an end": Case("CONFIRMED: x a\nthe end", "the end", ("a",)),
    "a last confirmation without an end": Case("SENT: a\nCONFIRMED: x a", confirmed=("a",)),
    "a long line comes in pieces": Case(
        f"{LONG}\nSENT: {LONG}\n", f"{LONG}\n{'x' * 483}\n", lost=("x" * 1017,)
    ),
    "the second piece of a long line may be a confirmation": Case(
        "y" * 1023 + "CONFIRMED: x a\n", "y" * 1023, ("a",)
    ),
    "a piece cut within its word": Case(
        "y" * 1020 + "SENT: a\n", "y" * 1020 + "SENT: a\n"
    ),
    "a zero byte ends its line": Case("one\0two\nthree\n", "onethree\n"),
    "a line that begins with a zero byte is skipped": Case(
        "\0SENT: a\nCONFIRMED: x b\n", confirmed=("b",)
    ),
    "a name in a folder": Case(
        "SENT: sub/\nSENT: sub/a\nCONFIRMED: x sub/a\n", confirmed=("sub/a",), lost=("sub/",)
    ),
    "carriage returns are white space": Case("SENT: a\r\nCONFIRMED: x a\r\n", confirmed=("a",)),
    "text like the daemon's own": Case(
        "++ Warning: x\nError: Lost y\n", "++ Warning: x\nError: Lost y\n"
    ),
    "percent signs": Case("100% %s %n\nCONFIRMED: x %s\n", "100% %s %n\n", ("%s",)),
}


@pytest.mark.parametrize("case", CASES.values(), ids=CASES.keys())
def test_reports(daemon: Daemon, case: Case) -> None:
    steps = [out(case.report[start : start + 500]) for start in range(0, len(case.report), 500)]
    found, records = evaluate(daemon, steps)
    assert found == expected.block(case.output, case.confirmed, case.lost)
    passed = case.confirmed if case.passed is None else case.passed
    assert records == [f"/srv/t/./{name}" for name in passed]


def test_any_bytes_are_kept(daemon: Daemon) -> None:
    text = "".join(chr(byte) for byte in range(1, 256))
    raw = "".join(f"\\x{byte:02x}" for byte in range(1, 256))
    found, _ = evaluate(daemon, ["out " + raw + "\\n"])
    want = expected.BLOCK_BEGIN.encode() + text.encode("latin-1") + b"\n"
    assert found.encode("utf-8", "surrogateescape") == want + expected.BLOCK_END.encode()


def test_the_error_output_belongs_to_the_report(daemon: Daemon) -> None:
    steps = [
        err("rsync: oh\n"),
        out("SENT: a\n"),
        err("CONFIRMED: x a\n"),
        err("end\n"),
        "exit 23",
    ]
    found, records = evaluate(daemon, steps)
    assert found == expected.block("rsync: oh\nend\n", ["a"])
    assert records == ["/srv/t/./a"]


@pytest.mark.parametrize("step", ["exit 0", "exit 1", "exit 255", "kill 9", "kill 11", "close"])
def test_how_a_copy_process_ends_makes_no_difference(daemon: Daemon, step: str) -> None:
    found, records = evaluate(daemon, [out("SENT: a\nSENT: b\nCONFIRMED: x a\n"), step])
    assert found == expected.block("", ["a"], ["b"])
    assert records == ["/srv/t/./a"]
    pid = scripted.calls("copy")[0].pid
    assert daemon.log().count(expected.ended("1", pid)) == 1


def test_many_names(daemon: Daemon) -> None:
    names = [f"run/frame-{number:05d}.dat" for number in range(3000)]
    write_configuration({"logfile": LOG_FILE}, [Detector("1", target="/srv/t", minpause=1)])
    scripted.add_listing(names)
    with Consumer() as consumer:
        daemon.start()
        consumer.wait_for(3000)
        daemon.wait_for_log("1: Removed file", 8)
        daemon.end()
    assert sorted(consumer.announced()) == [f"/srv/t/./{name}" for name in names]
    for slot in range(8):
        own = names[slot::8]
        assert expected.block(confirmed=own) in daemon.log()
        prefix = [line for line in consumer.announced() if line[len("/srv/t/./") :] in set(own)]
        assert prefix == [f"/srv/t/./{name}" for name in own], "each report in its own order"


def test_confirmations_are_handed_off_while_the_copying_goes_on(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", target="/srv/t", minpause=1)])
    scripted.add_listing(["a", "b"])
    go_on = scripted.gate("go-on")
    scripted.add_copy([out("CONFIRMED: x a\n"), f"wait {go_on}", out("CONFIRMED: x b\n")])
    with Consumer() as consumer:
        daemon.start()
        consumer.wait_for(1)
        assert consumer.announced() == ["/srv/t/./a"]
        assert expected.BLOCK_BEGIN not in daemon.log()
        go_on.touch()
        consumer.wait_for(2)
        daemon.wait_for_log("1: Removed file")
        daemon.end()


def test_the_report_ends_when_nobody_holds_the_output_any_more(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    scripted.add_listing(["a"])
    last = scripted.gate("last")
    scripted.add_copy(["confirm-all", f"linger {last}"])
    daemon.start()
    call = scripted.wait_for_calls("copy", 1)[0]
    daemon.wait_for_log(expected.ended("1", call.pid))
    wait_until(
        lambda: PID_FILE.read_text() == f"{daemon.pid}\n", "the second update of the PID file"
    )
    assert [str(path) for path in file_lists()] == [call.list_name]
    assert expected.BLOCK_BEGIN not in daemon.log()
    last.touch()
    log = daemon.wait_for_log("1: Removed file")
    # The warning comes from the evaluator's own thread, at any time before its block.
    assert log.replace(expected.NO_FIFO, "").endswith(
        expected.ended("1", call.pid)
        + expected.block(confirmed=["a"])
        + expected.removed("1", call.list_name)
    )


def test_a_process_that_closed_its_output_is_waited_for(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    scripted.add_listing(["a"])
    end = scripted.gate("end")
    scripted.add_copy(["confirm-all", "close", f"wait {end}"])
    daemon.start()
    call = scripted.wait_for_calls("copy", 1)[0]
    daemon.wait_for_log(expected.block(confirmed=["a"]))
    assert daemon.wait_for_pids(2) == [daemon.pid, call.pid]
    assert file_lists()
    end.touch()
    daemon.wait_for_log("1: Removed file")
    assert processes.process(call.pid) is None
