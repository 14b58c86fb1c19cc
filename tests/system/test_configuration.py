"""What the daemon makes of its configuration file, seen from what it does then."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

from support import expected, scripted
from support.consumer import Consumer
from support.daemon import (
    FIFO,
    LOG_FILE,
    Daemon,
    Detector,
    Start,
    write_configuration,
    write_raw_configuration,
)
from support.scripted import Call
from support.waiting import wait_until


def settings_in_log(daemon: Daemon) -> tuple[str, int, int]:
    """The log's name, the size limit and the number of archives as the settings block has them."""
    found = re.search(
        r"^\+\+ logfile: (.*)\n\+\+    max size of logfile: (-?\d+)\n"
        r"\+\+    max # of backuped logfiles: (-?\d+)\n",
        daemon.log(),
        re.MULTILINE,
    )
    assert found is not None, daemon.log()
    return found[1], int(found[2]), int(found[3])


def run(daemon: Daemon, text: str | bytes) -> tuple[str, int, int]:
    """Runs a daemon that has no detectors on a configuration that is this text."""
    LOG_FILE.parent.mkdir(parents=True, exist_ok=True)
    write_raw_configuration(text)
    assert daemon.start() == Start(0, "", "")
    assert daemon.wait_ended() == 0
    return settings_in_log(daemon)


def first_calls(
    daemon: Daemon, text: str, count: int = 1, leak_check: bool = True
) -> list[Call]:
    """Starts a daemon on a configuration that is this text, each detector with one file to copy."""
    LOG_FILE.parent.mkdir(parents=True, exist_ok=True)
    write_raw_configuration(text)
    scripted.set_default_listing(["a"])
    scripted.set_default_copy([f"wait {scripted.gate('end')}"])
    assert daemon.start(leak_check=leak_check) == Start(0, "", "")
    return scripted.wait_for_calls("copy", count)


LOG_LINE = f"logfile {LOG_FILE}\n"
DEFAULTS = (str(LOG_FILE), 10485760, 10)


@pytest.mark.parametrize(
    "value, size",
    [
        ("0", 0),
        ("-1", -1),
        ("2000", 2000),
        ("512K", 524288),
        ("512 K", 524288),
        ("10M", 10485760),
        ("10MB", 10485760),
        ("10k", 10),
        ("10B", 10),
        ("1G", 1073741824),
        ("2G", -2147483648),
        ("4G", 0),
        ("- 3 M", -3145728),
        ("+5K", 5120),
        ("+ 5", 5),
        ("M", 0),
        ("abc", 0),
        ("3x", 3),
        ("   7", 7),
        ("12\r", 12),
    ],
)
def test_sizes(daemon: Daemon, value: str, size: int) -> None:
    assert run(daemon, f"{LOG_LINE}logfile_max_size {value}\n") == (str(LOG_FILE), size, 10)


@pytest.mark.parametrize(
    "value, number",
    [
        ("3", 3),
        ("-2", -2),
        ("+4", 4),
        ("5abc", 5),
        ("7.9", 7),
        ("abc", 10),
        ("99999999999", 10),
        ("-99999999999", 10),
        ("", 10),
        ("    ", 10),
        ("12\r", 12),
        ("\t8", 8),
    ],
)
def test_numbers(daemon: Daemon, value: str, number: int) -> None:
    text = f"{LOG_LINE}logfile_max_number {value}\n"
    assert run(daemon, text) == (str(LOG_FILE), 10485760, number)


def test_all_settings_absent_but_the_log(daemon: Daemon) -> None:
    assert run(daemon, LOG_LINE) == DEFAULTS


@pytest.mark.parametrize(
    "text",
    [
        f"\t \v logfile   {LOG_FILE}\n",
        f"logfile {LOG_FILE} b c\n",
        f"logfile {LOG_FILE} # note\n",
        f"logfile {LOG_FILE}\tnote\n",
        f"logfile {LOG_FILE}\r\n",
        f"logfile {LOG_FILE}",
        f"\n\n   \n# logfile /srv/no\n  \t# logfile /srv/no\n#\nlogfile {LOG_FILE}\n",
        f"logfile {LOG_FILE}\nlogfile /srv/second\n",
        f"logfile\t/srv/no\nlogfile {LOG_FILE}\n",
        f"logfile=/srv/no\nlogfile {LOG_FILE}\n",
        f"Logfile /srv/no\nLOGFILE /srv/no\nxlogfile /srv/no\nlogfile {LOG_FILE}\n",
        f"x logfile /srv/no\nlogfile {LOG_FILE}\n",
        f"#logfile_max_number 3\nlogfile {LOG_FILE}\n",
    ],
)
def test_how_a_line_is_read(daemon: Daemon, text: str) -> None:
    assert run(daemon, text) == DEFAULTS


