"""The command line: what it changes, what it refuses, and in which words."""

from __future__ import annotations

import os
from pathlib import Path

import pytest

from support import expected, scripted
from support.consumer import Consumer
from support.daemon import (
    LOG_FILE,
    PID_FILE,
    VERSION,
    Daemon,
    Detector,
    Start,
    write_configuration,
)
from support.scripted import Call

USAGE_ALONE = Start(1, "", expected.USAGE)
VERSION_LINES = Start(
    0, f"SKARN version {VERSION}\nCopyright (C) 2026 the skarn authors\n", ""
)


@pytest.fixture
def one_detector(daemon: Daemon) -> Daemon:
    """A daemon whose configuration has an owner and one detector, "1"."""
    settings: dict[str, object] = {"logfile": LOG_FILE, "uid": 7, "gid": 8}
    write_configuration(settings, [Detector("1", "127.0.0.1", "/", "/srv/images")])
    return daemon


def first_copy(daemon: Daemon, *arguments: str) -> Call:
    """Starts the daemon with one file to copy and returns how the copy program was called."""
    scripted.add_listing(["a"])
    assert daemon.start(*arguments) == Start(0, "", "")
    return scripted.wait_for_calls("copy", 1)[0]


def owner(call: Call) -> list[str]:
    assert len(call.environment) == 2
    return [variable.partition("=")[2] for variable in call.environment]


def test_without_options_the_configuration_stands(one_detector: Daemon) -> None:
    call = first_copy(one_detector)
    assert owner(call) == ["7", "8"]
    assert call.url == expected.url()
    assert call.arguments[-1] == "/srv/images/./"


@pytest.mark.parametrize("option", ["-u", "--user"])
@pytest.mark.parametrize("value", ["1000:100", "1000::100", ":1000:100:", "'1000':\"100\""])
def test_the_owner(one_detector: Daemon, option: str, value: str) -> None:
    assert owner(first_copy(one_detector, option, value)) == ["1000", "100"]


def test_the_owner_is_text(one_detector: Daemon) -> None:
    assert owner(first_copy(one_detector, "-u", "some body:'x:y'")) == ["some body", "x:y"]


def test_the_last_owner_wins(one_detector: Daemon) -> None:
    call = first_copy(one_detector, "-u", "1:2", "--user", "3:4")
    assert owner(call) == ["3", "4"]


def test_the_owner_reaches_the_consumer(one_detector: Daemon) -> None:
    with Consumer() as consumer:
        first_copy(one_detector, "-u", "1000:100")
        consumer.wait_for(1)
        assert consumer.lines() == ["usershift: 1000 100", "/srv/images/./a"]
        one_detector.end()


@pytest.mark.parametrize("option", ["-d", "--detector"])
def test_a_detector_s_source_and_target(one_detector: Daemon, option: str) -> None:
    call = first_copy(one_detector, option, "1:src:/srv/dst")
    assert call.url == expected.url(source="/src/")
    assert call.arguments[-1] == "/srv/dst/./"
    assert owner(call) == ["7", "8"]
    assert os.path.isdir("/srv/dst") and not os.path.exists("/srv/images")


def test_a_quoted_colon_does_not_split(one_detector: Daemon) -> None:
    call = first_copy(one_detector, "-d", "1:'/a:b':\"/srv/c:d\"")
    assert call.url == expected.url(source="/a:b/")
    assert call.arguments[-1] == "/srv/c:d/./"


def test_options_come_in_any_order_and_the_last_of_a_kind_wins(one_detector: Daemon) -> None:
    call = first_copy(
        one_detector, "-d", "1:/x:/srv/x", "-u", "1:2", "-d", "1:/y/:/srv/y/", "-u", "3:4"
    )
    assert call.url == expected.url(source="/y/")
    assert call.arguments[-1] == "/srv/y/./"
    assert owner(call) == ["3", "4"]


