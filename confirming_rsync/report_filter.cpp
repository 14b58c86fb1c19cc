// Turns what stock rsync says into the report: which files were sent, which are confirmed.
#include "confirming_rsync/report_filter.h"

#include "shares/printed_name.h"

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

/// True if rsync complains of this call at the target. Versions before 3.2 don't say which side it
/// was.
bool isOfReceiver(std::string_view line, std::string_view call) {
    for (const std::string_view beginning : {"rsync: [receiver] ", "rsync: "}) {
        if (beginsWith(line, beginning) && beginsWith(line.substr(beginning.size()), call)) {
            return true;
        }
    }
    return false;
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

void ReportFilter::setListed(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        files_.emplace(name, File());
    }
}

void ReportFilter::beginPass(Pass pass) {
    pass_ = pass;
    sawFileList_ = false;
    receiverFailures_ = 0;
}

void ReportFilter::takeOutput(std::string_view bytes) {
    output_.take(bytes, [this](const LinePiece& piece) { handleOutput(piece); });
}

void ReportFilter::takeErrorOutput(std::string_view bytes) {
    errorOutput_.take(bytes, [this](const LinePiece& piece) { handleErrorOutput(piece); });
}

void ReportFilter::finish() {
    output_.finish([this](const LinePiece& piece) { putPiece(piece, Origin::output); });
    errorOutput_.finish([this](const LinePiece& piece) { putPiece(piece, Origin::errorOutput); });
    for (const std::string& name : std::exchange(heldBack_, {})) {
        if (of(name).state == State::heldBack && !confirm(name)) {
            files_[name].state = State::listed; // a SENT line to come does not prove that removal
            putLine(std::string(removedPrefix) + name);
        }
    }
}

bool ReportFilter::confirm(const std::string& name) {
    State& state = files_[name].state;
    if (state != State::confirmed) {
        const auto bytes = name.size() <= longestName ? inPlace_(name) : std::nullopt;
        if (!bytes) {
            return false;
        }
        giveUp(name);
        state = State::confirmed;
        putConfirmation(name, false, *bytes);
    }
    return true;
}

void ReportFilter::giveUp(const std::string& name) {
    State& state = files_[name].state;
    if (state == State::sentInSilence) {
        state = State::sent;
        putLine(std::string(sentPrefix) + name);
    }
}

