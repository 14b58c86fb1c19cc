"""The picture of a terminal: its colours, its blocks and its text."""

from __future__ import annotations

import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts" / "watch_picture"))

from terminal_svg import (  # noqa: E402
    CELL_WIDTH,
    DIM,
    FOREGROUND,
    MARGIN,
    PALETTE,
    Style,
    draw,
    pieces,
)

SVG = "{http://www.w3.org/2000/svg}"


def texts(captured: str) -> dict[str, ElementTree.Element]:
    """The texts of the picture by what they say."""
    root = ElementTree.fromstring(draw(captured, 80, "a title"))
    return {str(each.text): each for each in root.iter(f"{SVG}text")}


def test_styles_are_carried_through_a_line_and_into_the_next() -> None:
    found, style = pieces("a\x1b[1;31mb c\x1b[0md\x1b[2;7m", Style())
    assert [(each.column, each.text) for each in found] == [(0, "a"), (1, "b c"), (4, "d")]
    assert found[1].style == Style(foreground=1, bold=True)
    assert found[2].style == Style()
    assert style == Style(dim=True, reverse=True)


def test_text_stands_in_its_column_in_its_colour() -> None:
    found = texts("x  \x1b[32mgreen & <good>\x1b[39m \x1b[2mdim\n")
    green = found["green & <good>"]
    assert float(green.attrib["x"]) == round(MARGIN + 3 * CELL_WIDTH, 1)
    assert float(green.attrib["textLength"]) == round(14 * CELL_WIDTH, 1)
    assert green.attrib["fill"] == PALETTE[2]
    assert found["x"].attrib["fill"] == FOREGROUND
    assert found["dim"].attrib["fill"] == DIM


def test_blocks_are_as_high_as_they_are() -> None:
    picture = ElementTree.fromstring(draw("\x1b[36m▁█░\n", 10, ""))
    blocks = [each for each in picture.iter(f"{SVG}rect") if each.attrib["fill"] == PALETTE[6]]
    assert [each.attrib["height"] for each in blocks] == ["1.5", "12", "12"]


def test_reversed_text_has_its_colour_behind_it() -> None:
    picture = draw("\x1b[31;7mbad\x1b[0m\n", 10, "")
    assert f'fill="{PALETTE[1]}" rx="2"' in picture
    assert ">bad</text>" in picture
