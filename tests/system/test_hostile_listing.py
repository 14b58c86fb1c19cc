"""Listings of a detector that means harm: its text stays text, and takes little memory.

What a name does to the transfer itself is shown in tests/end_to_end/test_hostile_share.py.
"""

from __future__ import annotations

import os
import random
from collections.abc import Iterable
from pathlib import Path

import pytest

from support import expected, processes, scripted
from support.consumer import Consumer
from support.daemon import LOG_FILE, Daemon, Detector, sanitizer_of, write_configuration
from support.scripted import listing, listing_line

PREFIX = listing_line("")
MARK = Path("/srv/mark")  # made by any command that a name smuggles in
KILOBYTE = 1024
MEGABYTE = 1024 * KILOBYTE

SHELL_NAMES = [
    "$(touch${IFS}/srv/mark)",
    "`touch${IFS}/srv/mark`",
    ";touch${IFS}/srv/mark;",
    "|touch${IFS}/srv/mark",
    "&&touch${IFS}/srv/mark",
    "x>/srv/mark",
    "x/>/srv/mark",
    "';touch${IFS}/srv/mark;'",
    '";touch${IFS}/srv/mark;"',
    "'",
    '"',
    "\\",
    "*",
    "~root",
    "!!",
    "${IFS}",
    "%n%s%d",
    "\x1b[2J",
]
OPTION_NAMES = [
    "-e",
    "--rsh=/srv/program",
    "--rsync-path=/srv/program",
    "--files-from=/etc/passwd",
    "--password-file=/etc/passwd",
    "--delete",
    "--daemon",
    "--",
    "@/etc/passwd",
    "#comment",
    "rsync://evil/module",
    "host::module/x",
]
PATH_NAMES = [
    "a/../../x",
    "x/../../../../../../etc/passwd",
    "/etc/passwd",
    "//etc/passwd",
    "a//b",
    "a/./b",
    "a/",
    "/",
    "line\\#012feed",
]


def drain(daemon: Daemon, text: str | bytes) -> list[str]:
    """The names that the daemon copies after such a listing, in the listing's order.

    A further listing shows that it still works, and that nothing of the first was left over.
    """
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    scripted.add_listing_text(text)
    scripted.add_listing(["the-last-one"])
    daemon.start()
    daemon.wait_for_log("Copied 1 files in the range of: the-last-one ... the-last-one\n")
    calls = scripted.calls("copy")
    assert calls[-1].names == ["the-last-one"]
    first = calls[:-1]
    total = sum(len((call.list_text or "").split("\n")) - 1 for call in first)
    names = [""] * total
    for call in first:
        # Latin-1, as the records are: not every white space of Unicode ends a line.
        names[call.slot :: len(first)] = (call.list_text or "").split("\n")[:-1]
    return names


def as_latin(names: Iterable[str]) -> list[str]:
    return [os.fsencode(name).decode("latin-1") for name in names]


@pytest.mark.parametrize("names", [SHELL_NAMES, OPTION_NAMES, PATH_NAMES])
def test_names_are_data_wherever_they_go(daemon: Daemon, names: list[str]) -> None:
    with Consumer() as consumer:
        assert drain(daemon, listing(names)) == names
        consumer.wait_for(len(names) + 1)
        # The copy program has the last word on a name; what it confirms is announced as it stands.
        assert consumer.announced()[:-1] == [f"/srv/images/./{name}" for name in names]
        for call in scripted.calls("copy"):
            share = expected.url()
            assert call.arguments == expected.copy_arguments(call.list_name, share, "/srv/images/.")
        for call in scripted.calls("listing"):
            assert call.arguments == expected.listing_arguments(expected.url())
        daemon.end()
    assert not MARK.exists()
    # No name is a path for the daemon: its own files are where they always are.
    assert not Path("/srv/images/x").exists() and not Path("/srv/x").exists()


def test_bytes_beyond_ascii_and_control_characters_are_carried_or_cut(daemon: Daemon) -> None:
    raw = ["\udce9t\udce9", "\u6e2c\u5b9a", "\x01\x02\x7f", "carriage\rreturn", "tab\tname"]
    text = listing(raw).encode("utf-8", "surrogateescape")
    cut = [name.split("\r")[0].split("\t")[0] for name in raw]
    assert drain(daemon, text) == as_latin(cut)


def test_a_name_of_two_lines_is_two_lines(daemon: Daemon) -> None:
    """No rsync prints a line feed in a name; a listing in which one stands has another line."""
    text = listing(["one\n-rw-r--r-- 1 2 3 /etc/passwd", "two\nthree", "four"])
    assert drain(daemon, text) == ["one", "/etc/passwd", "two", "four"]


def test_a_listing_without_line_feed_at_its_end(daemon: Daemon) -> None:
    assert drain(daemon, (PREFIX + "a\n" + PREFIX + "b").encode()) == ["a", "b"]


