"""Which names of a listing are copied, and by how many processes."""

from __future__ import annotations

import re

import pytest

from support import expected, scripted
from support.daemon import LOG_FILE, Daemon, Detector, write_configuration
from support.scripted import listing, listing_line

DIRECTORY = "drwxr-xr-x"
LINK = "lrwxrwxrwx"


def names_of(daemon: Daemon, text: str | bytes) -> list[str] | None:
    """What the daemon copies after a listing that printed this text; None for nothing.

    One further file, in a listing of its own, shows that nothing of the first was left over.
    """
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    scripted.add_listing_text(text)
    scripted.add_listing(["the-last-one"])
    daemon.start()
    daemon.wait_for_log("the-last-one ... the-last-one")
    calls = scripted.calls("copy")
    assert calls[-1].names == ["the-last-one"]
    assert len(calls) <= 2
    return calls[0].names if len(calls) == 2 else None


def lines(*entries: str) -> str:
    return "".join(entry + "\n" for entry in entries)


def test_files(daemon: Daemon) -> None:
    names = ["b", "a", "sub/c", "z.dat", "sub/c2", "-n", "#x", "it's"]
    assert names_of(daemon, listing(names)) == names


@pytest.mark.parametrize(
    "text",
    [
        "",
        "\n",
        "\n\n   \n",
        lines(listing_line(".", DIRECTORY)),
        lines(listing_line("./a")),
        lines(listing_line(".hidden"), listing_line(".tmp/x"), listing_line("..")),
        "-rw-r--r-- 20 2024/05/06 07:08:09\n",
        "-rw-r--r-- 20 2024/05/06 07:08:09    \n",
        "-rw-r--r-- 20 2024/05/06 07:08:09",
        "one\ntwo two\nthree three three\nfour four four four\n",
        "one\ttwo\tthree\tfour\tfive\n",
        "a b c d\te\n",
        "a b c d \t \n",
    ],
)
def test_listings_without_a_name(daemon: Daemon, text: str) -> None:
    assert names_of(daemon, text) is None


@pytest.mark.parametrize(
    "text, names",
    [
        ("a b c d e\n", ["e"]),
        ("a b c d e", ["e"]),
        ("   a    b c   d     e   f\n", ["e"]),
        ("a b c d e\tf\n", ["e"]),
        ("a b c d \te\n", ["e"]),
        ("a b c d e\r\n", ["e"]),
        ("\ta b c d e f\n", ["e"]),
        ("rsync: warning: a b c d\n", ["c"]),
        ("receiving file list ... done\n", ["done"]),
        ("a b c d e/.x\n", ["e/.x"]),
        ("a b c d e.\n", ["e."]),
    ],
)
def test_fields(daemon: Daemon, text: str, names: list[str]) -> None:
    assert names_of(daemon, text) == names


def test_a_name_is_cut_at_its_first_blank(daemon: Daemon) -> None:
    text = listing(["run 1.dat", "ran/two words", "tab\there"])
    assert names_of(daemon, text) == ["run", "ran/two", "tab"]


def test_a_leading_dot_counts_at_the_beginning_of_the_path_alone(daemon: Daemon) -> None:
    text = listing([".a", "sub/.x", ".b/c", "d", "..e", "sub/.y/z"])
    assert names_of(daemon, text) == ["sub/.x", "d", "sub/.y/z"]


def test_of_a_link_only_the_name_is_taken(daemon: Daemon) -> None:
    text = lines(
        listing_line("link -> /etc/passwd", LINK, "11"),
        listing_line("sub/link -> ../a b", LINK, "6"),
        listing_line("plain"),
    )
    assert names_of(daemon, text) == ["link", "sub/link", "plain"]


def test_a_folder_is_dropped_when_something_in_it_follows(daemon: Daemon) -> None:
    text = lines(
        listing_line(".", DIRECTORY),
        listing_line("dir", DIRECTORY),
        listing_line("dir/a"),
        listing_line("dir/b"),
        listing_line("empty", DIRECTORY),
        listing_line("dirx", DIRECTORY),
        listing_line("dirx-file"),
        listing_line("deep", DIRECTORY),
        listing_line("deep/er", DIRECTORY),
        listing_line("deep/er/est", DIRECTORY),
        listing_line("deep/er/est/f"),
        listing_line("last", DIRECTORY),
    )
    names = ["dir/a", "dir/b", "empty", "dirx", "dirx-file", "deep/er/est/f", "last"]
    assert names_of(daemon, text) == names


