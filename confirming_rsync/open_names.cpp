// Which names of earlier runs are still to be announced: the decisions, from what the journals say.
#include "confirming_rsync/open_names.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace confirming {

namespace {

/// A name is inherited this often at most: after that it is at the source and can't be copied, or
/// something is amiss that no further question clears up.
constexpr unsigned mostRounds = 3;

/// When a name was confirmed by a run of the daemon: the latest begin of such a run.
using Confirmations = std::unordered_map<std::string, std::uint64_t>;

void addConfirmations(const std::vector<ReadJournal>& journals, const ProcessIdentity& daemon,
                      Confirmations& confirmations) {
    for (const ReadJournal& journal : journals) {
        if (journal.head.daemon != daemon) {
            continue;
        }
        for (const std::string& name : journal.body.confirmed) {
            std::uint64_t& begun = confirmations[name];
            begun = std::max(begun, journal.head.begun);
        }
    }
}

bool isCovered(const JournalEntry& entry, const Confirmations& confirmations) {
    const auto found = confirmations.find(entry.name);
    return found != confirmations.end() && found->second >= entry.since;
}

/// Open names in order, once each. Of two entries for a name the one that fewer confirmations cover
/// counts.
class OpenNames {
public:
    void add(JournalEntry entry) {
        const auto [place, isNew] = places_.try_emplace(entry.name, entries_.size());
        if (isNew) {
            entries_.push_back(std::move(entry));
            return;
        }
        JournalEntry& known = entries_[place->second];
        known.since = std::max(known.since, entry.since);
        known.rounds = std::min(known.rounds, entry.rounds);
    }

    std::vector<JournalEntry> take() { return std::move(entries_); }

private:
    std::vector<JournalEntry> entries_;
    std::unordered_map<std::string, std::size_t> places_;
};

void addOpenNames(const ReadJournal& journal, const ProcessIdentity& daemon, OpenNames& open) {
    const bool handedOff = journal.head.daemon == daemon;
    // Moments of another boot say nothing here.
    const bool comparable = journal.head.daemon.boot == daemon.boot;
    const std::uint64_t begun = comparable ? journal.head.begun : 0;
    if (!handedOff || !journal.body.ownDone) {
        for (const std::string& name : journal.body.intended) {
            open.add({name, begun, 0});
        }
    }
    for (const JournalEntry& entry : journal.body.inherited) {
        open.add({entry.name, comparable ? entry.since : 0, entry.rounds});
    }
    if (!handedOff) {
        // Names beside those of the list: files in a directory of the list.
        for (const std::string& name : journal.body.confirmed) {
            open.add({name, begun, 0});
        }
    }
}

} // namespace

std::vector<JournalEntry> openNames(const std::vector<ReadJournal>& earlier,
                                    const std::vector<ReadJournal>& goingOn,
                                    const ProcessIdentity& daemon) {
    OpenNames open;
    for (const ReadJournal& journal : earlier) {
        addOpenNames(journal, daemon, open);
    }
    std::vector<JournalEntry> entries = open.take();
    Confirmations confirmations;
    addConfirmations(earlier, daemon, confirmations);
    addConfirmations(goingOn, daemon, confirmations);
    entries.erase(std::remove_if(entries.begin(), entries.end(),
                                 [&confirmations](const JournalEntry& entry) {
                                     return isCovered(entry, confirmations);
                                 }),
                  entries.end());
    return entries;
}

Decision decide(const std::vector<JournalEntry>& open, const std::set<std::string>& gone,
                const std::vector<ReadJournal>& goingOn, const std::vector<std::string>& own,
                const ProcessIdentity& daemon) {
    Confirmations confirmations;
    addConfirmations(goingOn, daemon, confirmations);
    std::unordered_set<std::string> caredFor(own.begin(), own.end());
    for (const ReadJournal& journal : goingOn) {
        caredFor.insert(journal.body.intended.begin(), journal.body.intended.end());
    }
    Decision decision;
    for (const JournalEntry& entry : open) {
        if (isCovered(entry, confirmations)) {
            continue;
        }
        if (gone.count(entry.name) != 0 && caredFor.count(entry.name) == 0) {
            decision.announced.push_back(entry);
        } else if (entry.rounds + 1 < mostRounds) {
            decision.inherited.push_back({entry.name, entry.since, entry.rounds + 1});
        }
    }
    return decision;
}

} // namespace confirming
