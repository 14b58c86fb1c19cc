"""What removes a test's leftovers stops at mounts and at links: the project may lie behind one."""

from __future__ import annotations

import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest

from support.folders import empty, remove

OUTER = Path("/srv/outer")
MOUNTED = OUTER / "way/mounted"
KEPT = MOUNTED / "folder/kept"


@pytest.fixture(autouse=True)
def a_mount_among_leftovers() -> Iterator[None]:
    """Files and folders, and another file system at some depth among them."""
    (OUTER / "some/where").mkdir(parents=True)
    (OUTER / "some/where/file").touch()
    MOUNTED.mkdir(parents=True)
    (MOUNTED.parent / "beside").touch()
    subprocess.run(["mount", "-n", "-t", "tmpfs", "tmpfs", MOUNTED], check=True)
    KEPT.parent.mkdir()
    KEPT.touch()
    yield
    subprocess.run(["umount", "-n", MOUNTED], check=True)


def names() -> list[str]:
    """What is left, from the outer folder on."""
    return sorted(str(path.relative_to(OUTER)) for path in OUTER.rglob("*"))


LEFT = ["way", "way/mounted", "way/mounted/folder", "way/mounted/folder/kept"]


def test_emptying_keeps_what_is_mounted_and_the_way_there() -> None:
    assert not empty(OUTER)
    assert names() == LEFT


def test_removing_keeps_what_is_mounted_and_the_way_there() -> None:
    remove(OUTER)
    assert names() == LEFT
    remove(MOUNTED)
    assert names() == LEFT


def test_without_a_mount_nothing_is_left() -> None:
    assert empty(OUTER / "some") and (OUTER / "some").is_dir()
    remove(OUTER / "some")
    assert not (OUTER / "some").exists()
    remove(OUTER / "some")  # once more is no mistake


def test_a_link_is_removed_and_not_what_it_leads_to() -> None:
    link, inner = Path("/srv/link"), Path("/srv/other/link")
    inner.parent.mkdir()
    for each in (link, inner):
        each.symlink_to(KEPT.parent)
    remove(link)
    remove(inner.parent)
    assert not link.is_symlink() and not inner.parent.exists()
    assert KEPT.exists()
