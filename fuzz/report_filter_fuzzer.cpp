// Fuzzes the copy program's filter, which makes the report out of what rsync prints on its two
// outputs.
//
// An input is what rsync prints, with commands in it. A command is a byte 0xFF and a letter, and
// begins a new portion:
//   o, e   what follows comes on the standard output (as at the beginning), on the error output
//   c      what follows is a name of the list that is confirmed from elsewhere
//   g      what follows is a name of the list that is given up
//   l      what follows is one more name of the list
//   m      what follows is a remark of the program's own
//   n      sixteen bytes less than the longest line, to reach its limit
//   f      both outputs have ended
//   1, 2, 3  and another rsync begins: one that copies and removes, that copies, that removes
#include "confirming_rsync/line_assembly.h"
#include "confirming_rsync/report_filter.h"
#include "fuzz/input.h"
#include "shares/printed_name.h"
#include "transfer/report.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <set>
#include <sstream>
#include <utility>

using confirming::LineAssembly;
using confirming::Pass;
using confirming::ReportFilter;
using fuzz::require;

namespace {

struct Event {
    enum class Kind { output, errorOutput, confirm, giveUp, list, remark, finish, begin };
    Kind kind;
    std::string text;
    Pass pass = Pass::copyAndRemove;
};

/// What is in place: all below the destination that begins with another letter.
bool isInPlace(const std::string& name) {
    return name.front() != '/' && name.front() != 'n' &&
           ("/" + name + "/").find("/../") == std::string::npos;
}

bool isShort(const std::string& name) {
    return name.size() <= ReportFilter::longestName;
}

const std::vector<std::string> alwaysListed{"a", "b", "c", "bb", "null", "zero"};

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
        case 'g':
            events.push_back({Event::Kind::giveUp, {}});
            break;
        case 'l':
            events.push_back({Event::Kind::list, {}});
            break;
        case '1':
            events.push_back({Event::Kind::begin, {}, Pass::copyAndRemove});
            break;
        case '2':
            events.push_back({Event::Kind::begin, {}, Pass::copy});
            break;
        case '3':
            events.push_back({Event::Kind::begin, {}, Pass::remove});
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
    // The outputs of an rsync end once, and nothing comes from them afterwards.
    bool finished = false;
    std::vector<Event> sensible;
    for (Event& event : events) {
        const bool isOutput =
            event.kind == Event::Kind::output || event.kind == Event::Kind::errorOutput;
        const bool isName = event.kind == Event::Kind::confirm ||
                            event.kind == Event::Kind::giveUp || event.kind == Event::Kind::list;
        if ((finished && (isOutput || event.kind == Event::Kind::finish)) ||
            (isName && event.text.empty())) {
            continue;
        }
        if (!isOutput && event.kind != Event::Kind::begin) {
            // These are names as rsync prints them, and lines.
            event.text = confirming::printedName(event.text);
        }
        if (event.kind == Event::Kind::remark) {
            event.text.insert(0, "rsync_orbelin: ");
        }
        if (event.kind == Event::Kind::begin) {
            if (!finished) {
                sensible.push_back({Event::Kind::finish, {}});
            }
            // What follows that command is what the new one prints.
            sensible.push_back({Event::Kind::begin, {}, event.pass});
            sensible.push_back({Event::Kind::output, std::move(event.text)});
            finished = false;
            continue;
        }
        finished = finished || event.kind == Event::Kind::finish;
        sensible.push_back(std::move(event));
    }
    if (!finished) {
        sensible.push_back({Event::Kind::finish, {}});
    }
    return sensible;
}

