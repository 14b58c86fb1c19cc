// Parsing report lines and keeping the account.
#include "transfer/report.h"

#include "utilities/text.h"

#include <vector>

ReportLine parseReportLine(std::string_view piece) {
    if (piece.empty() || piece.front() == '\0') {
        return {ReportLine::Kind::skipped, {}};
    }
    const std::string_view word = UTILITIES::takeWord(piece);
    if (word == "CONFIRMED:") {
        UTILITIES::takeWord(piece); // says how it was confirmed, which does not matter here
        return {ReportLine::Kind::confirmed, UTILITIES::takeWord(piece)};
    }
    if (word == "SENT:") {
        return {ReportLine::Kind::sent, UTILITIES::takeWord(piece)};
    }
    return {ReportLine::Kind::output, {}};
}

void TransferAccount::addSent(std::string_view name) {
    if (!name.empty()) {
        sentNames.insert(name);
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
    sentNames.erase(name);
}

void TransferAccount::addOutput(std::string_view piece) {
    rsyncOutput += piece;
}

std::string TransferAccount::summary() const {
    const std::string_view lost = "Error: Lost ";
    const std::string begin = "++ RSYNC OUTPUT BEGIN ++++++++++++++++++\n";
    std::string end;
    if (copiedCount != 0) {
        end = "Copied " + std::to_string(copiedCount) +
              " files in the range of: " + firstConfirmed + " ... " + lastConfirmed + "\n";
    }
    end += "++ RSYNC OUTPUT END ++++++++++++++++++++\n";

    const std::vector<std::string_view> lostNames = sentNames.sorted();
    // It may be long, and growing step by step takes twice the memory.
    std::size_t size = begin.size() + rsyncOutput.size() + end.size();
    for (const std::string_view name : lostNames) {
        size += lost.size() + name.size() + 1;
    }
    std::string text;
    text.reserve(size);
    for (const std::string_view name : lostNames) {
        text.append(lost).append(name).append("\n");
    }
    text.append(begin).append(rsyncOutput).append(end);
    return text;
}
