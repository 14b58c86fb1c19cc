// What runs that are over have left open: a listing settles it, a copy run announces it.
#include "confirming_rsync/left_names.h"

#include "confirming_rsync/file_list.h"
#include "confirming_rsync/journal.h"
#include "confirming_rsync/share_question.h"
#include "shares/destination.h"
#include "shares/files.h"
#include "shares/journal_folder.h"
#include "shares/left_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {

namespace {

constexpr std::string_view reminder =
    "-rw-r--r--              0 1970/01/01 00:00:00 /rsync_orbelin:recovery\n";
constexpr std::string_view reminderEntry = "/rsync_orbelin:recovery";

constexpr std::string_view donePrefix = "done-";
constexpr std::string_view damagedPrefix = "damaged-";

/// So many listings may show an open name before it is left to the listings alone.
constexpr unsigned mostListings = 3;

/// A reminder that nobody follows is given again, but not at each listing.
constexpr std::time_t betweenReminders = 10;

bool beginsWith(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

/// Open names in order, once each.
class OpenNames {
public:
    void add(OpenName open) {
        const auto [place, isNew] = places_.try_emplace(open.name, names_.size());
        if (isNew) {
            names_.push_back(std::move(open));
        } else {
            OpenName& known = names_[place->second];
            known.isGone = known.isGone || open.isGone;
            known.listings = std::min(known.listings, open.listings);
        }
    }
    void remove(const std::string& name) {
        const auto found = places_.find(name);
        if (found != places_.end()) {
            names_[found->second].name.clear();
            places_.erase(found);
        }
    }
    std::vector<OpenName> take() {
        names_.erase(std::remove_if(names_.begin(), names_.end(),
                                    [](const OpenName& open) { return open.name.empty(); }),
                     names_.end());
        return std::move(names_);
    }

private:
    std::vector<OpenName> names_;
    std::unordered_map<std::string, std::size_t> places_;
};

/// How long ago the moment is that a text of nanoseconds since the boot begins with.
std::chrono::nanoseconds ageOf(std::string_view moment) {
    std::uint64_t then = 0;
    std::from_chars(moment.data(), moment.data() + moment.size(), then);
    return std::chrono::nanoseconds(nanosecondsSinceBoot() - then);
}

/// Renames what can't be used, and returns what is to be said of it.
std::string setAside(const Descriptor& folder, const std::string& name) {
    const std::string aside = std::string(damagedPrefix) + name;
    const bool moved = ::renameat(folder.get(), name.c_str(), folder.get(), aside.c_str()) == 0;
    return "the journal " + name + " is not used: damaged, or not this program's" +
           (moved ? "; set aside as " + aside : "; it could not be set aside");
}

/// The names that were put aside. Nothing if the system does not tell; a damaged file is set aside.
std::optional<LeftNames> readAside(const Descriptor& folder) {
    bool isDamaged = false;
    auto left = readLeft(folder, asideName, isDamaged);
    if (isDamaged) {
        left = LeftNames();
        left->remarks.push_back(setAside(folder, asideName));
    }
    return left;
}

bool isAnnounceable(const LeftNames& left) {
    return !left.remarks.empty() || std::any_of(left.names.begin(), left.names.end(),
                                                [](const OpenName& open) { return open.isGone; });
}

/// Leaves only what is not gone at the source.
void removeGone(std::vector<OpenName>& names) {
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const OpenName& open) { return open.isGone; }),
                names.end());
}

/// Adds what another file of that kind says.
void merge(LeftNames& left, LeftNames more) {
    OpenNames all;
    for (LeftNames* part : {&left, &more}) {
        for (OpenName& open : part->names) {
            all.add(std::move(open));
        }
    }
    left.names = all.take();
    std::move(more.remarks.begin(), more.remarks.end(), std::back_inserter(left.remarks));
}

} // namespace

std::vector<OpenName> openNames(const std::vector<OpenName>& left,
                                const std::vector<ReadJournal>& journals) {
    OpenNames open;
    for (const OpenName& name : left) {
        open.add(name);
    }
    for (const ReadJournal& journal : journals) {
        const JournalBody& body = journal.body;
        for (const std::string& name : body.taken) {
            open.add({name, true, 0});
        }
        if (!journal.isHandedOff || !body.done) {
            for (const std::string& name : body.intended) {
                open.add({name, false, 0});
            }
        }
        for (const std::string& name : body.confirmed) {
            if (journal.isHandedOff) {
                open.remove(name);
            } else {
                open.add({name, false, 0});
            }
        }
    }
    return open.take();
}

