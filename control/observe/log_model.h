// What the daemon's log says happened since its last start, of all detectors together.
#pragma once

#include "control/observe/log_follower.h"
#include "control/observe/snapshot.h"

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace control {

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

    /// Takes whole lines, each with its line feed. A text that does not end in one is taken as if
    /// it did.
    void takeLines(std::string_view lines) override;

    void takeGap() override;

    const Counts& counts() const { return total; }
    const std::string& lastFile() const { return newestFile; }

    /// Of the last block that had one, the line that tells most of the cause.
    const std::string& lastComplaint() const { return newestComplaint; }

    /// The date in the last banner; empty when none was seen.
    const std::string& started() const { return bannerDate; }

    /// How many banners were seen: a change means that all counts began anew.
    std::uint64_t starts() const { return banners; }

    /// Whether lines were missed since the last banner.
    bool hasGap() const { return gap; }

    /// The names of files reported lost, and of those that could not be announced, each once; some
    /// thousand of them at most.
    const std::set<std::string>& lostNames() const { return lost; }
    const std::set<std::string>& unannouncedNames() const { return unannounced; }

    /// Takes a name out of the lost ones: its file has come.
    void forgetLost(const std::string& name) { lost.erase(name); }

private:
    void takeLine(std::string_view line);
    void takeInside(std::string_view line);
    void takeOutput(std::string_view line);
    bool takeBanner(std::string_view line);
    void takeOwnLine(std::string_view line);
    void takeWorkerLine(std::string_view line);
    void endBlock(std::string_view lastLine, bool mayBeSummary);

    BannerTest isBanner;
    Counts total;
    std::set<std::string> lost;
    std::set<std::string> unannounced;
    std::string newestFile;
    std::string newestComplaint;
    std::string bannerDate;
    std::uint64_t banners = 0;
    bool gap = false;

    int bannerStage = 0;
    bool inBlock = false;
    bool hasHeld = false;
    std::string held;        // the last line of the block so far
    std::string complaint;   // of the block: the best so far
    bool tellsCause = false; // of `complaint`
};

/// What is to be shown of a complaint of rsync's: the first of these lines that tells a cause, not
/// how rsync ended because of it.
bool tellsCause(std::string_view line);

} // namespace control
