// Fuzzes the reading of a copy process's report and the account that is kept of it.
#include "fuzz/input.h"
#include "transfer/report.h"

#include <set>
#include <sstream>

using fuzz::require;

namespace {

/// The account in its plainest form.
struct PlainAccount {
    std::set<std::string> sent;
    std::vector<std::string> confirmed;
    std::string output;

    std::string summary() const {
        std::string text;
        for (const std::string& name : sent) {
            text += "Error: Lost " + name + "\n";
        }
        text += "++ RSYNC OUTPUT BEGIN ++++++++++++++++++\n" + output;
        if (!confirmed.empty()) {
            text += "Copied " + std::to_string(confirmed.size()) +
                    " files in the range of: " + confirmed.front() + " ... " + confirmed.back() +
                    "\n";
        }
        return text + "++ RSYNC OUTPUT END ++++++++++++++++++++\n";
    }
};

bool isPartOf(std::string_view part, const std::string& whole) {
    return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

/// Takes one piece into both accounts, and compares what was read in it with what its words say.
void take(const std::string& piece, TransferAccount& account, PlainAccount& plain) {
    const ReportLine line = parseReportLine(piece);
    std::istringstream words(piece);
    std::string first;
    std::string second;
    std::string third;
    words >> first >> second >> third;
    if (!line.name.empty()) {
        require(isPartOf(line.name, piece), "a name is a part of its piece");
        require(!fuzz::hasSpace(line.name), "a name is one word");
    }
    switch (line.kind) {
    case ReportLine::Kind::skipped:
        require(piece.empty(), "only what begins with a NUL byte is skipped");
        break;
    case ReportLine::Kind::confirmed:
        require(first == "CONFIRMED:" && line.name == third,
                "the third word of a confirmation is confirmed");
        account.addConfirmed(line.name);
        if (!third.empty()) {
            plain.confirmed.push_back(third);
            plain.sent.erase(third);
        }
        break;
    case ReportLine::Kind::sent:
        require(first == "SENT:" && line.name == second,
                "the second word of an announcement is sent");
        account.addSent(line.name);
        if (!second.empty()) {
            plain.sent.insert(second);
        }
        break;
    case ReportLine::Kind::output:
        require(first != "CONFIRMED:" && first != "SENT:" && line.name.empty(),
                "all else is output");
        account.addOutput(piece);
        plain.output += piece;
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    TransferAccount account;
    PlainAccount plain;
    for (const std::string& piece : fuzz::readPieces(fuzz::text(data, size))) {
        take(piece, account, plain);
    }
    require(account.summary() == plain.summary(), "the summary is that of the lines");
    return 0;
}
