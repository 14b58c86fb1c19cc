// Turns what stock rsync says into the report: which files were sent, which are confirmed.
#pragma once

#include "confirming_rsync/line_assembly.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace confirming {

/// Reads the standard output and the error output of stock rsync, of one or of several that run one
/// after the other for different names, that were started with
/// --out-format='SENT: %n', --info=remove1 and --8-bit-output, and writes the report:
///
///   SENT: NAME                as it came; not for directories (NAME ends in a slash)
///   CONFIRMED: removed NAME   in place of "sender removed NAME", once a name, after its SENT line;
///                             not for a NAME that leads out of the destination
///   any other line            as it came
///
/// A line of rsync's that would read as a confirmation without being one gets "rsync: " in front.
/// A line of more than LineAssembly::limit bytes is passed on as several lines, none of which sends
/// or confirms anything.
///
/// Entirely passive: no system calls, no clock. Names are kept and reported as rsync prints them.
class ReportFilter {
public:
    /// Says whether the SENT line of a name that was reported as removed may still come. Asked only
    /// for names without a SENT line so far.
    using SentLineMayFollow = std::function<bool(const std::string& name)>;

    /// Says whether a removal that rsync reports can be true: false for a name that was not to be
    /// copied. What rsync reports of it is text from another machine.
    using MayBeRemoved = std::function<bool(const std::string& name)>;

    ReportFilter(SentLineMayFollow sentLineMayFollow, MayBeRemoved mayBeRemoved);

    /// Another rsync is going to be read, whose names are others: what the last one said of its
    /// file list, and of files that it could not create, counts no more.
    void beginRun();

    /// Of a longer name, the daemon would take the beginning for the whole.
    static constexpr std::size_t longestName = 1000;

    /// The next bytes of rsync's standard output, of its error output. Any bytes, any portions.
    void takeOutput(std::string_view bytes);
    void takeErrorOutput(std::string_view bytes);

    /// Both streams have ended: passes on what had no line feed (as a line, and never as a
    /// confirmation: it may have been cut off) and every confirmation that was still held back. Of
    /// a name that is not in place by now, rsync's line goes out as it came.
    using IsInPlace = std::function<bool(const std::string& name)>;
    void finish(const IsInPlace& isInPlace);

    /// The file is known to be deleted at its source from elsewhere than rsync's output. Reported
    /// unless it already was, or its name is longer than `longestName`.
    void confirm(const std::string& name);

    /// The same for a file that an earlier run has received: reported as "CONFIRMED: recovered
    /// NAME".
    void confirmRecovered(const std::string& name);

    /// A line of the program's own, without line feed. What its reader would take for another line
    /// is cut off.
    void remark(std::string_view text);

    /// The report since the last call, in whole lines.
    std::string takeReport();

    /// The names confirmed since the last call, each with the size that the report, from its very
    /// beginning, has at the end of that line.
    struct Confirmation {
        std::string name;
        std::uint64_t end = 0;
    };
    std::vector<Confirmation> takeConfirmations() { return std::exchange(confirmations_, {}); }

    bool hasConfirmed() const { return confirmed_; }

    bool wasSent(const std::string& name) const;
    bool wasConfirmed(const std::string& name) const;

    /// True if rsync gave up on the received file: nothing was put in place under this name.
    bool wasDiscarded(const std::string& name) const { return discarded_.count(name) != 0; }

    /// True if the last rsync said that it has received the list of what there is at the source.
    /// What it complained about until then is not there.
    bool sawFileList() const { return sawFileList_; }

    /// How many files the last rsync could not create here.
    std::size_t receiverFailures() const { return receiverFailures_; }

    /// True if rsync complained about this path of the share. The path is as rsync prints it,
    /// module left out: "/data/NAME".
    bool wasComplainedAbout(const std::string& path) const { return complaints_.count(path) != 0; }

private:
    enum class State { sent, heldBack, confirmed };
    enum class Origin { output, errorOutput };

    void handleOutput(const LinePiece& piece);
    void handleErrorOutput(const LinePiece& piece);
    void handleSent(const std::string& name, std::string_view line);
    void handleRemoved(const std::string& name);
    void rememberComplaint(std::string_view line);
    void putConfirmation(const char* how, const std::string& name);
    void putLine(std::string_view text);
    void putPiece(const LinePiece& piece, Origin origin);

    SentLineMayFollow sentLineMayFollow_;
    MayBeRemoved mayBeRemoved_;
    LineAssembly output_;
    LineAssembly errorOutput_;
    std::unordered_map<std::string, State> files_;
    std::vector<std::string> heldBack_; // in order of arrival; some may be confirmed by now
    std::set<std::string> complaints_;
    std::set<std::string> discarded_;
    std::string report_;
    std::uint64_t taken_ = 0; // bytes of the report that were taken
    std::vector<Confirmation> confirmations_;
    std::size_t receiverFailures_ = 0;
    bool confirmed_ = false;
    bool sawFileList_ = false;
};

} // namespace confirming
