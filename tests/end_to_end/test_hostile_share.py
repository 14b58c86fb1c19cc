"""Names that a share may have or claim to have, and that must harm no other file."""

from __future__ import annotations

from support.bed import Bed
from support.detector import frame_names


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
