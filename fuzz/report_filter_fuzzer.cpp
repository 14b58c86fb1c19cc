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

#include <map>
#include <set>

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
            // Once only, for such a line takes its time.
            if (++longLines == 1) {
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

std::string reportOf(const std::vector<Event>& events, bool inSmallPortions) {
    ReportFilter filter(sentLineMayFollow);
    std::string report;
    for (const Event& event : events) {
        // Single bytes, unless that takes too long.
        const std::size_t small = event.text.size() < LineAssembly::limit / 2 ? 1 : 509;
        const std::size_t portion = inSmallPortions ? small : event.text.size();
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
            require(filter.wasConfirmed(event.text) && filter.hasConfirmed(),
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

/// The lines of one output that are no longer than the limit and ended by a line feed, and what
/// must come of them.
struct Expected {
    std::string report;                    // the whole of it, if no line was over-long
    std::set<std::string> mayBeConfirmed;  // names
    std::set<std::string> mustBeConfirmed; // names
    std::string cutOff;                    // what the standard output ended with, without line feed
    bool overlong = false;
};

/// What the report must be, told line by line.
class PlainFilter {
public:
    void take(const Event& event) {
        switch (event.kind) {
        case Event::Kind::output:
        case Event::Kind::errorOutput:
            takeBytes(event.text, event.kind == Event::Kind::output);
            break;
        case Event::Kind::confirm:
            result.mayBeConfirmed.insert(event.text);
            result.mustBeConfirmed.insert(event.text);
            confirm(event.text);
            break;
        case Event::Kind::remark:
            result.report += event.text + "\n";
            break;
        case Event::Kind::finish:
            result.cutOff = output;
            if (!output.empty()) {
                pass(output, true);
            }
            if (!errorOutput.empty()) {
                pass(errorOutput, false);
            }
            for (const std::string& name : held) {
                confirm(name);
            }
            break;
        }
    }

    Expected result;

private:
    void takeBytes(std::string_view bytes, bool isOutput) {
        std::string& line = isOutput ? output : errorOutput;
        while (!bytes.empty()) {
            const std::size_t end = bytes.find('\n');
            line += bytes.substr(0, end);
            const bool isOverlong = line.size() > LineAssembly::limit;
            result.overlong = result.overlong || isOverlong;
            if (end == std::string_view::npos) {
                return;
            }
            if (!isOverlong) {
                takeLine(line, isOutput);
            }
            line.clear();
            bytes.remove_prefix(end + 1);
        }
    }

    void takeLine(const std::string& line, bool isOutput) {
        const std::string sentWord = "SENT: ";
        const std::string removedWords = "sender removed ";
        if (isOutput && line.size() > sentWord.size() && line.rfind(sentWord, 0) == 0) {
            const std::string name = line.substr(sentWord.size());
            if (name.back() == '/' || confirmed.count(name) != 0) {
                return;
            }
            sent.insert(name);
            result.report += line + "\n";
            for (const std::string& each : held) {
                if (each == name) {
                    confirm(name);
                }
            }
        } else if (isOutput && line.size() > removedWords.size() &&
                   line.rfind(removedWords, 0) == 0 && line.back() != '/') {
            const std::string name = line.substr(removedWords.size());
            result.mayBeConfirmed.insert(name);
            result.mustBeConfirmed.insert(name);
            if (sent.count(name) == 0 && sentLineMayFollow(name)) {
                held.push_back(name);
            } else {
                confirm(name);
            }
        } else {
            pass(line, isOutput);
        }
    }

    void pass(const std::string& line, bool isOutput) {
        const ReportLine::Kind kind = parseReportLine(line.c_str()).kind;
        const bool misleading =
            kind == ReportLine::Kind::confirmed || (kind == ReportLine::Kind::sent && !isOutput);
        result.report += (misleading ? "rsync: " : "") + line + "\n";
    }

    void confirm(const std::string& name) {
        if (confirmed.insert(name).second) {
            result.report += "CONFIRMED: removed " + name + "\n";
        }
    }

    std::string output;
    std::string errorOutput;
    std::set<std::string> sent;
    std::set<std::string> confirmed;
    std::vector<std::string> held;
};

/// Looks at the report as its reader does, line by line.
void checkConfirmations(const std::string& report, const Expected& expected) {
    const std::string beginning = "CONFIRMED: removed ";
    std::set<std::string> confirmed;
    for (const std::string& line : fuzz::split(report, '\n')) {
        if (parseReportLine(line.c_str()).kind == ReportLine::Kind::confirmed) {
            require(line.rfind(beginning, 0) == 0, "a confirmation has one form");
            const std::string name = line.substr(beginning.size());
            require(expected.mayBeConfirmed.count(name) != 0, "only what was removed is confirmed");
            require(confirmed.insert(name).second, "a name is confirmed once");
        } else if (line.rfind("SENT: ", 0) == 0 && line != expected.cutOff) {
            require(confirmed.count(line.substr(6)) == 0,
                    "no name is announced after its confirmation");
        }
    }
    for (const std::string& name : expected.mustBeConfirmed) {
        require(confirmed.count(name) != 0, "no confirmation is lost");
    }
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
    if (!plain.result.overlong) {
        require(report == plain.result.report, "each line comes out as it should");
    }
    return 0;
}