def test_zero_bytes(daemon: Daemon) -> None:
    text = b"\0" * 2048 + listing(["a"]).encode() + b"\0\n" + (PREFIX + "b\0c\n").encode()
    # The zero bytes hide the line of the source's own entry, up to its end.
    assert drain(daemon, text) == ["a", "b"]


def test_the_longest_names(daemon: Daemon) -> None:
    longest = 1023 - len(PREFIX)
    deep = "/".join(["d" * 200] * 20)
    names = drain(daemon, listing([deep, "n" * 4096, "short"]))
    assert names == [deep[:longest], ("n" * 4096)[:longest], "short"]


@pytest.mark.parametrize("seed", [1, 2, 3])
def test_any_bytes_at_all(daemon: Daemon, seed: int) -> None:
    source = random.Random(seed)
    text = source.randbytes(300_000)
    # Another third is made of what listings are made of.
    pieces = [b" ", b"\n", b"\0", b".", b"/", b"..", b"a", PREFIX.encode(), b"\t", b"\xff"]
    text += b"".join(source.choices(pieces, k=100_000)) + b"\n"
    for name in drain(daemon, text):
        assert 0 < len(name) < 1024
        assert not set(name) & set(" \t\n\v\f\r\0"), name


def growth(daemon: Daemon, text: bytes, times: int = 1) -> tuple[int, list[str]]:
    """By how many bytes a listing, `times` this text, raises the daemon's peak memory; its names.

    In an instrumented build, whose memory says nothing, the growth is given as 0.
    """
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    content = scripted.FOLDER / "hostile"
    content.write_bytes(text)
    # Threads, buffers and the like: what any transfer takes once.
    scripted.add_listing([f"warm-{number}" for number in range(900)])
    daemon.start()
    daemon.wait_for_log("1: Removed file", 8)
    before = peak(daemon.pid)
    scripted.add_listing_script([f"file {content}"] * times)
    scripted.add_listing(["the-last-one"])
    daemon.wait_for_log("Copied 1 files in the range of: the-last-one ... the-last-one\n")
    names = [name for call in scripted.calls("copy")[8:-1] for name in call.names or []]
    return (0 if sanitizer_of(daemon.binary) else peak(daemon.pid) - before), names


def peak(pid: int) -> int:
    """The most memory that the process ever had resident, in bytes."""
    return int(processes.status_field(pid, "VmHWM").split()[0]) * KILOBYTE


def test_a_line_of_ten_megabytes_takes_no_memory(daemon: Daemon) -> None:
    grown, names = growth(daemon, (PREFIX + "n" * 10 * MEGABYTE + "\n").encode())
    assert names == ["n" * (1023 - len(PREFIX))]
    assert grown < MEGABYTE // 2, grown


def test_a_line_of_ten_megabytes_of_words_takes_a_name_for_each_piece(daemon: Daemon) -> None:
    grown, names = growth(daemon, b"w " * (5 * MEGABYTE))
    # Each piece has more than five fields, of which the fifth is a name.
    assert len(names) == -(-10 * MEGABYTE // 1023)
    assert set(names) == {"w"}
    assert grown < MEGABYTE, grown


@pytest.mark.parametrize("line", [b"\n", b" \n", b"\0", b"a b c d\n", PREFIX.encode() + b".x\n"])
def test_lines_without_a_name_take_no_memory_however_many(daemon: Daemon, line: bytes) -> None:
    """An endless listing of such lines would go on for ever without harm; this one has an end."""
    grown, names = growth(daemon, line * (MEGABYTE // len(line)), times=20)
    assert names == []
    assert grown < MEGABYTE // 2, grown


def test_a_million_short_names_take_little_memory(daemon: Daemon) -> None:
    count = 1_000_000 if sanitizer_of(daemon.binary) is None else 100_000
    scripted.set_default_copy(["exit 0"])  # what is reported is another matter
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    daemon.start()
    scripted.wait_for_calls("listing", 10)
    before = peak(daemon.pid)
    scripted.add_listing_text("".join(f"- 1 2 3 {number}\n" for number in range(count)))
    daemon.wait_for_log("1: Removed file", 8, timeout=120)
    grown = 0 if sanitizer_of(daemon.binary) else peak(daemon.pid) - before
    found = [int(name) for call in scripted.calls("copy") for name in call.names or []]
    assert sorted(found) == list(range(count))
    # Twice the names themselves while the list grows, and a megabyte for the rest.
    assert grown < 2 * 7 * count + MEGABYTE, grown


def test_a_listing_that_complains_without_end_is_kept_out_of_the_daemon(daemon: Daemon) -> None:
    """Its error output goes to a file that the next listing begins anew."""
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    complaint = scripted.err("$(touch /srv/mark)\n" * 1000)
    scripted.add_listing_script([complaint] * 50)
    scripted.add_listing(["a"])
    daemon.start()
    daemon.wait_for_log("Copied 1 files in the range of: a ... a\n")
    scripted.wait_for_calls("listing", 4)
    assert not MARK.exists()
    assert "touch" not in daemon.log()
    assert Path("/tmp/skarn_error.log").stat().st_size == 0
