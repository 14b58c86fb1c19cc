"""Names that a share may have or claim to have, and that must harm no other file."""

from __future__ import annotations

import os
from pathlib import Path

from support import daemon as skarn
from support.bed import Bed
from support.detector import frame_names
from support.waiting import wait_until

MARK = Path("/srv/mark")  # made by any command that a name smuggles in


def test_a_name_that_begins_with_a_blank_does_not_move_what_is_unfinished() -> None:
    with Bed() as bed:
        staying = {"d/ x", "d/.. y/f", "d/. z/g", "d/frame.raw.tmp", ".hidden", "top.raw.tmp"}
        bed.simulator.burst([*sorted(staying), "d/ok.raw", "ok.raw"])
        bed.start()
        bed.finish(staying)


def test_a_folder_that_leads_up_does_not_stop_the_others() -> None:
    with Bed() as bed:
        staying = {".. y/f.raw", "d/.. y/f.raw"}
        bed.simulator.burst([*sorted(staying), *frame_names(150)])
        bed.start()
        bed.finish(staying)


def test_names_that_a_shell_or_an_option_parser_would_obey_are_files() -> None:
    with Bed() as bed:
        bed.simulator.burst(
            [
                "$(touch${IFS}$HOME..mark)",
                "`touch${IFS}mark`",
                ";touch${IFS}mark;",
                "|touch${IFS}mark",
                "x>mark",
                "';touch${IFS}mark;'",
                '";touch${IFS}mark;"',
                "sub/$(touch${IFS}mark)/`id`",
                "-e",
                "--rsh=touch",
                "--rsync-path=touch",
                "--files-from=x",
                "--remove-source-files",
                "--",
                "@x",
                "*",
                "sub/--delete",
                "[a-z]?",
                "host::module",
                "host:file",
            ]
        )
        bed.start()
        bed.finish()


def test_paths_longer_than_the_daemon_reads_stay_and_harm_no_other() -> None:
    with Bed() as bed:
        # The last name is cut within a folder's name, the one before right behind it.
        deep = ["/".join(["d" * 99] * 9 + ["e" * length, "f.raw"]) for length in (76, 77, 150)]
        staying = {name for name in deep if len(name) > 1023 - 46}
        assert staying
        bed.simulator.burst([*deep, "d" * 99 + "/near.raw", "ok.raw"])
        bed.start()
        bed.finish(staying)


# Lists what a detector claims to have; all else is done by the real copy program.
LIAR = """#!/bin/sh
case " $* " in
*" --confirm-files "*) exec /usr/local/orbelin/bin/honest "$@" ;;
esac
cat /usr/local/orbelin/lies
"""


def everything_below(*places: str) -> dict[str, float]:
    """All paths below these places that no test is expected to change, and when they changed."""
    found: dict[str, float] = {}
    for place in places:
        for folder, _, names in os.walk(place):
            for name in names:
                path = os.path.join(folder, name)
                found[path] = os.lstat(path).st_mtime
    return found


def install_liar() -> Path:
    """Puts the liar in the copy program's place; returns the file for what it lists."""
    honest = skarn.COPY_PROGRAM.with_name("honest")
    skarn.COPY_PROGRAM.rename(honest)
    skarn.COPY_PROGRAM.write_text(LIAR, encoding="ascii")
    skarn.COPY_PROGRAM.chmod(0o755)
    return Path("/usr/local/orbelin/lies")


def test_a_detector_whose_folder_is_a_link_has_nothing_behind_it_announced() -> None:
    secret = Path("/srv/secret")
    secret.mkdir()
    (secret / "key").write_text("of another", encoding="ascii")
    with Bed() as bed:
        lies = install_liar()
        entry = "-rw-r--r-- 9 2024/05/06 07:08:09 {}\n"
        lies.write_text(entry.format("d/key") + entry.format("good.raw"), encoding="ascii")
        bed.simulator.burst(["good.raw"])
        # As the share has sent it.
        bed.target.mkdir(parents=True)
        (bed.target / "d").symlink_to(secret)
        bed.start()
        bed.wait_announced(1)
        before = bed.daemon.log().count(" copy processes\n")
        wait_until(
            lambda: bed.daemon.log().count(" copy processes\n") >= before + 3, "further cycles"
        )
        bed.daemon.end()
        assert bed.announced() == ["good.raw"]
        assert (secret / "key").read_text(encoding="ascii") == "of another"


def test_a_detector_that_lies_in_its_listing_gets_nothing_out_of_the_target() -> None:
    claimed = [
        "../outside.raw",
        "a/../../outside.raw",
        "x/../../../../../../etc/passwd",
        "/etc/passwd",
        "..",
        "a/..",
        "a/",
        "/",
        "-e",
        "--rsh=touch${IFS}/srv/mark",
        "$(touch${IFS}/srv/mark)",
        "`touch${IFS}/srv/mark`",
        "never-there.raw",
        "line\\#012feed",
        "n" * 1500,
        "\udce9\udcff",
        "good.raw",
        "a/good.raw",
    ]
    with Bed() as bed:
        lies = install_liar()
        lines = [b"-rw-r--r-- 9 2024/05/06 07:08:09 " + os.fsencode(name) for name in claimed]
        lies.write_bytes(b"\n".join(lines) + b"\nno end \0\xff")
        staying = {"a/unfinished.raw.tmp", "unfinished.raw.tmp", "unclaimed.raw"}
        bed.simulator.burst([*sorted(staying), "good.raw", "a/good.raw", "etc/passwd"])
        outside = bed.simulator.root.parent / "outside.raw"
        outside.write_text("not in the share", encoding="ascii")
        before = everything_below("/etc", "/usr/local", "/srv/shares/1/a")
        bed.start()
        bed.wait_announced(3)
        wait_until(lambda: bed.daemon.log().count(" copy processes\n") >= 2, "a further cycle")
        bed.daemon.end()
        bed.check(staying)
        # "/etc/passwd" is the share's own file of that name: nothing leads out of the share.
        assert sorted(bed.announced()) == ["a/good.raw", "etc/passwd", "good.raw"]
        assert outside.read_text(encoding="ascii") == "not in the share"
        assert not MARK.exists()
        after = everything_below("/etc", "/usr/local", "/srv/shares/1/a")
        del before["/srv/shares/1/a/good.raw"]
        assert after == before
