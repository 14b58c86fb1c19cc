// What runs that are over have left open: a listing settles it, a copy run announces it.
#pragma once

#include "shares/journal_text.h"
#include "utilities/descriptors.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace confirming {

// Between the removal at the source and the record in the consumer's pipe a file is known only to
// processes, and to the journals of the runs. When its run is over, the next listing of the share
// decides: no run of the same worker goes on meanwhile, and the listing shows what the source still
// has. What is gone there and in place here is written to the file `left` beside the journals. Only
// a copy run can announce it, and the daemon starts one only for what a listing names: so the
// listing gets one entry more, the reminder, which the daemon deals to one of its runs.

/// A journal that was read.
struct ReadJournal {
    JournalBody body;
    /// Its daemon lives and has ended the cycle: what the run has confirmed was handed off. Of
    /// another daemon nobody knows what it still passed on.
    bool isHandedOff = false;
    std::string file; // its name
};

/// The names that may be open, once each: those that were left already, and what the journals, in
/// the order in which their runs began, leave open. What a later run has confirmed is open no more.
std::vector<OpenName> openNames(const std::vector<OpenName>& left,
                                const std::vector<ReadJournal>& journals);

/// What becomes of a name that is in place, when a listing that is complete shows it or not. A name
/// that is still at the source is copied again; but a server whose connection broke may be late
/// with a removal, so that it is looked for in some more listings. Nothing once that is enough.
std::optional<OpenName> settled(OpenName open, bool isListed);

/// The listing's part, for all destinations of one share.
class Settlement {
public:
    /// Takes hold of what runs that are over have left behind; what another process has hold of,
    /// and runs that go on, are left alone. Done journals stay as long as `keep` says, for what a
    /// cut of the power may take from the consumer.
    Settlement(const std::string& base, const std::string& source, std::chrono::seconds keep);

    /// Has to see every line of the listing, without its line feed.
    void takeListed(std::string_view line);

    /// To be called when the listing has ended well: writes down what is left, and takes away the
    /// journals that it has come from. A journal that is damaged, or not this program's, is renamed
    /// to damaged-NAME.
    void settle();

    /// True if there is something for a run to announce, or to say, and the last reminder of it
    /// was not just now. Counts as a reminder.
    bool isReminderDue();

private:
    struct Journals {
        Descriptor folder;
        std::vector<ReadJournal> read;
        std::vector<Descriptor> held;     // their locks
        std::vector<std::string> damaged; // names of files
        LeftNames left;
        std::vector<OpenName> open;
        std::unordered_map<std::string_view, bool> listed; // each open name: is it listed?
    };
    void collect(Journals& journals);
    void read(Journals& journals, const std::string& name);
    void settle(Journals& journals) const;

    std::chrono::seconds keep_;
    std::string boot_; // the beginning of its id
    std::vector<Journals> all_;
};

/// The line of the listing that is the reminder. It names something that no share can have: an
/// absolute path.
std::string_view reminderLine();

/// True for the entry of a list that the daemon makes of that line.
bool isReminder(std::string_view entry);

/// A copy run's part: what there is for it to announce and to say. Held by this object; what is not
/// forgotten is for a later run.
class LeftToAnnounce {
public:
    /// What was left for this share and destination, in the folder that its journals are in.
    LeftToAnnounce(const Descriptor& folder, const std::string& source,
                   const std::string& destination);

    const std::vector<std::string>& names() const { return names_; }
    const std::vector<std::string>& remarks() const { return remarks_; }

    /// To be called when another journal has these names. False if that failed: then a later
    /// listing finds them there.
    bool forget();

private:
    Descriptor folder_; // none if nobody can tell what is left
    std::vector<std::string> names_;
    std::vector<std::string> remarks_;
    LeftNames rest_;
};

/// Puts aside what was left to be announced under other destinations of this share, which this
/// daemon does not announce: as the file `unannounced` there. Returns a line to be said for each.
/// A run to that destination announces them after all.
std::vector<std::string> putAsideOthers(const std::string& base, const std::string& source,
                                        const std::string& destination);

} // namespace confirming
