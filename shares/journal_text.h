// The text of a journal: what it says of one copy run, and how that is written.
#pragma once

#include "shares/process_identity.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace confirming {

/// One file of the system, as it was at one moment; a later one at the same place differs.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t modified = 0; // nanoseconds
    std::string path;
};

/// Who copies what from where to where.
struct JournalHead {
    ProcessIdentity daemon;  // the process that started the run and reads its report
    std::uint64_t begun = 0; // nanoseconds since the boot
    FileIdentity list;       // the list of names, which the daemon removes when the cycle is over
    std::string source;
    std::string destination;
};

/// What a run has written below its head. Names are as rsync prints them.
struct JournalBody {
    std::vector<std::string> intended; // what it could have removed at the source
    std::vector<std::string> taken;    // left open by earlier runs, and announced by this one
    std::set<std::string, std::less<>>
        confirmed;     // names whose confirmation is in the daemon's pipe
    bool done = false; // nothing can become of `intended` any more
};

std::string headText(const JournalHead& head);
std::string intendedLine(const std::string& name);
std::string takenLine(const std::string& name);
std::string confirmedLine(const std::string& name);

/// The last line of a run that has accounted for all of its names.
std::string_view doneLine();

/// Reads the head and takes it off the text. Nothing if it is not a head to the letter.
std::optional<JournalHead> takeHead(std::string_view& text);

/// Reads what follows the head. A last line without line feed was being written when its writer
/// ended, and is passed over. Nothing if any other line is none of a journal, or has a name that
/// leads out of the destination.
std::optional<JournalBody> readBody(std::string_view text);

/// A name that runs which are over have left open.
struct OpenName {
    std::string name;
    bool isGone = false;   // at the source: it is to be announced
    unsigned listings = 0; // else: how many listings have shown it there since
};

/// What is left of runs that are over, for one source and destination.
struct LeftNames {
    std::string source;
    std::string destination;
    std::vector<OpenName> names;
    std::vector<std::string> remarks; // to be said by the next run
};

std::string leftNamesText(const LeftNames& left);

/// Reads that text. Nothing if it is not to the letter, with its last line feed.
std::optional<LeftNames> readLeftNames(std::string_view text);

} // namespace confirming