std::optional<OpenName> settled(OpenName open, bool isListed) {
    open.isGone = open.isGone || !isListed;
    if (open.isGone || ++open.listings < mostListings) {
        return open;
    }
    return std::nullopt;
}

Settlement::Settlement(const std::string& base, const std::string& source,
                       std::chrono::seconds keep)
    : keep_(keep), boot_(currentBoot().substr(0, 8)) {
    if (boot_.empty()) {
        return; // nobody can tell whose journals these are
    }
    for (auto& [destination, folder] : openJournalFolders(base, source)) {
        bool isDamaged = false;
        auto left = hold(folder) ? readLeft(folder, leftName, isDamaged) : std::nullopt;
        if (left || isDamaged) {
            Journals& journals = all_.emplace_back();
            journals.folder = std::move(folder);
            if (isDamaged) {
                journals.damaged.emplace_back(leftName);
            }
            journals.left = std::move(left).value_or(LeftNames());
            journals.left.source = source;
            journals.left.destination = destination;
        }
    }
    for (Journals& journals : all_) {
        collect(journals);
    }
}

void Settlement::collect(Journals& journals) {
    const std::string ofThisBoot = std::string(donePrefix) + boot_ + "-";
    // By their begin, since that has as many digits for each, or fewer for those before.
    for (const std::string& name : namesIn(journals.folder)) {
        if (beginsWith(name, ofThisBoot)) {
            if (ageOf(std::string_view(name).substr(ofThisBoot.size())) >= keep_) {
                ::unlinkat(journals.folder.get(), name.c_str(), 0);
            }
        } else if (beginsWith(name, journalPrefix) || beginsWith(name, donePrefix)) {
            read(journals, name);
        }
    }
    journals.open = openNames(journals.left.names, journals.read);
    for (const OpenName& open : journals.open) {
        journals.listed.emplace(open.name, false);
    }
}

void Settlement::read(Journals& journals, const std::string& name) {
    Descriptor file = openOwnFile(journals.folder, name);
    std::string text;
    if (!file && isForeign(errno)) {
        journals.damaged.push_back(name);
        return;
    }
    if (!file || !hold(file) || !readText(file, text)) {
        return; // it is gone by now, its run goes on, or nobody can tell
    }
    std::string_view rest = text;
    const auto head = takeHead(rest);
    auto body = head ? readBody(rest) : std::nullopt;
    if (!body || head->source != journals.left.source ||
        head->destination != journals.left.destination) {
        journals.damaged.push_back(name);
        return;
    }
    const bool isHandedOff = !isDead(head->daemon);
    if (isHandedOff && isStillThere(head->list)) {
        return; // its cycle goes on
    }
    journals.read.push_back({std::move(*body), isHandedOff, name});
    journals.held.push_back(std::move(file));
}

void Settlement::takeListed(std::string_view line) {
    for (Journals& journals : all_) {
        if (!journals.listed.empty()) {
            forListedNames(line, [&journals](std::string_view name) {
                const auto found = journals.listed.find(name);
                if (found != journals.listed.end()) {
                    found->second = true;
                }
            });
        }
    }
}

void Settlement::settle() {
    for (Journals& journals : all_) {
        settle(journals);
    }
}

