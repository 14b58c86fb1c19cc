// Which names of earlier runs are still to be announced: the decisions, from what the journals say.
#pragma once

#include "confirming_rsync/journal_text.h"

#include <set>
#include <string>
#include <vector>

namespace confirming {

/// A journal that was read.
struct ReadJournal {
    JournalHead head;
    JournalBody body;
};

/// The names that the earlier runs leave open, once each, in the order of the journals.
///
/// `daemon` is the daemon that is to announce them. What an earlier run of the same daemon has
/// confirmed was handed off by it; its own names are open unless it was done with them. Of a run of
/// another daemon nobody knows what was handed off, so that all its names are open. A name is not
/// open if a run of this daemon, earlier or going on, has confirmed it later than the name was
/// first meant to be copied.
std::vector<JournalEntry> openNames(const std::vector<ReadJournal>& earlier,
                                    const std::vector<ReadJournal>& goingOn,
                                    const ProcessIdentity& daemon);

/// What becomes of the open names.
struct Decision {
    std::vector<JournalEntry> announced; // received, gone at the source and in nobody's care
    std::vector<JournalEntry> inherited; // to be decided by a later run
};

/// Decides, given which of the open names are gone at the source. All of them have to be in place
/// at the destination. `goingOn` was read after the source was asked: a run writes down its names
/// before it touches them, so that whatever a run has removed by then is among its names. `own` are
/// the names of this very run. A name that someone takes care of, or that is still at the source,
/// is left to a later run, and after some of them to the listing alone.
Decision decide(const std::vector<JournalEntry>& open, const std::set<std::string>& gone,
                const std::vector<ReadJournal>& goingOn, const std::vector<std::string>& own,
                const ProcessIdentity& daemon);

} // namespace confirming
