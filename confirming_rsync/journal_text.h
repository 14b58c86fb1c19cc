// The text of a journal: what it says of one copy run, and how that is written.
#pragma once

#include "confirming_rsync/process_identity.h"

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

/// A name that the run has to account for.
struct JournalEntry {
    std::string name;
    std::uint64_t since = 0; // when the run began that meant to copy it first
    unsigned rounds = 0;     // how many later runs have taken it over undecided
};

/// What a run has written below its head. Names are as rsync prints them.
struct JournalBody {
    std::vector<std::string> intended;   // the names of its list
    std::vector<JournalEntry> inherited; // names of earlier runs, undecided or to be announced
    std::set<std::string, std::less<>>
        confirmed;        // names whose confirmation is in the daemon's pipe
    bool ownDone = false; // nothing can become of `intended` any more
};

std::string headText(const JournalHead& head);
std::string intendedLine(const std::string& name);
std::string inheritedLine(const JournalEntry& entry);
std::string confirmedLine(const std::string& name);

/// The last line of a run that is through with the names of its list; the second, if nothing that
/// it inherited is open either.
std::string_view ownDoneLine();
std::string_view allDoneLine();

/// True if the text ends with the line that says that nothing is open.
bool isAllDone(std::string_view text);

/// Reads the head and takes it off the text. Nothing if it is not a head to the letter.
std::optional<JournalHead> takeHead(std::string_view& text);

/// Reads what follows the head. A last line without line feed was being written when its writer
/// ended, and is passed over. Nothing if any other line is none of a journal, or has a name that
/// leads out of the destination.
std::optional<JournalBody> readBody(std::string_view text);

} // namespace confirming
