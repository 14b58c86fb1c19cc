// Turns what stock rsync says into the report: which files were sent, which are confirmed.
#pragma once

#include "confirming_rsync/arguments.h"
#include "confirming_rsync/line_assembly.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace confirming {

/// Reads the standard output and the error output of stock rsync, of one or of several that run one
/// after the other, that were started with
/// --out-format='SENT: %n', --info=remove1 and --8-bit-output, and writes the report:
///
///   SENT: NAME                as it came; not for directories (NAME ends in a slash)
///   CONFIRMED: removed NAME   in place of "sender removed NAME", once a name, after its SENT line;
///                             only for a NAME of the list
///   any other line            as it came, but for control bytes that a terminal might obey
///
/// A line of rsync's that would read as a confirmation without being one, or as the daemon's own in
/// its log, gets "rsync: " in front.
/// A line of more than LineAssembly::limit bytes is passed on as several lines, none of which sends
/// or confirms anything.
///
/// Passive: it has no clock, and makes no system call but by `InPlace`. Names are kept and reported
/// as rsync prints them.
class ReportFilter {
public:
    /// The size of the file that is in place at the destination under the name; nothing if there is
    /// none. Asked for each removal that is to be believed: a share can
    /// say anything.
    using InPlace = std::function<std::optional<std::uint64_t>(const std::string& name)>;

    /// `directory` is the share's, as its complaints quote it, with a slash at its end.
    ReportFilter(std::string directory, InPlace inPlace)
        : directory_(std::move(directory)), inPlace_(std::move(inPlace)) {}

    /// The names that are to be copied, once each. What rsync reports of others is text from
    /// another machine.
    void setListed(const std::vector<std::string>& names);

    /// Another rsync is going to be read: what the last one said of its file list, and of files
    /// that it could not create, counts no more. If it leaves the source as it is, what it sends is
    /// not yet to be told: that comes with the confirmation, or with giveUp(). And no removal is
    /// believed then: the share can print any line.
    void beginPass(Pass pass);

    /// Of a longer name, the daemon would take the beginning for the whole.
    static constexpr std::size_t longestName = 1000;

    /// The next bytes of rsync's standard output, of its error output. Any bytes, any portions.
    void takeOutput(std::string_view bytes);
    void takeErrorOutput(std::string_view bytes);

    /// Both streams of a pass have ended: passes on what had no line feed (as a line, and never as
    /// a confirmation: it may have been cut off) and every confirmation that was still held back.
    void finish();

    /// The file is known to be deleted at its source from elsewhere than rsync's output. Reported
    /// unless it already was, its name is longer than `longestName`, or it is not in place.
    /// True if it has been reported by now.
    bool confirm(const std::string& name);

    /// Nobody knows what became of the file: it is reported as sent, if it was.
    void giveUp(const std::string& name);

    /// The same as confirm() for a file that an earlier run has received: reported as "CONFIRMED:
    /// recovered NAME".
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
        bool isRecovered = false;
        std::uint64_t bytes = 0; // of the file
        std::uint64_t end = 0;
    };
    std::vector<Confirmation> takeConfirmations() { return std::exchange(confirmations_, {}); }

    bool hasConfirmed() const { return confirmed_; }

    bool wasSent(const std::string& name) const;
    bool wasConfirmed(const std::string& name) const;

    /// True if rsync gave up on the received file: nothing was put in place under this name.
    bool wasDiscarded(const std::string& name) const { return of(name).isDiscarded; }

    /// True if the last rsync said that it has received the list of what there is at the source.
    /// What it complained about until then is not there.
    bool sawFileList() const { return sawFileList_; }

    /// How many files the last rsync could not create or put in place here. In a pass that removes,
    /// these are files that have changed since they were copied; they are not told of.
    std::size_t receiverFailures() const { return receiverFailures_; }

    /// True if rsync complained about this name as one of the share's.
    bool wasComplainedAbout(const std::string& name) const { return of(name).isComplainedAbout; }

private:
    enum class State { listed, sentInSilence, sent, heldBack, confirmed };
    enum class Origin { output, errorOutput };

    /// What was said of a name of the list.
    struct File {
        State state = State::listed;
        bool isComplainedAbout = false;
        bool isDiscarded = false;
    };

    void handleOutput(const LinePiece& piece);
    void handleErrorOutput(const LinePiece& piece);
    void handleSent(const std::string& name, std::string_view line);
    void handleRemoved(const std::string& name, std::string_view line);
    bool rememberComplaint(std::string_view line);
    void mark(std::string_view name, bool File::*how);
    void putConfirmation(const std::string& name, bool isRecovered, std::uint64_t bytes);
    void putLine(std::string_view text);
    void putPiece(const LinePiece& piece, Origin origin);

    File of(const std::string& name) const;

    const std::string directory_; // of the share
    const InPlace inPlace_;
    Pass pass_ = Pass::copyAndRemove;
    LineAssembly output_;
    LineAssembly errorOutput_;
    std::unordered_map<std::string, File> files_; // no others than those listed
    std::vector<std::string> heldBack_; // in order of arrival; some may be confirmed by now
    std::string report_;
    std::uint64_t taken_ = 0; // bytes of the report that were taken
    std::vector<Confirmation> confirmations_;
    std::size_t receiverFailures_ = 0;
    bool confirmed_ = false;
    bool sawFileList_ = false;
};

} // namespace confirming
