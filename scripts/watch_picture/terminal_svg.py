"""Draws a terminal's screen, as `tmux capture-pane -e -p` prints it, as an SVG picture.

Blocks are drawn as rectangles and every piece of text is given its width, so that the picture is
the same with whatever monospaced font its viewer has.
"""

from __future__ import annotations

import re
import unicodedata
from dataclasses import dataclass, replace
from xml.sax.saxutils import escape

CELL_WIDTH = 8.4
CELL_HEIGHT = 19
FONT_SIZE = 14
MARGIN = 16
TITLE_HEIGHT = 30

BACKGROUND = "#1b1f26"
FRAME = "#2c323d"
FOREGROUND = "#d3d8e1"
BRIGHT = "#ffffff"
DIM = "#8c95a5"
PALETTE = (
    "#3b4252",
    "#ef7d7d",
    "#83cf8b",
    "#e8c873",
    "#7aa8f0",
    "#c79bf2",
    "#6cc7da",
    "#d3d8e1",
)

SEQUENCE = re.compile(r"\x1b\[([0-9;]*)m|\x1b[()][0-9A-B]|[\x0e\x0f]")
EIGHTHS = "▁▂▃▄▅▆▇█"
SHADE = "░"


@dataclass(frozen=True)
class Style:
    """How a piece of text looks. A colour of None is the terminal's own."""

    foreground: int | None = None
    background: int | None = None
    bold: bool = False
    dim: bool = False
    reverse: bool = False

    def changed(self, codes: list[int]) -> Style:
        """The style after one escape sequence with these numbers; unknown ones change nothing."""
        style = self
        for code in codes:
            if code == 0:
                style = Style()
            elif code == 1:
                style = replace(style, bold=True)
            elif code == 2:
                style = replace(style, dim=True)
            elif code == 22:
                style = replace(style, bold=False, dim=False)
            elif code in (7, 27):
                style = replace(style, reverse=code == 7)
            elif 30 <= code <= 37:
                style = replace(style, foreground=code - 30)
            elif code == 39:
                style = replace(style, foreground=None)
            elif 40 <= code <= 47:
                style = replace(style, background=code - 40)
            elif code == 49:
                style = replace(style, background=None)
        return style

    @property
    def colours(self) -> tuple[str, str | None]:
        """Of the text, and of what is behind it if that is not the terminal's own."""
        text = FOREGROUND if self.foreground is None else PALETTE[self.foreground]
        if self.foreground is None and self.bold:
            text = BRIGHT
        if self.dim:
            text = DIM
        behind = None if self.background is None else PALETTE[self.background]
        if self.reverse:
            return behind or BACKGROUND, text
        return text, behind


@dataclass(frozen=True)
class Piece:
    """Text of one style that stands in one line, from a column on."""

    column: int
    text: str
    style: Style


def width_of(text: str) -> int:
    """The columns that a text takes."""
    return sum(2 if unicodedata.east_asian_width(each) in "WF" else 1 for each in text)


def pieces(line: str, style: Style) -> tuple[list[Piece], Style]:
    """The pieces of one captured line that begins in a style, and the style it ends in."""
    found: list[Piece] = []
    column = position = 0

    def add(text: str) -> None:
        nonlocal column
        if text:
            found.append(Piece(column, text, style))
            column += width_of(text)

    for match in SEQUENCE.finditer(line):
        add(line[position : match.start()])
        position = match.end()
        if match.group(1) is not None:
            style = style.changed([int(code or "0") for code in match.group(1).split(";")])
    add(line[position:])
    return found, style


def number(value: float) -> str:
    """A coordinate as it is written: no more digits than are seen."""
    return f"{value:.1f}".rstrip("0").rstrip(".")


def rectangle(
    left: float, top: float, width: float, height: float, fill: str, more: str = ""
) -> str:
    """One rectangle; `more` are further attributes of it."""
    return (
        f'<rect x="{number(left)}" y="{number(top)}" width="{number(width)}" '
        f'height="{number(height)}" fill="{fill}"{more}/>'
    )


def draw_piece(piece: Piece, top: float) -> list[str]:
    """The elements of one piece in the line whose upper edge is at `top`."""
    text_colour, behind = piece.style.colours
    left = MARGIN + piece.column * CELL_WIDTH
    elements = []
    if behind is not None:
        width = width_of(piece.text) * CELL_WIDTH
        elements.append(rectangle(left, top, width, CELL_HEIGHT, behind, ' rx="2"'))
    for part in re.findall(f"[{EIGHTHS}]+|{SHADE}+|[^{EIGHTHS}{SHADE}]+", piece.text):
        width = width_of(part) * CELL_WIDTH
        if part[0] == SHADE:
            elements.append(
                rectangle(left, top + 4, width, CELL_HEIGHT - 7, text_colour, ' opacity="0.22"')
            )
        elif part[0] in EIGHTHS:
            full = CELL_HEIGHT - 7
            if set(part) == {EIGHTHS[-1]}:
                elements.append(rectangle(left, top + 4, width, full, text_colour))
            else:
                for index, each in enumerate(part):
                    height = full * (EIGHTHS.index(each) + 1) / len(EIGHTHS)
                    elements.append(
                        rectangle(
                            left + index * CELL_WIDTH + 0.4,
                            top + 4 + full - height,
                            CELL_WIDTH - 0.8,
                            height,
                            text_colour,
                        )
                    )
        elif part.strip():
            before = len(part) - len(part.lstrip())
            shown = part.strip()
            weight = ' font-weight="bold"' if piece.style.bold else ""
            elements.append(
                f'<text x="{number(left + before * CELL_WIDTH)}" y="{number(top + 14)}" '
                f'textLength="{number(width_of(shown) * CELL_WIDTH)}" '
                f'lengthAdjust="spacingAndGlyphs" fill="{text_colour}"{weight}>'
                f"{escape(shown)}</text>"
            )
        left += width
    return elements


def draw(captured: str, columns: int, title: str) -> str:
    """The picture of a whole screen of so many columns, in a window with a title."""
    lines = captured.split("\n")
    if lines and lines[-1] == "":
        lines.pop()
    width = 2 * MARGIN + columns * CELL_WIDTH
    height = TITLE_HEIGHT + 2 * MARGIN + len(lines) * CELL_HEIGHT
    elements = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{number(width)}" '
        f'height="{number(height)}" viewBox="0 0 {number(width)} {number(height)}" '
        f'font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="{FONT_SIZE}" '
        f'xml:space="preserve">',
        f"<title>{escape(title)}</title>",
        rectangle(0, 0, width, height, BACKGROUND, ' rx="8"'),
        f'<path d="M0 8a8 8 0 0 1 8-8h{number(width - 16)}a8 8 0 0 1 8 8v{TITLE_HEIGHT - 8}'
        f'h-{number(width)}z" fill="{FRAME}"/>',
        *(
            f'<circle cx="{MARGIN + 4 + 18 * place}" cy="{TITLE_HEIGHT // 2}" r="5" '
            f'fill="{PALETTE[colour]}"/>'
            for place, colour in enumerate((1, 3, 2))
        ),
        f'<text x="{number(width / 2)}" y="{TITLE_HEIGHT // 2 + 5}" text-anchor="middle" '
        f'fill="{FOREGROUND}">{escape(title)}</text>',
    ]
    style = Style()
    top: float = TITLE_HEIGHT + MARGIN
    for line in lines:
        found, style = pieces(line, style)
        for piece in found:
            elements += draw_piece(piece, top)
        top += CELL_HEIGHT
    return "\n".join([*elements, "</svg>"]) + "\n"
