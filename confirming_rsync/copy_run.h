// One copy: the files of a list are copied, made durable, removed at the source and reported.
#pragma once

#include "confirming_rsync/arguments.h"
#include "confirming_rsync/file_list.h"
#include "confirming_rsync/journal.h"
#include "confirming_rsync/relay.h"
#include "confirming_rsync/report_filter.h"
#include "confirming_rsync/share_question.h"
#include "confirming_rsync/standstill.h"
#include "shares/destination.h"
#include "shares/share_figures.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace confirming {

/// How long things may take.
struct Limits {
    /// A run without a single confirmation lasts at least this long: a caller that repeats at once
    /// what can't succeed shall not spin.
    std::chrono::milliseconds shortestIdleRun{1000};
    /// How long rsync may move no byte while its report is read: the connection is dead without a
    /// word.
    std::chrono::milliseconds standstill{60000};
    /// The same once so many files could not be created here that rsync may wait for ever for
    /// their completion.
    std::chrono::milliseconds standstillAfterFailures{2000};
    /// What rsync may still say after it was told to end.
    std::chrono::milliseconds farewell{5000};
    /// What may hold rsync's output open after it has ended, or after it was killed.
    std::chrono::milliseconds leftovers{2000};
    /// The whole question to the share; and when the program was told to end.
    std::chrono::milliseconds question{30000};
    std::chrono::milliseconds hurriedQuestion{10000};
    /// How long the names of a run that is over are kept, for a cut of the power that takes from
    /// the consumer what it had not acted on.
    std::chrono::seconds announceAgain{60};
};

/// What was set when the program was built.
struct Places {
    std::string stockRsync;    // absolute path
    std::string journalFolder; // absolute path; empty for no journal
    std::string figuresFolder; // absolute path; empty for no figures
    bool isFlushing = true;    // false only to show what a cut of the power takes then
};

/// Runs once. Writes the report to standard output; needs 0, 1 and 2 to be open.
class CopyRun {
public:
    CopyRun(Places places, Arguments arguments, std::vector<std::string> environment,
            const Limits& limits);

    /// Returns the exit status for the program: that of the last stock rsync that failed, 0 if none
    /// did, 127 if it can't be started, or one of rsync's own for what this program refuses.
    /// Does not return if a signal, or a reader that went away, ends the program.
    int run();

private:
    using Names = std::vector<std::string>;
    using OldFiles = std::map<std::string, std::uint64_t>; // names and inodes

    bool takeList(const FileList& list);
    void beginJournal(const FileList& list);
    void announceLeftNames();
    void recordConfirmations();
    bool intend(const std::string& lines);
    void tellOfJournal();
    void endJournal();

    int copyAll();
    int copyPortion(const Names& names);
    int runRsync(const Names& names, Pass pass, Comparison comparison);
    void conclude(const Names& names, int status);
    bool makeDurable(const Names& names);
    OldFiles oldFiles(const Names& names) const;
    Names namesInPlace(const Names& names, const OldFiles& old);
    Names unconfirmedNames(const Names& names, int status) const;
    bool ask(const Names& names);
    std::optional<Names> namesGoneOf(const Names& names, std::string& failure);
    void finishReport();

    /// Reads the child until it and its output have ended, or all patience has. Telling it to end
    /// and ending it are part of that.
    void attend(Child& child, const Sinks& sinks);
    bool hasComeToAStandstill(Standstill& standstill);

    /// Every wait is one of these.
    void step(Clock::time_point until, Child* child = nullptr, const Sinks& sinks = {});

    /// Reports a line of the program's own.
    void say(const std::string& text);
    void send();
    bool isStopping() const { return relay_.endingSignal() != 0; }

    const Places places_;
    const Arguments arguments_;
    const Share share_; // the source
    const std::vector<std::string> environment_;
    const Limits limits_;
    const Clock::time_point begin_;
    const Destination destination_;
    const bool isDurable_; // files are made durable before they are removed at the source
    const Comparison comparison_;
    const std::optional<std::int64_t> boot_; // by the wall clock; where files are made durable
    Relay relay_;
    ReportFilter filter_;
    CopyFigures figures_;
    Names listed_;               // the names to be copied, as rsync prints them
    bool isReminded_ = false;    // of names that earlier runs have left
    bool isAccountedFor_ = true; // nothing can become of a name that was not confirmed
    Journal journal_;
    bool isJournalTold_ = false;                        // of its failure
    std::deque<ReportFilter::Confirmation> unrecorded_; // not in the journal so far
};

} // namespace confirming