void ReportFilter::confirmRecovered(const std::string& name) {
    const auto bytes = name.size() <= longestName ? inPlace_(name) : std::nullopt;
    if (bytes) {
        putConfirmation(name, true, *bytes);
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

ReportFilter::File ReportFilter::of(const std::string& name) const {
    const auto found = files_.find(name);
    return found == files_.end() ? File() : found->second;
}

bool ReportFilter::wasSent(const std::string& name) const {
    const State state = of(name).state;
    return state == State::sent || state == State::sentInSilence;
}

bool ReportFilter::wasConfirmed(const std::string& name) const {
    return of(name).state == State::confirmed;
}

void ReportFilter::handleOutput(const LinePiece& piece) {
    const std::string_view line = piece.text;
    if (piece.begins && piece.ends) {
        if (beginsWith(line, sentPrefix) && line.size() > sentPrefix.size()) {
            handleSent(std::string(line.substr(sentPrefix.size())), line);
            return;
        }
        // A pass that only copies removes nothing; but a share can print any line.
        if (pass_ != Pass::copy && beginsWith(line, removedPrefix) && line.back() != '/') {
            handleRemoved(std::string(line.substr(removedPrefix.size())), line);
            return;
        }
        if (beginsWith(line, "receiving file list ... done")) {
            sawFileList_ = true;
        }
    }
    putPiece(piece, Origin::output);
}

void ReportFilter::handleErrorOutput(const LinePiece& piece) {
    if (piece.begins && piece.ends && !rememberComplaint(piece.text)) {
        return;
    }
    putPiece(piece, Origin::errorOutput);
}

void ReportFilter::handleSent(const std::string& name, std::string_view line) {
    if (name.back() == '/') {
        return;
    }
    const auto file = files_.find(name);
    if (file == files_.end()) {
        putLine(line); // nothing can come of it
        return;
    }
    State& state = file->second.state;
    if (state == State::confirmed) {
        // It would make the reader wait for a second confirmation.
        return;
    }
    const bool wasHeldBack = state == State::heldBack;
    if (pass_ == Pass::copyAndRemove) {
        state = State::sent;
        putLine(line);
    } else if (state == State::listed) {
        state = State::sentInSilence;
    }
    if (wasHeldBack && !confirm(name)) {
        putLine(std::string(removedPrefix) + name);
    }
}

/// For symbolic links, devices and hard links this may come before the SENT line; for what was up
/// to date there is none. A line that can't be true goes on as it came.
void ReportFilter::handleRemoved(const std::string& name, std::string_view line) {
    const auto file = files_.find(name);
    if (file == files_.end()) {
        putLine(withoutControls(line, LineAssembly::limit));
    } else if (file->second.state == State::listed && pass_ == Pass::copyAndRemove &&
               inPlace_(name)) {
        file->second.state = State::heldBack;
        heldBack_.push_back(name);
    } else if (file->second.state != State::heldBack && !confirm(name)) {
        putLine(line);
    }
}

/// Keeps what is needed to tell names that rsync could not handle from names that it left alone:
///   rsync: [sender] link_stat "/NAME" (in MODULE) failed: No such file or directory (2)
///   file has vanished: "/NAME" (in MODULE)
///   ERROR: NAME failed verification -- update discarded.
///   rsync: [receiver] mkstemp "PATH" failed: Read-only file system (30)
///   rsync: [receiver] rename "PATH" -> "NAME": No such file or directory (2)
/// False if the complaint is none to be told.
bool ReportFilter::rememberComplaint(std::string_view line) {
    constexpr std::string_view error = "ERROR: ";
    constexpr std::string_view failedVerification = " failed verification -- update ";
    if (beginsWith(line, error)) {
        const std::size_t end = line.rfind(failedVerification);
        if (end != std::string_view::npos && end > error.size()) {
            mark(line.substr(error.size(), end - error.size()), &File::isDiscarded);
        }
    }
    if (isOfReceiver(line, "mkstemp ")) {
        ++receiverFailures_;
        return pass_ != Pass::remove;
    }
    if (isOfReceiver(line, "rename ")) {
        ++receiverFailures_;
    }
    const std::size_t begin = line.find('"');
    const std::size_t end = line.rfind("\" (in ");
    if (end != std::string_view::npos && begin < end &&
        beginsWith(line.substr(begin + 1), directory_)) {
        mark(line.substr(begin + 1, end - begin - 1).substr(directory_.size()),
             &File::isComplainedAbout);
    }
    return true;
}

/// Bounded by the list, however much the share complains about.
void ReportFilter::mark(std::string_view name, bool File::*how) {
    const auto file = files_.find(std::string(name));
    if (file != files_.end()) {
        file->second.*how = true;
    }
}

/// Every confirmation leaves here.
void ReportFilter::putConfirmation(const std::string& name, bool isRecovered, std::uint64_t bytes) {
    confirmed_ = true;
    report_.append("CONFIRMED: ").append(isRecovered ? "recovered " : "removed ");
    putLine(name);
    confirmations_.push_back({name, isRecovered, bytes, taken_ + report_.size()});
}

void ReportFilter::putLine(std::string_view text) {
    report_ += text;
    report_ += '\n';
}

void ReportFilter::putPiece(const LinePiece& piece, Origin origin) {
    const std::string_view word = firstWord(piece.text);
    const bool mayBeSent = origin == Origin::output && piece.begins && piece.ends;
    // The last two begin the lines that tell in the daemon's log where a report ends, and what it
    // came to.
    if (word == "CONFIRMED:" || (word == "SENT:" && !mayBeSent) || beginsWith(word, "++") ||
        word == "Copied") {
        report_ += "rsync: ";
    }
    putLine(withoutControls(piece.text, LineAssembly::limit));
}

} // namespace confirming
