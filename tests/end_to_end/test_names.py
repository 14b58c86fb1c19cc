"""What is moved and what stays: folders, links, and names of every kind."""

from __future__ import annotations

import os

from support.bed import Bed


def test_files_in_folders_arrive_under_the_same_names() -> None:
    with Bed() as bed:
        names = ["top.raw", "run1/a.raw", "run1/b.raw", "run1/deep/er/c.raw", "run2/a.raw"]
        bed.simulator.burst(names)
        bed.start()
        bed.finish()
        assert sorted(bed.announced()) == sorted(names)


def test_an_empty_file_and_a_large_one_arrive() -> None:
    with Bed() as bed:
        bed.simulator.write("empty.raw", 0)
        bed.simulator.write("large.raw", 20_000_001)
        bed.start()
        bed.finish()


def test_symbolic_links_arrive_as_links() -> None:
    with Bed() as bed:
        bed.simulator.write("run/frame.raw")
        bed.simulator.symbolic_link("latest", "run/frame.raw")
        bed.simulator.symbolic_link("run/back", "../latest")
        bed.simulator.symbolic_link("run/nowhere", "no such file")
        bed.simulator.symbolic_link("folder", "run")
        bed.start()
        bed.finish()
        assert os.readlink(bed.target / "latest") == "run/frame.raw"


def test_both_names_of_a_file_arrive() -> None:
    with Bed() as bed:
        bed.simulator.write("first.raw")
        bed.simulator.hard_link("second.raw", "first.raw")
        bed.start()
        bed.finish()


def test_empty_folders_stay_and_keep_nobody_busy() -> None:
    with Bed() as bed:
        (bed.simulator.root / "empty/deeper").mkdir(parents=True)
        bed.simulator.write("run/only.raw")
        bed.start()
        bed.finish()
        # The folder of the only file has become an empty one.
        assert (bed.simulator.root / "empty/deeper").is_dir()
        assert (bed.simulator.root / "run").is_dir()
        cycles = bed.daemon.log().count(" copy processes\n")
        bed.settle()
        assert bed.daemon.log().count(" copy processes\n") == cycles == 1
        # A later file in it is no worse for that.
        bed.simulator.write("run/later.raw")
        bed.simulator.write("empty/deeper/later.raw")
        bed.finish()


def test_hidden_names_stay_at_the_top_and_move_from_folders() -> None:
    with Bed() as bed:
        bed.simulator.burst([".hidden.raw", ".folder/frame.raw", "run/.inside.raw", "seen.raw"])
        bed.start()
        bed.finish(staying={".hidden.raw", ".folder/frame.raw"})


def test_unfinished_files_are_never_pulled() -> None:
    with Bed() as bed:
        bed.simulator.burst(["a.raw.tmp", "run/b.raw.tmp", ".tmp", "run/c.tmp.raw", "d.raw"])
        bed.start()
        bed.finish(staying={"a.raw.tmp", "run/b.raw.tmp", ".tmp"})
        # Once it has its name, it goes.
        finished = bed.simulator.frames.pop("a.raw.tmp")
        bed.simulator.frames["a.raw"] = finished
        os.rename(bed.simulator.root / "a.raw.tmp", bed.simulator.root / "a.raw")
        bed.finish(staying={"run/b.raw.tmp", ".tmp"})


def test_a_name_with_a_blank_stays_and_harms_no_other() -> None:
    with Bed() as bed:
        staying = {"frame 1.raw", "run 7/x.raw", "run/two words.raw"}
        moving = ["frame", "run/x.raw", "run/two", "frame_1.raw"]
        bed.simulator.burst([*moving, *sorted(staying)])
        bed.start()
        bed.finish(staying)
        # The worker stays at it, and what appears meanwhile moves all the same.
        bed.simulator.burst(["next.raw", "run/next.raw"])
        bed.finish(staying)


def test_names_beyond_ascii_arrive_byte_for_byte() -> None:
    with Bed() as bed:
        odd = [
            "gr\u00f6\u00dfe.raw",
            "\u6e2c\u5b9a/\u7d50\u679c.raw",
            os.fsdecode(b"latin-\xe9\xff.raw"),
            "percent%n%s.raw",
            "back\\slash.raw",
            "quote'and\"quote.raw",
            "#comment.raw",
            ";semicolon.raw",
            "-v",
            "--delete",
            "$HOME;`id`.raw",
            "star*?[x].raw",
            "tilde~",
            "SENT:",
            "CONFIRMED:",
            "\x7f.raw",
            "n" * 247 + ".raw",
        ]
        bed.simulator.burst(odd)
        bed.start()
        bed.finish()


def test_names_that_a_listing_cannot_show_stay_and_harm_no_other() -> None:
    with Bed() as bed:
        # Control characters are shown escaped, and so is what looks like an escape.
        staying = {"tab\t.raw", "line\nfeed.raw", "bell\a.raw", "run/\x1f.raw", "\\#011.raw"}
        bed.simulator.burst([*sorted(staying), "a.raw", "run/b.raw"])
        bed.start()
        bed.finish(staying)
