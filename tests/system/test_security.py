"""Who can make the daemon do what: the configuration, a detector's names, other users' /tmp."""

from __future__ import annotations

import os
import stat
from pathlib import Path

from support import expected, scripted
from support.daemon import LISTING_ERRORS, LOG_FILE, Daemon, Detector, write_configuration
from support.scripted import STAND_INS
from support.waiting import wait_until

HIT = Path("/srv/hit")
STRANGER = 1234
# Each makes HIT, or leads elsewhere, if it comes where it does not belong.
HOSTILE_NAMES = [
    "$(touch${IFS}/srv/hit)",
    "`touch${IFS}/srv/hit`",
    ";>/srv/hit;",
    "|>/srv/hit",
    "&&>/srv/hit",
    "';>/srv/hit;'",
    '";>/srv/hit;"',
    "a\\';>/srv/hit",
    "-e",
    "--rsh=>/srv/hit",
    "a/../../hit",
    "/srv/hit",
    "~/hit",
    "*",
    "%n",
]


def configure(*detectors: Detector, **settings: object) -> None:
    write_configuration({"logfile": LOG_FILE, **settings}, detectors or [Detector("1", minpause=1)])


def start_watched(daemon: Daemon) -> None:
    """Starts the daemon so that its cycles show also when nothing is listed: each makes the
    target.
    """
    scripted.install_stand_in("mkdir")
    daemon.start(environment={"PATH": f"{STAND_INS}:/usr/sbin:/usr/bin:/sbin:/bin"})


def wait_for_cycles(count: int) -> None:
    begun = len(scripted.calls("mkdir"))
    scripted.wait_for_calls("mkdir", begun + count)


def mode_of(path: Path) -> int:
    return stat.S_IMODE(path.stat().st_mode)


def test_a_detector_s_names_reach_no_shell_and_no_argument(daemon: Daemon) -> None:
    configure(Detector("1", minpause=1, target="/srv/images"), usrdir="user")
    for _ in range(3):
        scripted.add_listing(HOSTILE_NAMES)
    daemon.start("-u", "0:0")
    daemon.wait_for_log("1: Removed file", 3)
    for call in scripted.calls("copy"):
        assert call.names == HOSTILE_NAMES
        assert call.arguments == expected.copy_arguments(
            call.list_name, expected.url(), "/srv/images/./user"
        )
    shares = {tuple(call.arguments) for call in scripted.calls("listing")}
    assert shares == {tuple(expected.listing_arguments(expected.url()))}
    assert not os.path.lexists(HIT)


def test_the_configuration_reaches_the_shell(daemon: Daemon) -> None:
    """Whoever may write it may do what the daemon may do."""
    configure(Detector("1", minpause=1, target="/srv/images;touch${IFS}/srv/hit;"))
    daemon.start()
    wait_until(HIT.exists, "the target's second command to be run")


def test_the_command_line_reaches_the_shell(daemon: Daemon) -> None:
    configure()
    daemon.start("-d", "1:/:/srv/images;touch${IFS}/srv/hit;")
    wait_until(HIT.exists, "the target's second command to be run")


def test_what_the_shell_makes_is_open_to_everybody(daemon: Daemon) -> None:
    """The umask is 0: a target that is not there yet and the error capture need care."""
    there = Path("/srv/there")
    there.mkdir(mode=0o750)
    there.chmod(0o750)
    configure(
        Detector("1", minpause=1, target="/srv/new/target"),
        Detector("2", minpause=1, target=str(there)),
    )
    daemon.start()
    scripted.wait_for_calls("listing", 4)
    assert mode_of(Path("/srv/new")) == mode_of(Path("/srv/new/target")) == 0o777
    assert mode_of(there) == 0o750
    assert mode_of(LISTING_ERRORS) == 0o666


def test_without_its_error_capture_nothing_is_listed_and_nothing_said(daemon: Daemon) -> None:
    configure()
    LISTING_ERRORS.mkdir()
    start_watched(daemon)
    log = daemon.wait_for_log(expected.starting_thread("1"))
    wait_for_cycles(4)
    assert scripted.calls("listing") == []
    assert daemon.log() == log
    LISTING_ERRORS.rmdir()
    scripted.add_listing(["a"])
    daemon.wait_for_log(expected.block(confirmed=["a"]))


def test_a_stranger_s_link_under_the_error_capture(daemon: Daemon) -> None:
    """With the kernel's protection it stops the listings; without, what it leads to is lost."""
    configure()
    victim = Path("/srv/victim")
    victim.write_text("precious\n")
    LISTING_ERRORS.symlink_to(victim)
    os.lchown(LISTING_ERRORS, STRANGER, STRANGER)
    protected = Path("/proc/sys/fs/protected_symlinks").read_text(encoding="ascii").strip() != "0"
    start_watched(daemon)
    wait_for_cycles(4)
    if protected:
        assert scripted.calls("listing") == []
        assert victim.read_text() == "precious\n"
        LISTING_ERRORS.unlink()
    else:
        assert scripted.calls("listing") != []
        assert victim.read_text() == ""
    scripted.add_listing(["a"])
    daemon.wait_for_log(expected.block(confirmed=["a"]))
