// Fuzzes the copy program's filter, which makes the report out of what rsync prints on its two
// outputs.
//
// An input is what rsync prints, with commands in it. A command is a byte 0xFF and a letter, and
// begins a new portion:
//   o, e   what follows comes on the standard output (as at the beginning), on the error output
//   c      what follows is a name that is confirmed from elsewhere
//   m      what follows is a remark of the program's own
//   n      sixteen bytes less than the longest line, to reach its limit
//   f      both outputs have ended
#include "confirming_rsync/line_assembly.h"
#include "confirming_rsync/printed_name.h"
#include "confirming_rsync/report_filter.h"
#include "fuzz/input.h"
#include "transfer/report.h"

#include <algorithm>
#include <set>
#include <utility>

using confirming::LineAssembly;
using confirming::ReportFilter;
using fuzz::require;

namespace {

struct Event {
    enum class Kind { output, errorOutput, confirm, remark, finish };
    Kind kind;
    std::string text;
};

std::vector<Event> eventsOf(const std::string& input) {
    std::vector<Event> events{{Event::Kind::output, {}}};
    int longLines = 0;
    for (std::size_t at = 0; at < input.size(); ++at) {
        if (input[at] != '\xff' || at + 1 == input.size()) {
            events.back().text += input[at];
            continue;
        }
        switch (input[++at]) {
        case 'o':
            events.push_back({Event::Kind::output, {}});
            break;
        case 'e':
            events.push_back({Event::Kind::errorOutput, {}});
            break;
        case 'c':
            events.push_back({Event::Kind::confirm, {}});
            break;
        case 'm':
            events.push_back({Event::Kind::remark, {}});
            break;
        case 'n':
            if (++longLines <= 3) {
                events.back().text += std::string(LineAssembly::limit - 16, 'n');
            }
            break;
        case 'f':
            events.push_back({Event::Kind::finish, {}});
            break;
        default:
            events.back().text += input[at];
        }
    }
    // Outputs end once, and nothing comes from them afterwards.
    bool finished = false;
    std::vector<Event> sensible;
    for (Event& event : events) {
        const bool isOutput =
            event.kind == Event::Kind::output || event.kind == Event::Kind::errorOutput;
        const bool isName = event.kind == Event::Kind::confirm;
        if ((finished && (isOutput || event.kind == Event::Kind::finish)) ||
            (isName && event.text.empty())) {
            continue;
        }
        if (!isOutput) {
            // These are names as rsync prints them, and lines.
            event.text = confirming::printedName(event.text);
        }
        if (event.kind == Event::Kind::remark) {
            event.text.insert(0, "rsync_orbelin: ");
        }
        finished = finished || event.kind == Event::Kind::finish;
        sensible.push_back(std::move(event));
    }
    if (!finished) {
        sensible.push_back({Event::Kind::finish, {}});
    }
    return sensible;
}

/// Any answer will do as long as it is always the same for a name.
bool sentLineMayFollow(const std::string& name) {
    return name.size() % 2 == 1;
}

/// Likewise.
bool mayBeRemoved(const std::string& name) {
    return name.front() != 'x';
}

/// Likewise.
bool isInPlace(const std::string& name) {
    return name.size() % 3 != 0;
}

bool isShort(const std::string& name) {
    return name.size() <= ReportFilter::longestName;
}

std::string reportOf(const std::vector<Event>& events, bool byteByByte) {
    ReportFilter filter(sentLineMayFollow, mayBeRemoved);
    std::string report;
    for (const Event& event : events) {
        const std::size_t portion = byteByByte ? 1 : event.text.size();
        switch (event.kind) {
        case Event::Kind::output:
            for (std::size_t at = 0; at < event.text.size(); at += portion) {
                filter.takeOutput(std::string_view(event.text).substr(at, portion));
            }
            break;
        case Event::Kind::errorOutput:
            for (std::size_t at = 0; at < event.text.size(); at += portion) {
                filter.takeErrorOutput(std::string_view(event.text).substr(at, portion));
            }
            break;
        case Event::Kind::confirm:
            filter.confirm(event.text);
            require(filter.wasConfirmed(event.text) == isShort(event.text),
                    "what is confirmed counts as that");
            break;
        case Event::Kind::remark:
            filter.remark(event.text);
            break;
        case Event::Kind::finish:
            filter.finish(isInPlace);
            break;
        }
        report += filter.takeReport();
    }
    require(filter.takeReport().empty(), "a report is taken once");
    return report;
}

/// What must come of the events.
struct Expected {
    std::string report;
    std::set<std::string> confirmed; // names
};

/// The report, told line by line.
class PlainFilter {
public:
    void take(const Event& event) {
        switch (event.kind) {
        case Event::Kind::output:
        case Event::Kind::errorOutput:
            for (const char character : event.text) {
                takeByte(character, event.kind == Event::Kind::output);
            }
            break;
        case Event::Kind::confirm:
            confirm(event.text);
            break;
        case Event::Kind::remark:
            result.report += event.text.substr(0, LineAssembly::limit) + "\n";
            break;
        case Event::Kind::finish:
            for (const Line* each : {&output, &errorOutput}) {
                if (!each->text.empty()) {
                    pass(each->text, false);
                }
            }
            for (const std::string& name : std::exchange(held, {})) {
                if (result.confirmed.count(name) == 0 && !isInPlace(name)) {
                    result.report += "sender removed " + name + "\n";
                } else {
                    confirm(name);
                }
            }
            break;
        }
    }

