// What the full-screen view shows, as lines of styled text: everything of it but the terminal.
#pragma once

#include "control/observe/snapshot.h"

#include <string>
#include <vector>

namespace control {

/// What a piece of text means. It never says more than the text does: a terminal without colours
/// shows the same.
enum class Style {
    normal,
    dim,
    good,
    warning,
    bad,
    heading,
    graph,
};

struct Segment {
    Style style = Style::normal;
    std::string text;    // in a layout displayable: see displayable()
    bool isName = false; // where there is no room it loses its middle, not its end
};

using Line = std::vector<Segment>;

/// The state of the view.
struct View {
    int width = 80;
    int height = 24;
    bool unicode = true; // blocks and dots of UTF-8; the process's locale must be a UTF-8 one
    bool help = false;   // the explanations instead of the figures
    bool whole = false;  // all there is, whatever the height; no line of keys
    bool paused = false;
    int scroll = 0; // detectors, or lines of the help, above the first one shown
};

struct Layout {
    std::vector<Line> lines; // `height` of them, none wider than `width`
    int maxScroll = 0;       // the greatest `scroll` that shows something new
};

/// Lays the screen out. Whatever the size, the verdict comes first; what there is no room for is
/// left out by what it matters least. A scroll position out of bounds counts as the nearest one.
Layout layOut(const Snapshot& snapshot, const View& view);

/// The same as a plain report, for files, mails and terminals that can do no more.
std::string watchText(const Snapshot& snapshot, bool unicode);

/// The figures of the last seconds as a row of `columns` characters, the newest at the right, the
/// highest one as high as a character. Older ones are left out if there is no room.
std::string sparkline(const std::vector<double>& values, int columns, bool unicode);

/// A bar of `columns` characters filled to `part` (0 to 1). It is empty only at 0, and full only
/// at 1.
std::string bar(double part, int columns, bool unicode);

/// The text of a line without its styles.
std::string plainText(const Line& line);

} // namespace control
