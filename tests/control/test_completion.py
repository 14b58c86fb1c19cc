"""Completion of skarnctl's command line in bash: what is offered for each word, and that nothing of
the configuration is run by it."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest

from support.control import skarnctl
from support.daemon import CONFIGURATION, SECOND_CONFIGURATION, write_raw_configuration

PROJECT = Path(__file__).resolve().parents[2]
COMPLETION = PROJECT / "packaging" / "completion" / "skarnctl"
HELPERS = Path("/usr/share/bash-completion/bash_completion")
SUBCOMMANDS = (
    "check events log metrics restart start status stop unannounced watch".split()
)

# Does what bash does with the line up to the cursor: readline's cutting into words, then the call.
SCRIPT = r"""
shopt -s progcomp
. "$1"
. "$2"
COMP_LINE=$3
COMP_POINT=${#COMP_LINE}
COMP_TYPE=9
COMP_KEY=9
shift 3
COMP_WORDS=("$@")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
compopt() { :; }
_skarnctl skarnctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD > 0 ? COMP_CWORD - 1 : 0]}"
printf '%s\n' "${COMPREPLY[@]}"
"""


def cut(line: str) -> list[str]:
    """The words of a line as readline cuts them: also at colons and equals signs."""
    words = [word for word in re.findall(r"[:=]+|[^\s:=]+", line)]
    return [*words, ""] if line[-1].isspace() or line[-1] in ":=" else words


def offered(line: str) -> list[str]:
    """What is offered for the word at the end of the line, sorted."""
    run = subprocess.run(
        ["/bin/bash", "--norc", "-c", SCRIPT, "bash", HELPERS, COMPLETION, line, *cut(line)],
        capture_output=True, encoding="utf-8", timeout=60, check=False, cwd="/srv",
        env={"PATH": "/usr/bin:/bin", "HOME": "/nonexistent"},
    )
    assert run.stderr == "", run.stderr
    return sorted(word for word in run.stdout.split("\n") if word)


@pytest.fixture(autouse=True)
def configuration() -> Iterator[None]:
    """A configuration with three detectors."""
    write_raw_configuration(
        "logfile /srv/log\ndetectorID north\ntarget /x\n  detectorID south\n# detectorID none\n"
        "detectorID north-2\ndetectorID\nnote detectorID no\n"
    )
    yield
    CONFIGURATION.unlink(missing_ok=True)
    SECOND_CONFIGURATION.unlink(missing_ok=True)


def test_subcommands() -> None:
    assert offered("skarnctl ") == SUBCOMMANDS
    assert offered("skarnctl sta") == ["start", "status"]
    assert offered("skarnctl x") == []
    assert offered("skarnctl -") == ["--daemon", "--help", "--version"]
    assert offered("skarnctl --daemon /usr/sbin/skarn w") == ["watch"]
    assert offered("skarnctl --daemon=/usr/sbin/skarn w") == ["watch"]


def test_every_subcommand_and_option_of_the_program_is_offered() -> None:
    listed = skarnctl("--help").output.partition("Subcommands:\n")[2]
    assert sorted(re.findall(r"^  ([a-z]+) ", listed, re.MULTILINE)) == SUBCOMMANDS
    for subcommand in SUBCOMMANDS:
        if subcommand in ("start", "restart"):
            continue  # their words are the daemon's
        help_text = skarnctl(subcommand, "--help").output
        options = set(re.findall(r"^  (?:-\w,)?(--[a-z-]+)", help_text, re.MULTILINE))
        assert options == set(offered(f"skarnctl {subcommand} --")), subcommand


def test_start_options() -> None:
    for subcommand in ("start", "restart"):
        its_own = ["--when-idle"] if subcommand == "restart" else []
        words = sorted(["--detector", "--user", "-d", "-u", *its_own])
        assert offered(f"skarnctl {subcommand} ") == words
        assert offered(f"skarnctl {subcommand} -u 1:2 --d") == ["--detector"]


def test_detectors() -> None:
    for option in ("-d", "--detector"):
        for subcommand in ("start", "restart", "check"):
            line = f"skarnctl {subcommand} {option} "
            assert offered(line) == ["north-2:", "north:", "south:"]
            assert offered(line + "no") == ["north-2:", "north:"]
    # Of the other place, if the first is not there; and of the file that is to be checked.
    shutil.move(CONFIGURATION, "/srv/other.conf")
    write_raw_configuration("detectorID east\n", SECOND_CONFIGURATION)
    assert offered("skarnctl start -d ") == ["east:"]
    assert offered("skarnctl check /srv/other.conf -d so") == ["south:"]
    SECOND_CONFIGURATION.unlink()
    assert offered("skarnctl start -d ") == []


def test_the_target_of_a_detector() -> None:
    Path("/srv/images/a").mkdir(parents=True, exist_ok=True)
    Path("/srv/images/file").write_text("", encoding="ascii")
    # bash replaces what stands behind the last colon.
    assert offered("skarnctl start -d north:/data:/srv/images/") == ["/srv/images/a"]
    assert offered("skarnctl start -d north:/da") == []
    assert offered("skarnctl start -d north:") == []


def test_owners() -> None:
    assert "root:" in offered("skarnctl start -u ")
    assert offered("skarnctl check --user roo") == ["root:"]
    assert offered("skarnctl check -u 1000:roo") == ["root"]


def test_files() -> None:
    Path("/srv/one.conf").write_text("", encoding="ascii")
    Path("/srv/two.conf").write_text("", encoding="ascii")
    assert offered("skarnctl check /srv/o") == ["/srv/one.conf"]
    assert {"one.conf", "two.conf"} <= set(offered("skarnctl check "))
    assert offered("skarnctl watch --config tw") == ["two.conf"]
    assert offered("skarnctl metrics --config=tw") == ["two.conf"]
    assert offered("skarnctl --daemon /srv/tw") == ["/srv/two.conf"]


def test_values_that_can_t_be_known() -> None:
    for line in ("watch --interval ", "metrics --listen ", "stop --timeout ", "stop --when-idle="):
        assert offered("skarnctl " + line) == [], line
    assert "--timeout" in offered("skarnctl stop --when-idle ")


@pytest.mark.parametrize(
    "text",
    [
        b"detectorID $(touch${IFS}/srv/ran)\ndetectorID `touch`\ndetectorID a;b\ndetectorID a'b\n",
        b"detectorID \xff\n\0\x1b[2J\ndetectorID *\ndetectorID \\x\n" * 1000,
        b"",
    ],
)
def test_nothing_of_the_configuration_is_run_or_breaks_it(text: bytes) -> None:
    write_raw_configuration(text + b"\ndetectorID fine\n")
    assert offered("skarnctl start -d ") == ["fine:"]
    assert offered("skarnctl start -d $(touch") == []
    assert not Path("/srv/ran").exists()


def test_a_configuration_that_can_t_be_read_is_none() -> None:
    CONFIGURATION.unlink()
    os.mkfifo(CONFIGURATION)
    assert offered("skarnctl start -d ") == []
    CONFIGURATION.unlink()
    CONFIGURATION.mkdir()
    assert offered("skarnctl start -d ") == []
    CONFIGURATION.rmdir()
    assert offered("skarnctl check /dev/zero -d ") == []