def test_a_key_that_begins_with_another_is_not_taken_for_it(daemon: Daemon) -> None:
    text = f"logfile_max_size 7\nlogfile_max_number 3\n{LOG_LINE}"
    assert run(daemon, text) == (str(LOG_FILE), 7, 3)


def test_the_first_of_two_values_counts_even_if_it_is_no_number(daemon: Daemon) -> None:
    text = f"{LOG_LINE}logfile_max_number x\nlogfile_max_number 5\n"
    assert run(daemon, text) == DEFAULTS


def test_a_key_without_a_value_hides_a_later_one(daemon: Daemon) -> None:
    text = f"{LOG_LINE}logfile_max_number\nlogfile_max_number 5\n"
    assert run(daemon, text) == DEFAULTS
    text = f"{LOG_LINE}logfile_max_size   \nlogfile_max_size 5\n"
    LOG_FILE.unlink()
    assert run(daemon, text) == DEFAULTS


def padded(text: str, length: int) -> str:
    """The text as a line of so many characters, the line feed not counted."""
    return text + "x" * (length - len(text)) + "\n"


@pytest.mark.parametrize("length", [1, 1022, 1023])
def test_a_line_of_up_to_1023_characters_is_read(daemon: Daemon, length: int) -> None:
    text = f"{LOG_LINE}{padded('#', length)}logfile_max_number 3\n"
    assert run(daemon, text) == (str(LOG_FILE), 10485760, 3)


@pytest.mark.parametrize("length", [1024, 1025, 1500, 5000])
def test_a_longer_line_ends_the_reading_without_a_word(daemon: Daemon, length: int) -> None:
    more = "\n".join(Detector("1").lines())
    text = f"{LOG_LINE}{padded('#', length)}logfile_max_number 3\n{more}\n"
    assert run(daemon, text) == DEFAULTS
    assert not scripted.calls()


def test_blanks_count_for_the_length_of_a_line(daemon: Daemon) -> None:
    for blanks, number in ((1003, 3), (1004, 10)):
        line = " " * blanks + "logfile_max_number 3"
        assert len(line) == blanks + 20
        assert run(daemon, f"{LOG_LINE}{line}\n") == (str(LOG_FILE), 10485760, number)
        LOG_FILE.unlink()


def test_a_value_of_1015_characters_arrives_whole(daemon: Daemon) -> None:
    target = "/srv" + ("/" + "t" * 99) * 10
    target += "/" + "u" * (1023 - len("target ") - len(target) - 1)
    line = f"target {target}"
    assert len(line) == 1023
    text = LOG_LINE + f"detectorID 1\nremoteIP 127.0.0.1\nsource /\n{line}\nminpause 20\n"
    call = first_calls(daemon, text)[0]
    assert call.arguments[-1] == target + "/./"


@pytest.mark.parametrize("length, number", [(1022, 3), (1023, 3), (1024, 10)])
def test_a_long_last_line_without_a_line_feed(daemon: Daemon, length: int, number: int) -> None:
    line = " " * (length - 20) + "logfile_max_number 3"
    assert len(line) == length
    assert run(daemon, LOG_LINE + line) == (str(LOG_FILE), 10485760, number)


def test_a_blank_and_a_tab_take_the_first_word_of_the_next_line(daemon: Daemon) -> None:
    text = LOG_LINE + "usrdir \t\n\n# dropped\nuid 500\n" + "\n".join(Detector("1").lines()) + "\n"
    call = first_calls(daemon, text)[0]
    assert call.arguments[-1] == "/srv/images/./uid/"
    assert call.environment == ["RSYNC_UID=500", "RSYNC_GID="]


def test_a_blank_and_a_tab_at_the_end_leave_the_setting_alone(daemon: Daemon) -> None:
    text = LOG_LINE + "\n".join(Detector("1").lines()) + "\ngid 5\nuid \t\n"
    call = first_calls(daemon, text)[0]
    assert call.environment == ["RSYNC_UID=", "RSYNC_GID=5"]


