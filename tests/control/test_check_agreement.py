"""What skarnctl check says of a configuration is what the real daemon then does with it."""

from __future__ import annotations

import re
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

from support import expected, processes, scripted
from support.control import skarnctl
from support.daemon import (
    LOG_FILE,
    STATUS_FILE,
    Daemon,
    Start,
    install_password_file,
    write_raw_configuration,
)
from support.waiting import wait_until

LOG = f"logfile {LOG_FILE}\n"


@pytest.fixture
def daemon() -> Iterator[Daemon]:
    """A daemon, not started, with the scripted copy program."""
    LOG_FILE.parent.mkdir(parents=True)
    install_password_file()
    scripted.install()
    with Daemon() as one:
        yield one
    processes.end_descendants()


AWKWARD = {
    "plain": LOG + "detectorID 1\nremoteIP 127.0.0.1\nsource /\ntarget /srv/a\nminpause 20\n",
    "sources and targets in all forms": LOG
    + "minpause 9\ndetectorID a\nremoteIP 127.0.0.1\nsource data\ntarget /srv/a/\nminpause 20\n"
    "detectorID b\nremoteIP 127.0.0.2\nsource /data/\ntarget /srv/b/.\n"
    "detectorID c\nremoteIP 127.0.0.3\nsource a/b\ntarget /srv/.hid/c\n",
    "order by bytes": LOG
    + "".join(
        f"detectorID {each}\nremoteIP 127.0.0.{number}\nsource /\ntarget /srv/{each}\nminpause 20\n"
        for number, each in enumerate(["b", "10", "9", "B", "_"], 1)
    ),
    "swallowed word": LOG + "usrdir \t\n# c\nuid 500\ndetectorID 1\nsource /\ntarget /srv/a\n",
    "the last of an ID": LOG
    + "detectorID 1\nremoteIP 127.0.0.1\nsource /old\ntarget /srv/old\nminpause 20\n"
    "detectorID 1\nremoteIP 127.0.0.2\ntarget /srv/new\n",
    "blocks inside lines": LOG
    + "detectorID 1\nremoteIP 127.0.0.1\nsource /\ntarget /srv/a # not detectorID 2\n"
    "remoteIP 127.0.0.2\ntarget /srv/b\n",
    "windows": (LOG + "uid 5\ngid\ndetectorID 1\nremoteIP 127.0.0.1\nsource x\ntarget /srv/a\n")
    .replace("\n", "\r\n"),
    "sizes that wrap": LOG
    + "logfile_max_size 3G\nlogfile_max_number 5abc\ndetectorID 1\nsource /\ntarget /srv/a\n",
    "keys that are not seen": LOG
    + "logfile_max_size=5\nlogfile_max_number\t3\nuid:7\ngid\ngid 8\n"
    "detectorID 1\nremoteIP=127.0.0.9\nsource\t/x\ntarget /srv/a\n",
    "a line that is too long": LOG
    + "detectorID 1\nremoteIP 127.0.0.1\nsource /\ntarget /srv/a\nminpause 20\n"
    + "#" * 1024
    + "\ndetectorID 2\ntarget /srv/b\nlogfile_max_number 3\n",
    "a user's directory": LOG
    + "uid 5\ngid 6\nusrdir /u$UID/$GID\n"
    "detectorID 1\nremoteIP 127.0.0.1\nsource /\ntarget /srv/a/\nminpause 20\n",
    "quotation marks": LOG
    + "detectorID \"1\"\nremoteIP 127.0.0.1\nsource /\ntarget \"/srv/a b\"\nminpause 20\n",
    "odd bytes": LOG + "detectorID \u00e9;$\nremoteIP 127.0.0.1\nsource /\ntarget /srv/\u00e9\n",
}
OPTIONS: dict[str, tuple[str, ...]] = {
    "a user's directory": ("-u", "0:0", "-d", "1:'x:y':/srv/z"),
    "order by bytes": ("-d", "9:/n:/srv/n", "-d", "9:m:/srv/m/"),
}


@pytest.mark.parametrize("name", AWKWARD)
def test_check_and_the_daemon_agree(daemon: Daemon, name: str) -> None:
    write_raw_configuration(AWKWARD[name])
    options = OPTIONS.get(name, ())
    report: dict[str, Any] = skarnctl("check", "--no-network", "--json", *options).json
    detectors = report["detectors"]
    assert detectors
    scripted.set_default_listing(["a"])
    scripted.set_default_copy([f"wait {scripted.gate('end')}"])
    # An ID that is defined twice leaves what was defined first to nobody.
    started = daemon.start(*options, leak_check=False)
    assert started == Start(0, "", "")
    calls = scripted.wait_for_calls("copy", len(detectors))
    wait_until(
        lambda: daemon.log().count(": rsync call: ") >= len(detectors), "the calls in the log"
    )
    log = daemon.log()

    settings = report["settings"]
    block = expected.settings(
        settings["logfile"], settings["logfile_max_size"], settings["logfile_max_number"]
    )
    assert block in log
    assert STATUS_FILE.read_text(encoding="ascii") == "njobs 8\n"
    threads = re.findall(r"^\+\+ Starting copy thread for detector (.*)$", log, re.MULTILINE)
    assert threads == [detector["id"] for detector in detectors]

    by_id = {detector["id"]: detector for detector in detectors}
    logged = re.findall(r"^(.*): rsync call: (.*)$", log, re.MULTILINE)
    assert {identifier for identifier, _ in logged} == by_id.keys()
    for identifier, command in logged:
        detector = by_id[identifier]
        list_name = re.search(r"--files-from=(\S+)", command)
        assert list_name is not None
        assert command == expected.copy_command(
            list_name[1], detector["share_url"], detector["target"]
        )
        assert command.endswith(f" {detector['share_url']} {detector['destination']}")

    # Arguments and variables are recorded as Latin-1, and the copy program gets no quotation marks.
    def recorded(text: str) -> str:
        return text.encode().decode("latin-1").replace('"', "")

    assert {(call.url, call.arguments[-1]) for call in calls} == {
        (recorded(each["share_url"]), recorded(each["destination"])) for each in detectors
    }
    for call in calls:
        assert call.environment == [f"RSYNC_UID={settings['uid']}", f"RSYNC_GID={settings['gid']}"]
    listings = {tuple(call.arguments) for call in scripted.calls("listing")}
    assert listings == {
        tuple(expected.listing_arguments(recorded(each["share_url"]))) for each in detectors
    }


def test_the_owner_command_is_the_one_that_is_run(daemon: Daemon) -> None:
    scripted.install_stand_in("chown")
    write_raw_configuration(AWKWARD["a user's directory"])
    report = skarnctl("check", "--no-network", "--json", "-u", "7:8").json
    scripted.set_default_listing(["a"])
    scripted.set_default_copy([f"wait {scripted.gate('end')}"])
    path = f"{scripted.STAND_INS}:/usr/sbin:/usr/bin:/sbin:/bin"
    daemon.start("-u", "7:8", environment={"PATH": path})
    call = scripted.wait_for_calls("chown", 1)[0]
    words = report["detectors"][0]["owner_command"].split(" ")
    assert [Path(call.arguments[0]).name, *call.arguments[1:]] == words