def test_a_skipped_entry_does_not_come_between_a_folder_and_its_file(daemon: Daemon) -> None:
    text = lines(
        listing_line("d", DIRECTORY), listing_line(".x"), "short line", listing_line("d/a")
    )
    assert names_of(daemon, text) == ["d/a"]


def test_the_same_name_twice(daemon: Daemon) -> None:
    assert names_of(daemon, listing(["a", "a", "a/", "b"])) == ["a", "a/", "b"]


def test_a_longer_line_is_read_in_pieces(daemon: Daemon) -> None:
    prefix = listing_line("")
    name = "n" * 1100
    cut = name[: 1023 - len(prefix)]
    # The second piece has one field; the third line is whole again.
    assert names_of(daemon, lines(prefix + name, listing_line("b"))) == [cut, "b"]


def test_a_further_piece_is_a_line_of_its_own(daemon: Daemon) -> None:
    prefix = listing_line("")
    first = prefix + "n" * (1023 - len(prefix))
    text = lines(first + " 2 3 4 name-in-the-rest 6", listing_line("b"))
    # The rest begins with a blank, which does not count.
    assert names_of(daemon, text) == [first[len(prefix) :], "6", "b"]


def test_a_line_of_exactly_one_piece(daemon: Daemon) -> None:
    prefix = listing_line("")
    for length in (1021, 1022, 1023, 1024):
        name = "n" * (length - len(prefix))
        scripted.add_listing_text(lines(prefix + name, listing_line(f"next-{length}")))
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    daemon.start()
    daemon.wait_for_log("1: Removed file", 4)
    for length, call in zip((1021, 1022, 1023, 1024), scripted.calls("copy")):
        name = "n" * (min(length, 1023) - len(prefix))
        assert call.names == [name, f"next-{length}"]


def test_any_bytes(daemon: Daemon) -> None:
    name = bytes(byte for byte in range(1, 256) if byte not in b" \t\n\v\f\r./")
    text = listing_line("").encode() + name + b"\n" + listing_line("b").encode() + b"\n"
    names = names_of(daemon, text)
    assert names is not None
    call = scripted.calls("copy")[0]
    assert call.list_text == name.decode("latin-1") + "\nb\n"


def test_a_zero_byte_ends_its_line(daemon: Daemon) -> None:
    text = lines(listing_line("a\0b c"), listing_line("d"), "\0" + listing_line("e"))
    assert names_of(daemon, text) == ["a", "d"]


def test_a_listing_that_fails_after_its_names_counts(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    scripted.add_listing_script([scripted.out(listing(["a"])), scripted.err("oh\n"), "exit 23"])
    daemon.start()
    assert scripted.wait_for_calls("copy", 1)[0].names == ["a"]


def test_a_listing_that_is_killed_counts(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    scripted.add_listing_script([scripted.out(listing(["a"])), "kill 9"])
    daemon.start()
    assert scripted.wait_for_calls("copy", 1)[0].names == ["a"]
    daemon.wait_for_log("1: Removed file")
    scripted.wait_for_calls("listing", 3)


def test_a_listing_that_fails_is_as_good_as_empty(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    for steps in (["exit 5"], ["exit 255"], ["kill 15"], ["close"]):
        scripted.add_listing_script(steps)
    scripted.add_listing(["a"])
    daemon.start()
    log = daemon.wait_for_log(expected.starting("1", 1))
    assert log.endswith(expected.SEPARATOR * 5 + expected.starting("1", 1)) or (
        expected.SEPARATOR * 5 + expected.starting("1", 1) in log
    )
    assert "Error" not in log


def test_how_many_processes_and_how_the_names_are_dealt(daemon: Daemon) -> None:
    counts = {1: 1, 100: 1, 101: 2, 201: 2, 202: 3, 706: 7, 707: 8, 808: 8, 2000: 8}
    write_configuration({"logfile": LOG_FILE}, [Detector("1", minpause=1)])
    for count in counts:
        scripted.add_listing([f"f{count}-{number}" for number in range(count)])
    daemon.start()
    processes = sum(counts.values())
    log = daemon.wait_for_log("1: Removed file", processes)
    started = re.findall(r"^1 Starting (\d+) copy processes$", log, re.MULTILINE)
    assert [int(number) for number in started] == list(counts.values())
    calls = scripted.calls("copy")
    assert len(calls) == processes
    for count, n in counts.items():
        names = [f"f{count}-{number}" for number in range(count)]
        own = [call for call in calls if call.names and call.names[0].startswith(f"f{count}-")]
        assert {call.slot: call.names for call in own} == {
            slot: names[slot::n] for slot in range(n)
        }