std::string reportOf(const std::vector<Event>& events, bool byteByByte) {
    ReportFilter filter("/", [](const std::string& name) {
        return isInPlace(name) ? std::optional<std::uint64_t>(1) : std::nullopt;
    });
    filter.setListed(alwaysListed);
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
        case Event::Kind::list:
            filter.setListed({event.text});
            break;
        case Event::Kind::begin:
            filter.beginPass(event.pass);
            break;
        case Event::Kind::giveUp:
            filter.setListed({event.text});
            filter.giveUp(event.text);
            break;
        case Event::Kind::confirm:
            filter.setListed({event.text});
            filter.confirm(event.text);
            require(filter.wasConfirmed(event.text) ==
                        (isShort(event.text) && isInPlace(event.text)),
                    "what is confirmed counts as that");
            break;
        case Event::Kind::remark:
            filter.remark(event.text);
            break;
        case Event::Kind::finish:
            filter.finish();
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
        case Event::Kind::list:
            listed.insert(event.text);
            break;
        case Event::Kind::begin:
            pass = event.pass;
            break;
        case Event::Kind::giveUp:
            listed.insert(event.text);
            giveUp(event.text);
            break;
        case Event::Kind::confirm:
            listed.insert(event.text);
            confirm(event.text);
            break;
        case Event::Kind::remark:
            result.report += event.text.substr(0, LineAssembly::limit) + "\n";
            break;
        case Event::Kind::finish:
            for (const Line* each : {&output, &errorOutput}) {
                if (!each->text.empty()) {
                    passOn(each->text, false);
                }
            }
            output = errorOutput = Line();
            for (const std::string& name : std::exchange(held, {})) {
                if (result.confirmed.count(name) == 0 && sent.count(name) == 0) {
                    confirmOrPassOn(name);
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
            passOn(line.text, false);
            line = {{}, true};
        }
        line.text += character;
    }

    void takeLine(const Line& line, bool isOutput) {
        const std::string sentWord = "SENT: ";
        const std::string removedWords = "sender removed ";
        const std::string& text = line.text;
        if (!isOutput && !line.isFurther && pass == Pass::remove &&
            (text.rfind("rsync: [receiver] mkstemp ", 0) == 0 ||
             text.rfind("rsync: mkstemp ", 0) == 0)) {
            return;
        }
        if (!isOutput || line.isFurther) {
            passOn(text, false);
        } else if (text.size() > sentWord.size() && text.rfind(sentWord, 0) == 0) {
            announce(text.substr(sentWord.size()));
        } else if (pass != Pass::copy && text.size() > removedWords.size() &&
                   text.rfind(removedWords, 0) == 0 && text.back() != '/' &&
                   listed.count(text.substr(removedWords.size())) != 0) {
            const std::string name = text.substr(removedWords.size());
            if (isHeld(name)) {
                return;
            }
            if (sent.count(name) == 0 && silent.count(name) == 0 &&
                result.confirmed.count(name) == 0 && pass == Pass::copyAndRemove &&
                isInPlace(name)) {
                held.push_back(name);
            } else {
                confirmOrPassOn(name);
            }
        } else {
            passOn(text, true);
        }
    }

    void announce(const std::string& name) {
        if (name.back() == '/' || result.confirmed.count(name) != 0) {
            return;
        }
        if (pass != Pass::copyAndRemove && listed.count(name) != 0) {
            if (sent.count(name) == 0) {
                silent.insert(name);
            }
            return;
        }
        silent.erase(name);
        result.report += "SENT: " + name + "\n";
        if (listed.count(name) == 0) {
            return;
        }
        sent.insert(name);
        const auto place = std::find(held.begin(), held.end(), name);
        if (place != held.end()) {
            held.erase(place);
            confirmOrPassOn(name);
        }
    }

    void giveUp(const std::string& name) {
        if (silent.erase(name) != 0) {
            sent.insert(name);
            result.report += "SENT: " + name + "\n";
        }
    }

    bool isHeld(const std::string& name) const {
        return std::find(held.begin(), held.end(), name) != held.end();
    }

    /// Any other line. Only one of the standard output may say that a file was sent.
    void passOn(const std::string& line, bool maySaySent) {
        const ReportLine::Kind kind = parseReportLine(line.c_str()).kind;
        std::string word;
        // Up to the first NUL byte, as the daemon reads it.
        std::istringstream(line.substr(0, line.find('\0'))) >> word;
        const bool misleading = kind == ReportLine::Kind::confirmed ||
                                (kind == ReportLine::Kind::sent && !maySaySent) ||
                                word.rfind("++", 0) == 0 || word == "Copied";
        std::string shown;
        for (const char character : line) {
            const auto byte = static_cast<unsigned char>(character);
            char escape[8];
            if (byte >= 0x7f && byte <= 0x9f) {
                std::snprintf(escape, sizeof escape, "\\#%03o", static_cast<unsigned>(byte));
                shown += escape;
            } else {
                shown += character;
            }
        }
        result.report +=
            (misleading ? "rsync: " : "") + shown.substr(0, LineAssembly::limit) + "\n";
    }

    void confirm(const std::string& name) {
        if (isShort(name) && isInPlace(name) && result.confirmed.count(name) == 0) {
            giveUp(name);
            result.confirmed.insert(name);
            result.report += "CONFIRMED: removed " + name + "\n";
        }
    }

    void confirmOrPassOn(const std::string& name) {
        confirm(name);
        if (result.confirmed.count(name) == 0) {
            result.report += "sender removed " + name + "\n";
        }
    }

    Line output;
    Line errorOutput;
    Pass pass = Pass::copyAndRemove;
    std::set<std::string> listed{alwaysListed.begin(), alwaysListed.end()};
    std::set<std::string> sent;
    std::set<std::string> silent; // sent, and not yet to be told
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