def test_only_the_named_detector_is_changed(daemon: Daemon) -> None:
    first = Detector("1", "127.0.0.1", "/", "/srv/one")
    second = Detector("2", "127.0.0.2", "/", "/srv/two")
    write_configuration({"logfile": LOG_FILE}, [first, second])
    scripted.set_default_listing(["a"])
    scripted.set_default_copy([f"wait {scripted.gate('end')}"])
    daemon.start("-d", "2:/data:/srv/other")
    calls = scripted.wait_for_calls("copy", 2)
    assert {(call.url, call.arguments[-1]) for call in calls} == {
        (expected.url("127.0.0.1"), "/srv/one/./"),
        (expected.url("127.0.0.2", "/data/"), "/srv/other/./"),
    }


def test_the_user_directory_is_appended_to_a_target_of_the_command_line(daemon: Daemon) -> None:
    settings: dict[str, object] = {"logfile": LOG_FILE, "usrdir": "u$UID/g$GID"}
    write_configuration(settings, [Detector("1")])
    call = first_copy(daemon, "-d", "1:/:/srv/dst", "-u", "1000:100")
    assert call.arguments[-1] == "/srv/dst/./u1000/g100/"
    status = os.stat("/srv/dst/u1000/g100")
    assert (status.st_uid, status.st_gid) == (1000, 100)


@pytest.mark.parametrize(
    "arguments",
    [
        ["-u"],
        ["--user"],
        ["-u", "1000"],
        ["-u", "1:2:3"],
        ["-u", ""],
        ["-u", "1:"],
        ["-u", "'1:2'"],
        ["-u", "--version"],
        ["-d"],
        ["--detector"],
        ["-d", "1:/src"],
        ["-d", "1:/src:"],
        ["-d", "1:/src:/dst:/more"],
        ["-d", "::"],
        ["-u", "1:2", "-u"],
        ["-u", "1:2", "-d", "1"],
        ["-d", "9:/only-two"],
    ],
)
def test_a_bad_value_gives_the_usage_text_alone(
    one_detector: Daemon, arguments: list[str]
) -> None:
    assert one_detector.start(*arguments) == USAGE_ALONE
    assert not one_detector.detached
    assert not PID_FILE.exists() and not LOG_FILE.exists()


@pytest.mark.parametrize(
    "arguments",
    [["-d", "2:/src:/dst"], ["-u", "1:2", "-d", "2:/src:/dst", "-x"]],
)
def test_an_unknown_detector(one_detector: Daemon, arguments: list[str]) -> None:
    start = one_detector.start(*arguments)
    assert start == Start(1, "", "No detectorID 2 found in config file\n")
    assert not one_detector.detached


@pytest.mark.parametrize(
    "arguments, word",
    [
        (["-x"], "-x"),
        (["start"], "start"),
        (["stop"], "stop"),
        (["status"], "status"),
        (["restart", "-u", "1:2"], "restart"),
        (["-h"], "-h"),
        (["--help"], "--help"),
        ([""], ""),
        (["-u1:2"], "-u1:2"),
        (["--user=1:2"], "--user=1:2"),
        (["--Version"], "--Version"),
        (["-u", "1:2", "1:2"], "1:2"),
        (["-u", "1:2", "-x", "--version"], "-x"),
        (["two words"], "two words"),
    ],
)
def test_an_unknown_option(one_detector: Daemon, arguments: list[str], word: str) -> None:
    start = one_detector.start(*arguments)
    assert start == Start(1, "", f"Unknown option {word}\n" + expected.USAGE)
    assert not one_detector.detached


@pytest.mark.parametrize(
    "arguments",
    [
        ["--version"],
        ["-u", "1:2", "--version"],
        ["--version", "-x"],
        ["--version", "-u", "1"],
        ["-d", "1:/a:/b", "--version"],
    ],
)
def test_the_version(one_detector: Daemon, arguments: list[str]) -> None:
    assert one_detector.start(*arguments) == VERSION_LINES
    assert not one_detector.detached
    assert not LOG_FILE.exists()


def test_the_version_needs_no_password_file_and_no_log(daemon: Daemon) -> None:
    write_configuration({"logfile": LOG_FILE})
    LOG_FILE.parent.rmdir()
    Path("/usr/local/orbelin/etc/rsyncd.secrets_remote").unlink()
    assert daemon.start("--version") == VERSION_LINES
