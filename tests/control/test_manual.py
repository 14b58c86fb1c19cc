"""The manuals name every subcommand, option, figure and key that there is."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

from support.control import skarnctl, start_daemon

PROJECT = Path(__file__).resolve().parents[2]


def manual(name: str) -> str:
    """The source of a manual."""
    return (PROJECT / "docs/man" / name).read_text(encoding="utf-8")


def test_every_subcommand_and_option() -> None:
    text = manual("skarnctl.8")
    listed = skarnctl("--help").output.partition("Subcommands:\n")[2]
    subcommands = re.findall(r"^  (\w+)", listed, re.MULTILINE)
    assert set(subcommands) == set(
        "start restart stop status check watch metrics events unannounced log".split()
    )
    for subcommand in subcommands:
        assert re.search(rf"^\.(Cm|It Cm).*\b{subcommand}\b", text, re.MULTILINE), subcommand
        for option in re.findall(r"(?<![\w-])--([a-z][a-z-]*)", skarnctl(subcommand, "--help").output):
            assert re.search(rf"Fl [^\n]*-{option}\b", text) or option in ("user", "detector"), option


@pytest.mark.usefixtures("host")
def test_every_json_key_of_status_check_and_watch() -> None:
    start_daemon()
    # The settings bear the names that they have in the file.
    text = set(re.findall(r"[A-Za-z_]+", manual("skarnctl.8") + manual("skarn_orbelin.conf.5")))
    for words in (["status"], ["check"], ["watch"]):
        keys = keys_in(skarnctl(*words, "--json").json)
        assert len(keys) > 8
        assert not keys - text, words


def keys_in(value: object) -> set[str]:
    """All keys of an object and of what is in it."""
    if isinstance(value, dict):
        return set(value) | {key for inner in value.values() for key in keys_in(inner)}
    if isinstance(value, list):
        return {key for inner in value for key in keys_in(inner)}
    return set()


def test_every_code_of_a_finding() -> None:
    sources = (PROJECT / "control/check").glob("*.cpp")
    source = "\n".join(path.read_text(encoding="utf-8") for path in sources)
    section = manual("skarnctl.8").partition(".Sh FINDINGS")[2].partition(".Sh ")[0]
    items = re.findall(r"^\.It Sy (.*)", section, re.MULTILINE)
    listed = {code for item in items for code in item.split(" , ")}
    assert len(listed) > 25
    assert {code for code in listed if f'"{code}"' not in source} == set()
    # The other way round: what stands where a code does.
    used = set(re.findall(r'(?:(?:fatal|error|warning), |Place(?: \w+)?\{)"([a-z-]+)",',
                          re.sub(r"\s+", " ", source)))
    assert len(used) > 20 and not used - listed


@pytest.mark.usefixtures("host")
def test_every_figure() -> None:
    start_daemon()
    names = set(re.findall(r"^# TYPE (\S+)", skarnctl("metrics", "--once").output, re.MULTILINE))
    assert len(names) > 15
    assert not {name for name in names if name not in manual("skarnctl.8")}


def test_every_key_of_the_configuration() -> None:
    text = manual("skarn_orbelin.conf.5")
    sources = [PROJECT / "config" / name for name in ("config_file.cpp", "detector_definitions.cpp")]
    keys = {
        key
        for source in sources
        for key in re.findall(r'(?:readVar|parseSizeVar)\(\w+, "(\w+)"', source.read_text())
    }
    assert len(keys) == 12
    for key in keys:
        assert re.search(rf"^\.It Ic .*\b{key}\b", text, re.MULTILINE), key


def test_every_line_of_the_daemon_is_in_the_manual_and_in_the_operator_s_tables() -> None:
    # As words: the manual's markup and the tables' write the rest of a line in their own ways.
    lines = [
        "does not exist or is not executable", "no such file or directory", "does not exist",
        "Starting copy thread for detector", "Starting N copy processes", "rsync call:",
        "Child process PID terminated", "Removed file", "could not remove", "Listing failed",
        "Could not fork subprocess", "RSYNC OUTPUT BEGIN", "RSYNC OUTPUT END",
        "files in the range of:", "Error: Lost", "No pipe to VANTREL", "Failed to pass",
        "Pipe to VANTREL has overflown", "is longer than 4096",
        "Atomicity of pipe operation is not guaranteed", "Error no config file found",
        "Cannot access", "found in config file", "Unknown option",
    ]  # fmt: skip
    folders = ("config", "daemon", "transfer")
    source = "\n".join(
        path.read_text() for folder in folders for path in (PROJECT / folder).glob("*.cpp")
    )
    operations = (PROJECT / "docs/operations.md").read_text(encoding="utf-8")
    for line in lines:
        assert line in manual("skarn.8"), line
        assert line in operations, line
        # And each is a line of the daemon still.
        words = re.split(r" N | PID |4096", line)
        assert all(word.strip() in source for word in words), line
