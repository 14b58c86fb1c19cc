// Parsing report lines and keeping the account.
#include "transfer/report.h"

#include <algorithm>

namespace {

/// Takes the first word, delimited by white space, off the front of `text`; empty when there is
/// none.
std::string_view takeWord(std::string_view& text) {
    constexpr std::string_view whiteSpace = " \t\n\v\f\r";
    text.remove_prefix(std::min(text.find_first_not_of(whiteSpace), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(whiteSpace));
    text.remove_prefix(word.size());
    return word;
}

} // namespace

ReportLine parseReportLine(std::string_view piece) {
    if (piece.empty() || piece.front() == '\0') {
        return {ReportLine::Kind::skipped, {}};
    }
    const std::string_view word = takeWord(piece);
    if (word == "CONFIRMED:") {
        takeWord(piece); // says how it was confirmed, which does not matter here
        return {ReportLine::Kind::confirmed, takeWord(piece)};
    }
    if (word == "SENT:") {
        return {ReportLine::Kind::sent, takeWord(piece)};
    }
    return {ReportLine::Kind::output, {}};
}

void TransferAccount::addSent(std::string_view name) {
    if (!name.empty()) {
        sentNames.emplace(name);
    }
}

void TransferAccount::addConfirmed(std::string_view name) {
    if (name.empty()) {
        return;
    }
    if (copiedCount == 0) {
        firstConfirmed = name;
    }
    lastConfirmed = name;
    ++copiedCount;
    const auto sent = sentNames.find(name);
    if (sent != sentNames.end()) {
        sentNames.erase(sent);
    }
}

void TransferAccount::addOutput(std::string_view piece) {
    rsyncOutput += piece;
}

std::string TransferAccount::summary() const {
    std::string text;
    for (const std::string& name : sentNames) {
        text += "Error: Lost " + name + "\n";
    }
    text += "++ RSYNC OUTPUT BEGIN ++++++++++++++++++\n";
    text += rsyncOutput;
    if (copiedCount != 0) {
        text += "Copied " + std::to_string(copiedCount) +
                " files in the range of: " + firstConfirmed + " ... " + lastConfirmed + "\n";
    }
    text += "++ RSYNC OUTPUT END ++++++++++++++++++++\n";
    return text;
}
