// The journal of the run that is going on: what it may remove at the source, what it has confirmed.
#pragma once

#include "shares/journal_text.h"
#include "utilities/descriptors.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace confirming {

/// Outlives its writer, so that a later listing can account for the names for which this run can't.
/// Held by a lock as long as the program lives, however it ends. A line that is written is safe
/// from the end of any process; a cut of the power spares what was there at the last makeDurable().
/// Not for use by several threads.
class Journal {
public:
    /// None: everything that is written is dropped.
    Journal() = default;

    /// Begins a journal in the folder, where it appears whole and held. If it can't be written,
    /// failure() says why.
    Journal(Descriptor folder, const JournalHead& head);

    /// Appends lines that say what this run may do, if there is room for their confirmations, too:
    /// what is confirmed and not written down as that would be announced again. Without room
    /// nothing is written, which counts as a failure, and what is confirmed still can be.
    void intend(std::string_view lines);

    /// Appends lines. After a failure of the file itself nothing more is written.
    void write(std::string_view lines);

    /// Waits until all that was written is on the disk. A failure is kept likewise.
    void makeDurable();

    /// The folder it is in; empty if there is none.
    const Descriptor& folder() const { return folder_; }

    /// The first failure; empty as long as there was none.
    const std::string& failure() const { return failure_; }

private:
    void fail();

    Descriptor folder_;
    Descriptor file_;
    std::string failure_;
    bool isBroken_ = false;    // nothing more is written
    std::size_t promised_ = 0; // bytes that there is room for, from the file's beginning
};

/// The name of a run's journal begins with this, and goes on with the moment at which it began.
constexpr std::string_view journalPrefix = "run-";

} // namespace confirming