    Expected result;

private:
    struct Line {
        std::string text;       // what has come of it
        bool isFurther = false; // it is the rest of a line that was too long
    };

    void takeByte(char character, bool isOutput) {
        Line& line = isOutput ? output : errorOutput;
        if (character == '\n') {
            takeLine(line, isOutput);
            line = Line();
            return;
        }
        if (line.text.size() == LineAssembly::limit) {
            pass(line.text, false);
            line = {{}, true};
        }
        line.text += character;
    }

    void takeLine(const Line& line, bool isOutput) {
        const std::string sentWord = "SENT: ";
        const std::string removedWords = "sender removed ";
        const std::string& text = line.text;
        if (!isOutput || line.isFurther) {
            pass(text, false);
        } else if (text.size() > sentWord.size() && text.rfind(sentWord, 0) == 0) {
            announce(text.substr(sentWord.size()));
        } else if (text.size() > removedWords.size() && text.rfind(removedWords, 0) == 0 &&
                   isCredible(text.substr(removedWords.size()))) {
            const std::string name = text.substr(removedWords.size());
            if (std::find(held.begin(), held.end(), name) != held.end()) {
                return;
            }
            if (sent.count(name) == 0 && sentLineMayFollow(name)) {
                held.push_back(name);
            } else {
                confirm(name);
            }
        } else {
            pass(text, true);
        }
    }

    void announce(const std::string& name) {
        if (name.back() == '/' || result.confirmed.count(name) != 0) {
            return;
        }
        sent.insert(name);
        result.report += "SENT: " + name + "\n";
        if (std::find(held.begin(), held.end(), name) != held.end()) {
            confirm(name);
        }
    }

    static bool isCredible(const std::string& name) {
        return name.front() != '/' && name.back() != '/' &&
               ("/" + name + "/").find("/../") == std::string::npos && mayBeRemoved(name);
    }

    /// Any other line. Only one of the standard output may say that a file was sent.
    void pass(const std::string& line, bool maySaySent) {
        const ReportLine::Kind kind = parseReportLine(line.c_str()).kind;
        const bool misleading =
            kind == ReportLine::Kind::confirmed || (kind == ReportLine::Kind::sent && !maySaySent);
        result.report += (misleading ? "rsync: " : "") + line + "\n";
    }

    void confirm(const std::string& name) {
        if (isShort(name) && result.confirmed.insert(name).second) {
            result.report += "CONFIRMED: removed " + name + "\n";
        }
    }

    Line output;
    Line errorOutput;
    std::set<std::string> sent;
    std::vector<std::string> held;
};

/// Looks at the report as the daemon does: in pieces that fit its buffer.
void checkConfirmations(const std::string& report, const Expected& expected) {
    const std::string beginning = "CONFIRMED: removed ";
    // Behind a NUL byte, which rsync never prints, two names may differ that look the same here.
    const bool distinct = report.find('\0') == std::string::npos;
    std::set<std::string> confirmed;
    for (const std::string& piece : fuzz::readPieces(report)) {
        const std::string line = piece.substr(0, piece.find('\n'));
        if (parseReportLine(piece).kind == ReportLine::Kind::confirmed) {
            require(line.rfind(beginning, 0) == 0, "a confirmation has one form");
            const bool isNew = confirmed.insert(line.substr(beginning.size())).second;
            require(isNew || !distinct, "a name is confirmed once");
        } else if (line.rfind("SENT: ", 0) == 0) {
            require(confirmed.count(line.substr(6)) == 0 || !distinct,
                    "no name is announced after its confirmation");
        }
    }
    std::set<std::string> readable;
    for (const std::string& name : expected.confirmed) {
        // What a NUL byte hides from its reader.
        readable.insert(name.substr(0, name.find('\0')));
    }
    require(confirmed == readable, "what was removed is confirmed, and nothing else");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<Event> events = eventsOf(fuzz::text(data, size));
    const std::string report = reportOf(events, false);
    require(report == reportOf(events, true), "the portions in which bytes come do not matter");
    require(report.empty() || report.back() == '\n', "the report is made of whole lines");

    PlainFilter plain;
    for (const Event& event : events) {
        plain.take(event);
    }
    checkConfirmations(report, plain.result);
    require(report == plain.result.report, "each line comes out as it should");
    return 0;
}
