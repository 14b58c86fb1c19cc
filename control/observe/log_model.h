// What the daemon's log says happened since its last start: counts, in total and per detector.
#pragma once

#include "control/observe/snapshot.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace control {

/// What the settings block behind the banner says, as text; empty until it was read.
struct LoggedSettings {
    std::string logFile;
    std::string maxSize;
    std::string maxNumber;
};

/// One detector as the log shows it.
struct LoggedDetector {
    Counts counts;        // what is certainly its own
    std::string lastFile; // of the newest block that is certainly its own and copied something
    bool copying = false; // a cycle has begun and its reports are not all in the log
};

/// Reads the log line by line and keeps account.
///
/// **What is believed.** A line counts when it has exactly the form in which the daemon writes it.
/// The lines of a block, from the line BEGIN to the line END, come from a copy program and from the
/// detector's machine: of them, only the last one before END is believed, when it has the form of
/// the summary. The log has no other mark for the end of a block; a copy program that prints the
/// line END itself can make figures wrong. It can't do more.
///
/// **Whose a block is.** Blocks, and the lines about the hand-off, bear no detector's name. What is
/// known is when a detector may have left one: from the first copy process of its cycle, until the
/// line that says that the cycle's first file list was removed, by which time all its reports are
/// in the log. In between, at most as many are still to come as it has started copy processes,
/// less failed starts, less blocks that were found to be its own. That number, its outstanding
/// reports, is never too small, so two conclusions are certain:
///
/// - At the moment a block appears only one detector has outstanding reports: it is that one's.
/// - At the end of a cycle, as many blocks were left unattributed since it began as the detector
/// has
///   outstanding reports: all its reports are among them, so they are its own, each of them.
///
/// All other blocks stay in `unattributed`. This holds as long as the log is whole. Where lines
/// may be missing (lostTrack, a block within a block, an end without a beginning), each detector
/// counts as having outstanding reports until its own next cycle begins or its present one ends.
///
/// Takes any bytes; memory is bounded, whatever comes.
class LogModel {
public:
    /// The detectors that the configuration names. `complete` says that the daemon serves no
    /// others; what it names itself behind its banner is known anyway.
    void setDetectors(const std::vector<std::string>& ids, bool complete);

    /// Takes whole lines, each with its line feed. A text that does not end in one is taken as if
    /// it did.
    void feed(std::string_view lines);

    /// Says that lines may be missing between the last ones and the next.
    void lostTrack();

    /// The whole of it: `unattributed` and all detectors.
    const Counts& total() const { return totalCounts; }

    /// What can't be said to be a certain detector's.
    const Counts& unattributed() const { return unattributedCounts; }

    /// Of `unattributed`, the blocks that may still turn out to be a certain detector's. Without
    /// them it never shrinks while the daemon lives.
    Counts undecided() const;

    /// By ID: the configured ones, those that the daemon named, and no others.
    const std::map<std::string, LoggedDetector, std::less<>>& detectors() const { return known; }

    const std::string& lastFile() const { return newestFile; }
    const std::string& lastComplaint() const { return newestComplaint; }

    /// The date in the last banner; empty when none was seen.
    const std::string& started() const { return bannerDate; }

    const LoggedSettings& settings() const { return loggedSettings; }

    /// How many banners were seen: a change means that all counts began anew.
    std::uint64_t starts() const { return banners; }

    /// Whether lostTrack was called since the last banner.
    bool hasGap() const { return gap; }

private:
    /// What is known of the reports that a detector may still leave in the log.
    struct Expected {
        enum class Cycle {
            none,    // none is to come
            open,    // `outstanding` at most, and only such that came after `begin`
            unknown, // any number
        };
        Cycle cycle = Cycle::none;
        std::uint64_t outstanding = 0;
        std::uint64_t begin = 0;    // number of the last block before the cycle
        std::uint64_t lastFile = 0; // number of the block that its lastFile is from
    };

    /// A block that may turn out to be a certain detector's.
    struct OpenBlock {
        std::uint64_t number = 0;
        Counts counts;
        std::string lastFile;
    };

    void takeLine(std::string_view line);
    void takeOutside(std::string_view line);
    void takeOwnLine(std::string_view line);
    bool takeWorkerLine(std::string_view line);
    void takeInside(std::string_view line);
    void takeSummaryOrOutput(std::string_view line, Counts& counts, std::string& lastFile);
    void takeOutput(std::string_view line);
    bool takeBanner(std::string_view line);

    void beginBlock();
    void endBlock(std::string_view lastLine, bool mayBeSummary);
    void placeBlock(const Counts& counts, const std::string& lastFile);
    void placeEvent(std::uint64_t Counts::*field);
    void releaseLost();

    void beginCycle(const std::string& id);
    void endCycle(const std::string& id);
    void startProcess(const std::string& id);
    void failStart(const std::string& id);
    void count(const std::string& id, std::uint64_t Counts::*field);
    void own(const std::string& id, const Counts& counts, const std::string& lastFile,
             std::uint64_t number);
    const std::string* onlyCandidate() const;
    void forgetClosedBlocks();
    void announce(std::string_view id);
    void doubtAll();
    void startAfresh(std::string_view date);

    std::map<std::string, LoggedDetector, std::less<>> known;
    std::map<std::string, Expected, std::less<>> expected; // the same keys as `known`
    std::vector<std::string> configured;
    bool configuredComplete = true;
    bool namedByDaemon = false; // the daemon's own list is in the log since the banner

    Counts totalCounts;
    Counts unattributedCounts;
    std::string newestFile;
    std::string newestComplaint;
    std::string bannerDate;
    LoggedSettings loggedSettings;
    std::uint64_t banners = 0;
    bool gap = false;

    std::vector<OpenBlock> openBlocks; // ascending by number
    std::uint64_t blocks = 0;          // the number of the last block
    std::uint64_t forgotten = 0;       // the last block that was dropped from a full openBlocks

    int bannerStage = 0;
    bool inSettings = false;
    std::uint64_t lostLines = 0; // seen in front of the next block
    bool inBlock = false;
    bool doubtful = false; // the block has what should not be in it
    bool hasHeld = false;
    std::string held; // the last line of the block so far
    std::uint64_t complaints = 0;
};

} // namespace control