def test_global_keys_stand_anywhere(daemon: Daemon) -> None:
    first, *rest = Detector("1").lines()
    text = "\n".join([first, "uid 5", *rest, f"logfile {LOG_FILE}", "gid 6"]) + "\n"
    call = first_calls(daemon, text)[0]
    assert call.environment == ["RSYNC_UID=5", "RSYNC_GID=6"]


def test_detector_keys_before_the_first_block_are_ignored(daemon: Daemon) -> None:
    before = "remoteIP 127.0.0.9\nsource /no\ntarget /srv/no\n"
    text = LOG_LINE + before + "detectorID 1\ntarget /srv/t\n"
    call = first_calls(daemon, text)[0]
    assert call.url == expected.url("", "/")
    assert call.arguments[-1] == "/srv/t/./"


def test_source_and_target_are_put_in_form(daemon: Daemon) -> None:
    cases = [
        ("data", "/srv/a", "/data/", "/srv/a/."),
        ("/data/", "/srv/b/", "/data/", "/srv/b/."),
        ("a/b", "/srv/c/.", "/a/b/", "/srv/c/."),
        ("/", "/srv/.d/e", "/", "/srv/.d/e"),
        ("/x", "/srv/f/.hidden/", "/x/", "/srv/f/.hidden/"),
    ]
    detectors = [
        Detector(str(number), f"127.0.1.{number}", source, target)
        for number, (source, target, _, _) in enumerate(cases)
    ]
    lines = [line for detector in detectors for line in detector.lines()]
    calls = first_calls(daemon, LOG_LINE + "\n".join(lines) + "\n", len(cases))
    assert {(call.url, call.arguments[-1]) for call in calls} == {
        (expected.url(f"127.0.1.{number}", source), target + "/")
        for number, (_, _, source, target) in enumerate(cases)
    }


def test_an_empty_block(daemon: Daemon) -> None:
    # The target is then "/." and the source "/"; the ID is empty.
    calls = first_calls(daemon, LOG_LINE + "detectorID")
    assert calls[0].url == expected.url("", "/")
    assert calls[0].arguments[-1] == "/./"
    log = daemon.log()
    assert "++ Starting copy thread for detector \n" in log
    assert "\n Starting 1 copy processes\n: rsync call: " in log


def test_no_word_is_passed_on_to_the_next_block(daemon: Daemon) -> None:
    text = LOG_LINE + "\n".join(Detector("1", source="/data/").lines()) + "\ndetectorID 2\n"
    calls = first_calls(daemon, text, 2)
    assert {(call.url, call.arguments[-1]) for call in calls} == {
        (expected.url(source="/data/"), "/srv/images/./"),
        (expected.url(""), "/./"),
    }


def test_the_last_block_of_an_id_counts(daemon: Daemon) -> None:
    blocks = [
        Detector("1", "127.0.0.1", "/old", "/srv/old"),
        Detector("2", "127.0.0.2", "/two", "/srv/two"),
        Detector("1", "127.0.0.3", "/new", "/srv/new"),
    ]
    lines = [line for detector in blocks for line in detector.lines()]
    # What was defined first is kept for good, and nothing refers to it at the end of the start.
    calls = first_calls(daemon, LOG_LINE + "\n".join(lines) + "\n", 2, leak_check=False)
    assert {call.url for call in calls} == {
        expected.url("127.0.0.2", "/two/"),
        expected.url("127.0.0.3", "/new/"),
    }
    log = daemon.log()
    threads = re.findall(r"^\+\+ Starting copy thread for detector (.*)$", log, re.MULTILINE)
    assert threads == ["1", "2"]
    assert not Path("/srv/old").exists()


def test_a_block_begins_wherever_its_key_is_found(daemon: Daemon) -> None:
    # Also inside another line; such a block ends the one before it and has no ID of its own.
    text = (
        LOG_LINE
        + "detectorID 1\nremoteIP 127.0.0.1\nsource /\n"
        + "note detectorID 9\ntarget /srv/b\nremoteIP 127.0.0.2\n"
    )
    calls = first_calls(daemon, text, 2)
    assert {(call.url, call.arguments[-1]) for call in calls} == {
        (expected.url("127.0.0.1"), "/./"),
        (expected.url("127.0.0.2"), "/srv/b/./"),
    }
    assert "++ Starting copy thread for detector 9\n" in daemon.log()


