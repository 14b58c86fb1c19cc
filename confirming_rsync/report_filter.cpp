// Turns what stock rsync says into the report: which files were sent, which are confirmed.
#include "confirming_rsync/report_filter.h"

#include "confirming_rsync/printed_name.h"

#include <cstddef>
#include <utility>

namespace confirming {

namespace {

constexpr std::string_view sentPrefix = "SENT: ";
constexpr std::string_view removedPrefix = "sender removed ";
constexpr std::string_view blanks = " \t\n\v\f\r";

bool beginsWith(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

/// The line's first word, as a reader sees it that splits at white space and stops at a NUL byte.
std::string_view firstWord(std::string_view line) {
    const std::size_t begin = line.find_first_not_of(blanks);
    if (begin == std::string_view::npos) {
        return {};
    }
    line.remove_prefix(begin);
    line = line.substr(0, line.find('\0'));
    return line.substr(0, line.find_first_of(blanks));
}

} // namespace

ReportFilter::ReportFilter(SentLineMayFollow sentLineMayFollow, MayBeRemoved mayBeRemoved)
    : sentLineMayFollow_(std::move(sentLineMayFollow)), mayBeRemoved_(std::move(mayBeRemoved)) {
}

void ReportFilter::beginRun() {
    sawFileList_ = false;
    receiverFailures_ = 0;
}

void ReportFilter::takeOutput(std::string_view bytes) {
    output_.take(bytes, [this](const LinePiece& piece) { handleOutput(piece); });
}

void ReportFilter::takeErrorOutput(std::string_view bytes) {
    errorOutput_.take(bytes, [this](const LinePiece& piece) { handleErrorOutput(piece); });
}

void ReportFilter::finish(const IsInPlace& isInPlace) {
    output_.finish([this](const LinePiece& piece) { putPiece(piece, Origin::output); });
    errorOutput_.finish([this](const LinePiece& piece) { putPiece(piece, Origin::errorOutput); });
    for (const std::string& name : std::exchange(heldBack_, {})) {
        if (wasConfirmed(name) || isInPlace(name)) {
            confirm(name);
        } else {
            putLine(std::string(removedPrefix) + name);
        }
    }
}

void ReportFilter::confirm(const std::string& name) {
    State& state = files_[name];
    if (state != State::confirmed && name.size() <= longestName) {
        state = State::confirmed;
        putConfirmation("removed", name);
    }
}

void ReportFilter::confirmRecovered(const std::string& name) {
    if (name.size() <= longestName) {
        putConfirmation("recovered", name);
    }
}

void ReportFilter::remark(std::string_view text) {
    // It may quote a name of any length.
    putLine(text.substr(0, LineAssembly::limit));
}

std::string ReportFilter::takeReport() {
    taken_ += report_.size();
    return std::exchange(report_, {});
}

bool ReportFilter::wasSent(const std::string& name) const {
    const auto found = files_.find(name);
    return found != files_.end() && found->second == State::sent;
}

bool ReportFilter::wasConfirmed(const std::string& name) const {
    const auto found = files_.find(name);
    return found != files_.end() && found->second == State::confirmed;
}

void ReportFilter::handleOutput(const LinePiece& piece) {
    const std::string_view line = piece.text;
    if (piece.begins && piece.ends) {
        if (beginsWith(line, sentPrefix) && line.size() > sentPrefix.size()) {
            handleSent(std::string(line.substr(sentPrefix.size())), line);
            return;
        }
        if (beginsWith(line, removedPrefix) && line.back() != '/') {
            const std::string name(line.substr(removedPrefix.size()));
            if (staysBelow(name) && mayBeRemoved_(name)) {
                handleRemoved(name);
                return;
            }
        }
        if (beginsWith(line, "receiving file list ... done")) {
            sawFileList_ = true;
        }
    }
    putPiece(piece, Origin::output);
}

void ReportFilter::handleErrorOutput(const LinePiece& piece) {
    if (piece.begins && piece.ends) {
        rememberComplaint(piece.text);
    }
    putPiece(piece, Origin::errorOutput);
}

void ReportFilter::handleSent(const std::string& name, std::string_view line) {
    if (name.back() == '/') {
        return;
    }
    const auto [file, isNew] = files_.try_emplace(name, State::sent);
    if (file->second == State::confirmed) {
        // It would make the reader wait for a second confirmation.
        return;
    }
    putLine(line);
    if (!isNew && file->second == State::heldBack) {
        file->second = State::confirmed;
        putConfirmation("removed", name);
    }
}

void ReportFilter::handleRemoved(const std::string& name) {
    const auto file = files_.find(name);
    if (file != files_.end() && file->second != State::sent) {
        return;
    }
    if (file == files_.end() && sentLineMayFollow_(name)) {
        files_.emplace(name, State::heldBack);
        heldBack_.push_back(name);
        return;
    }
    confirm(name);
}

/// Keeps what is needed to tell names that rsync could not handle from names that it left alone:
///   rsync: [sender] link_stat "/NAME" (in MODULE) failed: No such file or directory (2)
///   file has vanished: "/NAME" (in MODULE)
///   ERROR: NAME failed verification -- update discarded.
///   rsync: [receiver] mkstemp "PATH" failed: Read-only file system (30)
void ReportFilter::rememberComplaint(std::string_view line) {
    constexpr std::string_view error = "ERROR: ";
    constexpr std::string_view failedVerification = " failed verification -- update ";
    if (beginsWith(line, error)) {
        const std::size_t end = line.rfind(failedVerification);
        if (end != std::string_view::npos && end > error.size()) {
            discarded_.emplace(line.substr(error.size(), end - error.size()));
        }
    }
    // Versions before 3.2 don't say which side complains.
    if (beginsWith(line, "rsync: [receiver] mkstemp ") || beginsWith(line, "rsync: mkstemp ")) {
        ++receiverFailures_;
    }
    const std::size_t begin = line.find('"');
    const std::size_t end = line.rfind("\" (in ");
    if (end != std::string_view::npos && begin < end) {
        complaints_.emplace(line.substr(begin + 1, end - begin - 1));
    }
}

/// Every confirmation leaves here.
void ReportFilter::putConfirmation(const char* how, const std::string& name) {
    confirmed_ = true;
    report_.append("CONFIRMED: ").append(how).append(" ");
    putLine(name);
    confirmations_.push_back({name, taken_ + report_.size()});
}

void ReportFilter::putLine(std::string_view text) {
    report_ += text;
    report_ += '\n';
}

void ReportFilter::putPiece(const LinePiece& piece, Origin origin) {
    const std::string_view word = firstWord(piece.text);
    const bool mayBeSent = origin == Origin::output && piece.begins && piece.ends;
    if (word == "CONFIRMED:" || (word == "SENT:" && !mayBeSent)) {
        report_ += "rsync: ";
    }
    putLine(piece.text);
}

} // namespace confirming
