// What the daemon's log says happened since its last start, of all detectors together.
#pragma once

#include "control/observe/log_follower.h"
#include "control/observe/snapshot.h"

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace control {

struct LogAccount {
    Counts counts;
    std::string lastFile;
    std::string lastComplaint; // of the last block that had one, what tells most of the cause
    std::string started;       // the date in the last banner; empty when none was seen
    std::uint64_t starts = 0;  // banners seen: a change means that all counts began anew
    bool hasGap = false;       // lines were missed since the last banner

    /// The names of files reported lost that have not come since, and of those that could not be
    /// announced; some thousand of them at most.
    std::set<std::string> lost;
    std::set<std::string> unannounced;
};

/// Reads the log line by line and keeps account.
///
/// A line counts when it has exactly the form in which the daemon writes it. The lines of a block,
/// from the line BEGIN to the line END, come from a copy program and from the detector's machine:
/// of them, only the last one before END is believed, when it has the form of the summary. The log
/// has no other mark for the end of a block; a copy program that prints the line END itself can
/// make these figures wrong, but can begin no new account: a banner needs the date of the daemon's
/// start. Takes any bytes; memory is bounded, whatever comes.
class LogModel : public LogSink {
public:
    /// Without a test every banner is believed.
    explicit LogModel(BannerTest test = {}) : isBanner(std::move(test)) {}

    void takeLine(std::string_view line) override;
    void takeGap() override;

    const LogAccount& account() const { return total; }

    /// Takes a name out of the lost ones: its file has come.
    void forgetLost(const std::string& name) { total.lost.erase(name); }

private:
    void takeInside(std::string_view line);
    void takeOutput(std::string_view line);
    bool takeSummary(std::string_view line);
    void takeBanner(std::string_view line);

    BannerTest isBanner;
    LogAccount total;

    std::size_t bannerStage = 0;
    bool inBlock = false;
    bool hasHeld = false;
    std::string held;      // the last line of the block so far
    std::string complaint; // of the block: the best so far
};

/// What is to be shown of a complaint of rsync's: the first of these lines that tells a cause, not
/// how rsync ended because of it.
bool tellsCause(std::string_view line);

} // namespace control
