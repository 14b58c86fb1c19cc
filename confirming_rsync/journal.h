// The journal of the run that is going on: what it means to copy, and what it has confirmed.
#pragma once

#include "confirming_rsync/descriptors.h"
#include "confirming_rsync/journal_text.h"

#include <string>
#include <string_view>
#include <vector>

namespace confirming {

/// Outlives its writer, so that a later run can account for the names for which this one can't.
/// Held by a lock as long as the program lives, however it ends. A line that is written is safe
/// from the end of any process, not from a loss of power. Not for use by several threads.
class Journal {
public:
    /// None: everything that is written is dropped.
    Journal() = default;

    /// Begins a journal in the folder, with these names. It appears there whole and held. If it
    /// can't be written, failure() says why.
    Journal(Descriptor folder, const JournalHead& head, const std::vector<std::string>& names);

    /// Appends lines. A failure is kept, and nothing more is written after it.
    void write(std::string_view lines);

    /// Takes it away: nothing is left to account for.
    void remove();

    /// The folder it is in; empty if there is none.
    const Descriptor& folder() const { return folder_; }

    /// Why it can't be written; empty as long as it can.
    const std::string& failure() const { return failure_; }

    /// Its name in the folder; empty if there is none.
    const std::string& name() const { return name_; }

private:
    void fail();

    Descriptor folder_;
    Descriptor file_;
    std::string name_;
    std::string failure_;
};

/// The name of a journal while it is begun; never read, and removed by whoever finds it left over.
bool isUnfinishedJournal(std::string_view name);

/// True for the name of a journal.
bool isJournal(std::string_view name);

/// Takes hold of a journal for as long as the descriptor stays open. False if someone else has it,
/// or it is gone from its folder by now.
bool hold(const Descriptor& journal);

} // namespace confirming
