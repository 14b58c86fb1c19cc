// One copy: stock rsync is run, its report goes out, and what it left open is asked of the share.
#pragma once

#include "confirming_rsync/arguments.h"
#include "confirming_rsync/destination.h"
#include "confirming_rsync/earlier_runs.h"
#include "confirming_rsync/file_list.h"
#include "confirming_rsync/journal.h"
#include "confirming_rsync/relay.h"
#include "confirming_rsync/report_filter.h"
#include "confirming_rsync/report_writer.h"
#include "confirming_rsync/share_question.h"
#include "confirming_rsync/signals.h"
#include "confirming_rsync/standstill.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
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
    /// After a broken run the share's side may still be busy with what it was told last.
    std::chrono::milliseconds settling{500};
    /// The whole question to the share, put again if need be after such a pause; and when the
    /// program was told to end.
    std::chrono::milliseconds question{30000};
    std::chrono::milliseconds betweenQuestions{1000};
    std::chrono::milliseconds hurriedQuestion{10000};
};

/// What was set when the program was built.
struct Places {
    std::string stockRsync;    // absolute path
    std::string journalFolder; // absolute path; empty for no journal
};

/// Runs once. Writes the report to standard output; needs 0, 1 and 2 to be open.
class CopyRun {
public:
    CopyRun(Places places, Arguments arguments, std::vector<std::string> environment,
            const Limits& limits);

    /// Returns the exit status for the program: that of the last stock rsync that failed, 0 if none
    /// did, or 127 if it can't be started.
    /// Does not return if a signal, or a reader that went away, ends the program.
    int run();

private:
    using Names = std::vector<std::string>;

    void beginJournal(const FileList& list);
    void recordConfirmations();
    bool writeJournal(std::string_view lines);
    void accountForEarlierRuns();
    bool decideAboutEarlierRuns(EarlierRuns& earlier);
    void endJournal(const std::optional<Names>& open);

    bool takeList(const FileList& list);
    struct Outcome {
        int status = 0;            // that of the last rsync that failed; 0 if none did
        std::optional<Names> open; // what `conclude` returned for all of them
    };
    Outcome copyAll();
    int copy(const Names& names, bool onInput);
    std::optional<Names> conclude(const Names& names, int status);
    void finishReport();

    Names unconfirmedNames(const Names& names, int status) const;
    Names receivedAndUnconfirmed(const Names& names) const;
    bool ask(const Names& names);
    struct Answer {
        std::set<std::string> gone; // those of the names that the source does not have
        std::string failure;        // why there is no answer; empty if there is one
    };
    Answer askWhichAreGone(const Names& names, int attempts);
    Answer readAnswer(const Names& names, Clock::time_point end);
    void pause(std::chrono::milliseconds duration);

    /// Reads the child until it and its output have ended, or all patience has. Telling it to end
    /// and ending it are part of that.
    void attend(Child& child, const Sinks& sinks);
    bool hasComeToAStandstill(Standstill& standstill);
    bool isListed(std::string_view name) const;

    /// Every wait is one of these.
    void step(Clock::time_point until);
    void step(Child& child, const Sinks& sinks, Clock::time_point until);

    void send();
    bool isStopping() const { return relay_.stopSignal() != 0 || relay_.readerIsGone(); }

    const Places places_;
    const Arguments arguments_;
    const std::optional<Share> share_; // the source; nothing if it is none of an rsync daemon
    const std::vector<std::string> environment_;
    const Limits limits_;
    const Clock::time_point begin_;
    const Destination destination_;
    Signals signals_;
    ReportWriter writer_;
    Relay relay_;
    ReportFilter filter_;
    Names listed_;                                   // the names to be copied, as rsync prints them
    std::unordered_set<std::string_view> listedSet_; // the same; empty if the list is not known
    bool hasOthers_ = false; // the list has entries that rsync shall not see
    std::optional<ProcessIdentity> daemon_;
    Journal journal_;
    std::uint64_t begun_ = 0; // when the journal was
    bool inheritsOpenNames_ = false;
    std::deque<ReportFilter::Confirmation> unrecorded_; // not in the journal so far
};

} // namespace confirming