def test_a_pause_is_passed_on_to_the_blocks_that_lack_it(daemon: Daemon) -> None:
    # Only if the second block had no pause, or the long one that the third has, would it be slow
    # or spin; and a value that is no number leaves what the block before had.
    blocks = [
        Detector("a", "127.0.0.1", minpause=60000),
        Detector("b", "127.0.0.2", minpause=None),
        Detector("c", "127.0.0.3", minpause=0),
    ]
    write_configuration({"logfile": LOG_FILE}, blocks)
    daemon.start()

    def listings(address: str) -> int:
        return sum(f"@{address}:" in call.url for call in scripted.calls("listing"))

    wait_until(lambda: listings("127.0.0.3") > 20, "detector c to be listed over and over")
    wait_until(lambda: listings("127.0.0.1") and listings("127.0.0.2"), "the other listings")
    assert (listings("127.0.0.1"), listings("127.0.0.2")) == (1, 1)


def test_a_pause_that_is_no_number_leaves_the_one_before(daemon: Daemon) -> None:
    text = (
        LOG_LINE
        + "detectorID a\nremoteIP 127.0.0.1\ntarget /srv/a\nminpause 60000\n"
        + "detectorID b\nremoteIP 127.0.0.2\ntarget /srv/b\nminpause soon\n"
        + "detectorID c\nremoteIP 127.0.0.3\ntarget /srv/c\nminpause 0\n"
    )
    write_raw_configuration(text)
    LOG_FILE.parent.mkdir(parents=True, exist_ok=True)
    daemon.start()

    def listings(address: str) -> int:
        return sum(f"@{address}:" in call.url for call in scripted.calls("listing"))

    wait_until(lambda: listings("127.0.0.3") > 20, "detector c to be listed over and over")
    wait_until(lambda: listings("127.0.0.1") and listings("127.0.0.2"), "the other listings")
    assert (listings("127.0.0.1"), listings("127.0.0.2")) == (1, 1)


def test_a_file_without_line_feeds_at_odd_places(daemon: Daemon) -> None:
    assert run(daemon, b"\n\n\r\n \t\n" + LOG_LINE.encode() + b"\xff\xfe odd bytes\n") == DEFAULTS


def test_the_users_directory(daemon: Daemon) -> None:
    settings: dict[str, object] = {
        "logfile": LOG_FILE,
        "uid": "1000",
        "gid": "100",
        "usrdir": "/$UID/$GID/$UID/$GID",
    }
    detectors = [
        Detector("1", "127.0.0.1", "/", "/srv/a"),
        Detector("2", "127.0.0.2", "/", "/srv/b/./"),
    ]
    write_configuration(settings, detectors)
    scripted.set_default_listing(["a"])
    scripted.set_default_copy([f"wait {scripted.gate('end')}"])
    daemon.start()
    calls = scripted.wait_for_calls("copy", 2)
    # Only the first of each is replaced, and slashes are neither added nor taken away in between.
    assert {call.arguments[-1] for call in calls} == {
        "/srv/a/.//1000/100/$UID/$GID/",
        "/srv/b/.//1000/100/$UID/$GID/",
    }


def test_a_substituted_group_may_come_from_the_substituted_user(daemon: Daemon) -> None:
    settings: dict[str, object] = {
        "logfile": LOG_FILE,
        "uid": "$GID",
        "gid": "100",
        "usrdir": "$UID-$GID",
    }
    write_configuration(settings, [Detector("1")])
    scripted.add_listing(["a"])
    daemon.start()
    assert scripted.wait_for_calls("copy", 1)[0].arguments[-1] == "/srv/images/./100-$GID/"


def test_the_owner_of_the_configuration_reaches_the_consumer(daemon: Daemon) -> None:
    for uid, gid, line in (
        ("1000", "100", "usershift: 1000 100"),
        ("some", "body", "usershift: some body"),
        (None, None, "usershift:  "),
        (None, "5", "usershift:  5"),
    ):
        settings: dict[str, object] = {"logfile": LOG_FILE}
        settings.update({} if uid is None else {"uid": uid})
        settings.update({} if gid is None else {"gid": gid})
        write_configuration(settings)
        with Consumer() as consumer:
            daemon.start()
            assert daemon.wait_ended() == 0
            wait_until(consumer.lines, "the line of the start")
            assert consumer.lines() == [line]
        FIFO.unlink()
