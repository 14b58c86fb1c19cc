"""What a detector's share can and cannot put on this host."""

from __future__ import annotations

import os
import stat
from pathlib import Path

from support.bed import Bed
from support.waiting import wait_until

OUTSIDE = Path("/srv/outside")


def mode_of(path: Path) -> int:
    return stat.S_IMODE(path.lstat().st_mode)


def test_modes_come_from_the_detector_without_the_special_bits() -> None:
    with Bed() as bed:
        for mode in (0o600, 0o666, 0o4755, 0o2755):
            bed.simulator.write(f"mode-{mode:o}.raw")
            (bed.simulator.root / f"mode-{mode:o}.raw").chmod(mode)
        bed.start()
        bed.finish()
        modes = {path.name: mode_of(path) for path in bed.target.iterdir()}
        assert modes == {
            "mode-600.raw": 0o600,
            "mode-666.raw": 0o666,
            "mode-4755.raw": 0o755,
            "mode-2755.raw": 0o755,
        }


def test_device_nodes_arrive_as_such() -> None:
    """Why a target belongs on a file system that is mounted with nodev."""
    with Bed() as bed:
        bed.simulator.root.mkdir(parents=True, exist_ok=True)
        node = bed.simulator.root / "disk"
        os.mknod(node, stat.S_IFBLK | 0o600, os.makedev(7, 250))
        node.chmod(0o666)
        bed.start()
        bed.wait_announced(1)
        status = (bed.target / "disk").lstat()
        assert stat.S_ISBLK(status.st_mode) and stat.S_IMODE(status.st_mode) == 0o666
        assert status.st_rdev == os.makedev(7, 250)


def test_a_link_that_leads_out_is_not_written_through() -> None:
    with Bed() as bed:
        OUTSIDE.mkdir()
        bed.simulator.symbolic_link("way", str(OUTSIDE))
        bed.start()
        bed.wait_announced(1)
        assert os.readlink(bed.target / "way") == str(OUTSIDE)
        wait_until(lambda: not bed.simulator.left(), "the link to leave the source")
        bed.simulator.write("way/in.raw")
        bed.wait_announced(2)
        assert list(OUTSIDE.iterdir()) == []
        assert (bed.target / "way").is_dir() and not (bed.target / "way").is_symlink()
        assert (bed.target / "way/in.raw").is_file()