void Settlement::settle(Journals& journals) const {
    const int folder = journals.folder.get();
    LeftNames& left = journals.left;
    const Destination destination(left.destination);
    const bool wasAnnounceable = isAnnounceable(left);
    const bool hadNames = !left.names.empty() || !left.remarks.empty();
    left.names.clear();
    for (const OpenName& open : journals.open) {
        // What is not in place was not received, or is no longer there to be handed off.
        if (destination.presence(open.name) != Destination::Presence::absent) {
            if (auto still = settled(open, journals.listed.at(open.name))) {
                left.names.push_back(std::move(*still));
            }
        }
    }
    for (const std::string& name : journals.damaged) {
        left.remarks.push_back(setAside(journals.folder, name));
    }
    struct stat before {};
    const bool keepTime = wasAnnounceable && ::fstatat(folder, leftName, &before, 0) == 0;
    if ((hadNames || !left.names.empty() || !left.remarks.empty()) &&
        !writeLeft(journals.folder, leftName, left)) {
        for (const std::string& name : journals.damaged) {
            // Or nobody would be told.
            ::renameat(journals.folder.get(), (std::string(damagedPrefix) + name).c_str(),
                       journals.folder.get(), name.c_str());
        }
        return;
    }
    if (keepTime) {
        const std::array<struct timespec, 2> times{{{0, UTIME_OMIT}, before.st_mtim}};
        ::utimensat(folder, leftName, times.data(), 0);
    }
    for (const ReadJournal& journal : journals.read) {
        if (journal.isHandedOff && keep_.count() > 0 && beginsWith(journal.file, journalPrefix)) {
            const std::string done = std::string(donePrefix) + boot_ + "-" +
                                     std::to_string(nanosecondsSinceBoot()) + "-" + journal.file;
            ::renameat(folder, journal.file.c_str(), folder, done.c_str());
        } else {
            ::unlinkat(folder, journal.file.c_str(), 0);
        }
    }
}

bool Settlement::isReminderDue() {
    bool due = false;
    // By the fine clock: time() may be a tick behind the time of a file that was just written.
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    for (const Journals& journals : all_) {
        struct stat status {};
        if (!isAnnounceable(journals.left) ||
            ::fstatat(journals.folder.get(), leftName, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        // Its time is the next reminder's, and its own until there was one.
        if (status.st_mtim.tv_sec <= now || status.st_mtim.tv_sec > now + betweenReminders) {
            due = true;
            const std::array<struct timespec, 2> next{
                {{0, UTIME_OMIT}, {now + betweenReminders, 0}}};
            ::utimensat(journals.folder.get(), leftName, next.data(), AT_SYMLINK_NOFOLLOW);
        }
    }
    return due;
}

std::string_view reminderLine() {
    return reminder;
}

bool isReminder(std::string_view entry) {
    return entry == reminderEntry;
}

LeftToAnnounce::LeftToAnnounce(const Descriptor& folder, const std::string& source,
                               const std::string& destination)
    : folder_(::openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), rest_{source,
                                                                                      destination,
                                                                                      {},
                                                                                      {}} {
    bool isDamaged = false; // then the next listing sees to it
    auto left = folder_ && hold(folder_) ? readLeft(folder_, leftName, isDamaged) : std::nullopt;
    auto aside = left ? readAside(folder_) : std::nullopt;
    if (!aside) {
        folder_.reset();
        return;
    }
    merge(*left, std::move(*aside));
    remarks_ = std::move(left->remarks);
    const Destination target(destination);
    for (OpenName& open : left->names) {
        const auto presence = target.presence(open.name);
        if (open.isGone && presence == Destination::Presence::there) {
            names_.push_back(std::move(open.name));
        } else if (presence != Destination::Presence::absent) {
            rest_.names.push_back(std::move(open));
        }
    }
}

bool LeftToAnnounce::forget() {
    return folder_ && writeLeft(folder_, leftName, rest_) &&
           (::unlinkat(folder_.get(), asideName, 0) == 0 || errno == ENOENT);
}

std::vector<std::string> putAsideOthers(const std::string& base, const std::string& source,
                                        const std::string& destination) {
    std::vector<std::string> lines;
    for (const auto& [other, folder] : openJournalFolders(base, source)) {
        if (other == destination || !hold(folder)) {
            continue;
        }
        bool isDamaged = false;
        auto left = readLeft(folder, leftName, isDamaged);
        auto aside = left && isAnnounceable(*left) ? readAside(folder) : std::nullopt;
        if (!aside) {
            continue;
        }
        merge(*aside, *left);
        aside->source = source;
        aside->destination = other;
        const auto count = std::count_if(left->names.begin(), left->names.end(),
                                         [](const OpenName& open) { return open.isGone; });
        removeGone(left->names);
        left->remarks.clear();
        if (writeLeft(folder, asideName, *aside) && writeLeft(folder, leftName, *left)) {
            lines.push_back(std::to_string(count) + (count == 1 ? " file in " : " files in ") +
                            other + " left the source and may not have been announced: " +
                            "the target is another one now. Their names are in " +
                            journalFolder(base, source, other) + "/" + asideName);
        }
    }
    return lines;
}

} // namespace confirming
