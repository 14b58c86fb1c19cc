"""Whose the copied files are: uid and gid, from file and command line, and usrdir."""

from __future__ import annotations

import os
from pathlib import Path

from support.bed import Bed
from support.detector import list_files
from support.waiting import wait_until


def owners_below(root: Path) -> set[tuple[int, int]]:
    """The owners of everything below `root` that is not a folder."""
    found = [os.lstat(root / name) for name in list_files(root)]
    return {(entry.st_uid, entry.st_gid) for entry in found}


def owner_of(path: Path) -> tuple[int, int]:
    entry = os.lstat(path)
    return entry.st_uid, entry.st_gid


def test_without_uid_and_gid_files_belong_to_the_daemon() -> None:
    with Bed() as bed:
        bed.simulator.burst(["a.raw", "run/b.raw"])
        for name in ("a.raw", "run/b.raw"):
            os.chown(bed.simulator.root / name, 4321, 8765)
        bed.start()
        bed.finish()
        assert owners_below(bed.target) == {(0, 0)}


def test_uid_and_gid_own_the_files() -> None:
    with Bed(settings={"uid": 1234, "gid": 5678}) as bed:
        bed.simulator.burst(["a.raw", "run/b.raw"])
        bed.simulator.symbolic_link("link", "a.raw")
        bed.start()
        bed.finish()
        assert owners_below(bed.target) == {(1234, 5678)}
        assert owner_of(bed.target / "run") == (1234, 5678)
        assert bed.consumer.lines()[0] == "usershift: 1234 5678"


def test_a_uid_or_a_gid_alone_is_enough() -> None:
    for key, owner in (("uid", (1234, 0)), ("gid", (0, 1234))):
        with Bed(settings={key: 1234}) as bed:
            bed.simulator.write(f"{key}.raw")
            bed.start()
            # The daemon before was killed, so that its file may be announced once more.
            wait_until(lambda: f"{key}.raw" in bed.announced(), f"{key}.raw to be announced")
            assert owner_of(bed.target / f"{key}.raw") == owner


def test_the_command_line_sets_another_owner() -> None:
    with Bed(settings={"uid": 1234, "gid": 5678}) as bed:
        bed.simulator.write("a.raw")
        bed.start("-u", "77:88")
        bed.finish()
        assert owners_below(bed.target) == {(77, 88)}


def test_the_user_directory_is_made_and_given_to_the_user() -> None:
    settings = {"uid": 1234, "gid": 5678, "usrdir": "u$UID/g$GID"}
    with Bed(settings=settings) as bed:
        # The configured target has no "/." yet when it is read, but one when usrdir is appended.
        target = Path(f"{bed.target}/./u1234/g5678")
        bed.simulator.burst(["a.raw", "run/b.raw"])
        bed.start()
        bed.wait_announced(2)
        bed.settle()
        assert owner_of(target) == (1234, 5678)
        assert owner_of(target.parent) == (0, 0)
        assert owners_below(target) == {(1234, 5678)}
        assert list_files(target) == ["a.raw", "run/b.raw"]
        assert sorted(bed.consumer.announced()) == [
            f"{bed.target}/./u1234/g5678/a.raw",
            f"{bed.target}/./u1234/g5678/run/b.raw",
        ]
        assert not bed.simulator.left()


def test_the_command_line_points_a_detector_elsewhere() -> None:
    with Bed(2) as bed:
        second = bed.stations[1]
        second.simulator.burst(["sub/a.raw", "b.raw"])
        bed.stations[0].simulator.write("first.raw")
        bed.start("-d", "2:/:/srv/elsewhere")
        second.target = Path("/srv/elsewhere")
        bed.finish()
