// What the listings and copies of a share come to, in small files that anyone may read meanwhile.
#include "shares/share_figures.h"

#include "shares/encoded_name.h"
#include "shares/files.h"
#include "shares/process_identity.h"
#include "utilities/descriptors.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {

namespace {

constexpr std::string_view listingName = "listing";
constexpr std::string_view copiesPrefix = "to-";

using Word = std::atomic<std::uint64_t>;
static_assert(Word::is_always_lock_free && sizeof(Word) == sizeof(std::uint64_t));

/// Written before the segment appears, and never again.
struct Head {
    std::array<char, 8> magic{'s', 'k', 'a', 'r', 'n', 'f', 'i', 'g'};
    std::uint64_t version = 1;
    std::uint64_t kind = 0; // 1: listings, 2: copies
    std::uint64_t size = 0;
    Moment created;
    std::array<char, 80> boot{};
};

/// What the owner of a slot has to say.
struct Record {
    std::uint64_t writer = 0; // the owner as of `begun`
    Moment begun;
    ShareFigures::Event last;
    std::uint64_t length = 0; // of the whole text
    std::array<char, 280> text{};
};

/// Belongs to one process at a time; if that dies in it, to the next that takes it.
struct Slot {
    Word owner;    // when the process started << pidBits | its number; 0: nobody's
    Word sequence; // odd while the record is being written
    std::array<Word, sizeof(Record) / sizeof(Word)> record;
};
constexpr unsigned pidBits = 22; // the kernel gives no greater number to a process

constexpr std::size_t slotCount = 32;

struct Segment {
    Head head;
    std::array<Word, 16> counts;
    std::array<Slot, slotCount> slots;
};
static_assert(sizeof(Head) == 128 && sizeof(Slot) == 384 &&
              sizeof(Segment) == 256 + slotCount * 384);
using SharedSegment = std::shared_ptr<Segment>;

Moment now() {
    const std::chrono::nanoseconds calendar = std::chrono::system_clock::now().time_since_epoch();
    return {static_cast<std::uint64_t>(calendar.count()), nanosecondsSinceBoot()};
}

Head headOf(std::string_view name, const std::string& boot) {
    Head head;
    head.kind = name == listingName ? 1 : 2;
    head.size = sizeof(Segment);
    head.created = now();
    boot.copy(head.boot.data(), head.boot.size() - 1);
    return head;
}

/// The segment that a file holds, if it begins like `head`; to be written to only if it is of this
/// user and of the same boot. None, errno 0, if the file is no such segment; errno set otherwise.
SharedSegment segmentIn(const Descriptor& file, const Head& head, bool isForWriting) {
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        return nullptr;
    }
    errno = 0;
    if (!S_ISREG(status.st_mode) || status.st_size != sizeof(Segment) ||
        (isForWriting && !isOwn(status))) {
        return nullptr;
    }
    void* const memory =
        ::mmap(nullptr, sizeof(Segment), isForWriting ? PROT_READ | PROT_WRITE : PROT_READ,
               MAP_SHARED, file.get(), 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    const SharedSegment segment(static_cast<Segment*>(memory),
                                [](Segment* gone) { ::munmap(gone, sizeof(Segment)); });
    const bool isSame = std::memcmp(&segment->head, &head, offsetof(Head, created)) == 0 &&
                        (!isForWriting || segment->head.boot == head.boot);
    return isSame ? segment : nullptr;
}

/// Makes a segment that appears under its name whole. False, errno set, if that fails.
bool makeSegment(const Descriptor& folder, const std::string& name, const Head& head) {
    constexpr mode_t mode = 0644;
    const Descriptor file(::openat(folder.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, mode));
    if (!file || ::fchmod(file.get(), mode) != 0) {
        return false;
    }
    // Without this, a file system that is full would show as SIGBUS at the first write.
    errno = ::posix_fallocate(file.get(), 0, sizeof(Segment));
    const std::string unnamed = "/proc/self/fd/" + std::to_string(file.get());
    return errno == 0 && ::write(file.get(), &head, sizeof head) == sizeof head &&
           ::linkat(AT_FDCWD, unnamed.c_str(), folder.get(), name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

/// The segment of that name, the same for all processes that ask at the same time. What else has
/// the name is removed, under a lock on the folder, so that nobody removes what another one has
/// just made. Any user can hold that lock, so nobody waits for it for long.
SharedSegment openSegment(const Descriptor& folder, const std::string& name, const Head& head) {
    constexpr int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    bool isLocked = false;
    for (int tries = 0; tries < 100; ++tries) {
        const Descriptor file(::openat(folder.get(), name.c_str(), flags));
        if (file) {
            SharedSegment segment = segmentIn(file, head, true);
            if (segment || errno != 0) {
                return segment;
            }
        } else if (errno == ENOENT) {
            if (!makeSegment(folder, name, head) && errno != EEXIST) {
                return nullptr;
            }
            continue;
        } else if (errno != ELOOP) {
            return nullptr;
        }
        if (!isLocked) {
            isLocked = ::flock(folder.get(), LOCK_EX | LOCK_NB) == 0;
            if (!isLocked) {
                ::usleep(1000);
            }
        } else if (::unlinkat(folder.get(), name.c_str(), 0) != 0) {
            return nullptr;
        }
    }
    return nullptr;
}

/// Publishes the record. If the process dies meanwhile the sequence stays odd. Each word is
/// released after the odd sequence: a reader that has seen one of the new words sees that, too.
void publish(Slot& slot, const Record& record) {
    std::array<std::uint64_t, sizeof(Record) / sizeof(Word)> words{};
    std::memcpy(words.data(), &record, sizeof(record));
    const std::uint64_t writing = (slot.sequence.load(std::memory_order_relaxed) + 1) | 1U;
    slot.sequence.store(writing, std::memory_order_relaxed);
    for (std::size_t at = 0; at < words.size(); ++at) {
        slot.record[at].store(words[at], std::memory_order_release);
    }
    slot.sequence.store(writing + 1, std::memory_order_release);
}

/// The record; nothing if it is being written at each look, or was when its writer died.
std::optional<Record> recordOf(const Slot& slot) {
    for (int tries = 0; tries < 100; ++tries) {
        std::array<std::uint64_t, sizeof(Record) / sizeof(Word)> words{};
        const std::uint64_t before = slot.sequence.load(std::memory_order_acquire);
        for (std::size_t at = 0; at < words.size(); ++at) {
            words[at] = slot.record[at].load(std::memory_order_acquire);
        }
        if (before % 2 == 0 && slot.sequence.load(std::memory_order_relaxed) == before) {
            Record record;
            std::memcpy(static_cast<void*>(&record), words.data(), sizeof(record));
            return record;
        }
    }
    return std::nullopt;
}

std::string bootOf(const Segment& segment) {
    const auto& boot = segment.head.boot;
    return {boot.begin(), std::find(boot.begin(), boot.end(), '\0')};
}

ProcessIdentity processOf(std::uint64_t owner, const Segment& segment) {
    return {bootOf(segment), static_cast<pid_t>(owner & ((1U << pidBits) - 1)), owner >> pidBits};
}

ShareFigures figuresOf(const Segment& segment) {
    ShareFigures figures;
    figures.boot = bootOf(segment);
    figures.since = segment.head.created;
    std::copy(segment.counts.begin(), segment.counts.end(), figures.counts.begin());
    for (const Slot& slot : segment.slots) {
        const std::uint64_t owner = slot.owner.load(std::memory_order_acquire);
        const auto record = recordOf(slot);
        if (record && record->last.at.boottime > figures.last.at.boottime) {
            figures.last = record->last;
            figures.lastText = {record->text.data(), std::min(record->length, record->text.size())};
        }
        if (owner != 0 && slot.owner.load(std::memory_order_relaxed) == owner) {
            const ProcessIdentity process = processOf(owner, segment);
            figures.unended.push_back(
                {process.pid, !isDead(process),
                 record && record->writer == owner ? record->begun : Moment()});
        }
    }
    return figures;
}

} // namespace

/// A segment, and the slot in it while one is owned.
struct FiguresWriter::State {
    State(const std::string& base, const std::string& share, const std::string& name) {
        constexpr std::size_t longest = 200;
        const std::string shareName = encodedName(share);
        const auto process = identityOf(::getpid());
        if (process && shareName.size() <= longest && name != copiesPrefix &&
            name.size() <= copiesPrefix.size() + longest) {
            constexpr mode_t mode = 0755;
            const Descriptor all = makeOwnFolder(AT_FDCWD, base, mode, false);
            const Descriptor shares = makeOwnFolder(all.get(), "shares", mode, false);
            const Descriptor folder = makeOwnFolder(shares.get(), shareName, mode, false);
            segment = openSegment(folder, name, headOf(name, process->boot));
            self = process->start << pidBits | static_cast<std::uint64_t>(process->pid);
        }
        if (!segment) {
            segment = std::make_shared<Segment>(); // seen by this process only
        }
    }

    /// Takes the next slot that is free; if there is none, one whose owner is dead. The last ones
    /// stay as they are, so that what they say is there whatever happens to this one.
    void begin() {
        const std::uint64_t turn = segment->counts[ShareFigures::begun].fetch_add(1);
        for (std::size_t look = 0; slot == &none && look < 2 * slotCount; ++look) {
            Slot& next = segment->slots[(turn + look) % slotCount];
            std::uint64_t owner = next.owner.load();
            const bool isFree =
                owner == 0 || (look >= slotCount && isDead(processOf(owner, *segment)));
            if (isFree && next.owner.compare_exchange_strong(owner, self)) {
                slot = &next;
                record = recordOf(next).value_or(Record());
            }
        }
        record.writer = self;
        record.begun = now();
        publish(*slot, record);
    }

    void tell(const ShareFigures::Event& event, std::string_view text) {
        record.last = event;
        record.length = text.size();
        text.copy(record.text.data(), record.text.size());
        publish(*slot, record);
    }

    void announced(ShareFigures::Count files, std::string_view name, std::uint64_t size) {
        segment->counts[files] += 1;
        segment->counts[files + 1] += size;
        tell({now(), 0, 0, 0, {}}, name);
    }

    void end() { std::exchange(slot, &none)->owner.store(0, std::memory_order_release); }

    SharedSegment segment;
    std::uint64_t self = 1;
    Slot none{}; // in the place of one that is owned
    Slot* slot = &none;
    Record record;
};

ShareFigures FiguresWriter::figures() const {
    return figuresOf(*state_->segment);
}

ListingFigures::ListingFigures(const std::string& base, const std::string& share) {
    state_ = std::make_shared<State>(base, share, std::string(listingName));
}

void ListingFigures::begin() {
    state_->begin();
}

void ListingFigures::end(int status, std::uint64_t entries, std::string_view complaint) {
    ShareFigures::Event event{now(), status, entries, 0, {}};
    if (status != 0) {
        const ShareFigures::Event before = figures().last;
        event.failuresInARow = before.failuresInARow + 1;
        event.failingSince = before.failuresInARow > 0 ? before.failingSince : event.at;
    }
    state_->tell(event, complaint);
    state_->end();
}

CopyFigures::CopyFigures(const std::string& base, const std::string& share,
                         const std::string& destination) {
    state_ =
        std::make_shared<State>(base, share, std::string(copiesPrefix) + encodedName(destination));
    state_->begin();
}

CopyFigures::~CopyFigures() {
    state_->end();
}

void CopyFigures::confirmed(std::string_view name, std::uint64_t bytes) {
    state_->announced(ShareFigures::confirmedFiles, name, bytes);
}

void CopyFigures::recovered(std::string_view name, std::uint64_t bytes) {
    state_->announced(ShareFigures::recoveredFiles, name, bytes);
}

void CopyFigures::leftUnconfirmed(std::uint64_t files) {
    state_->segment->counts[ShareFigures::unconfirmedFiles] += files;
}

void CopyFigures::flushed(std::chrono::nanoseconds duration, bool failed) {
    auto& counts = state_->segment->counts;
    counts[ShareFigures::flushes] += 1;
    counts[ShareFigures::flushErrors] += failed ? 1 : 0;
    counts[ShareFigures::flushNanoseconds] += static_cast<std::uint64_t>(duration.count());
}

std::optional<ShareFigures> readShareFigures(const std::string& path) {
    const std::filesystem::path parts(path);
    const std::string name = parts.filename();
    const bool isOfCopies = name.compare(0, copiesPrefix.size(), copiesPrefix) == 0;
    const auto share = decodedName(parts.parent_path().filename().string());
    const auto destination = decodedName(isOfCopies ? name.substr(copiesPrefix.size()) : "");
    const Descriptor file(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    const SharedSegment segment = segmentIn(file, headOf(name, ""), false);
    if (!share || !destination || isOfCopies == (name == listingName) || !segment) {
        return std::nullopt;
    }
    ShareFigures figures = figuresOf(*segment);
    figures.share = *share;
    figures.destination = *destination;
    return figures;
}

std::vector<ShareFigures> readAllShareFigures(const std::string& base) {
    std::vector<std::string> paths;
    std::error_code failure; // what can't be read is left out
    std::filesystem::recursive_directory_iterator entry(
        base + "/shares", std::filesystem::directory_options::skip_permission_denied, failure);
    for (; !failure && entry != end(entry); entry.increment(failure)) {
        paths.push_back(entry->path());
    }
    std::sort(paths.begin(), paths.end());
    std::vector<ShareFigures> all;
    for (const std::string& path : paths) {
        if (auto figures = readShareFigures(path)) {
            all.push_back(std::move(*figures));
        }
    }
    return all;
}

} // namespace confirming
