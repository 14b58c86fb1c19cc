// The journal of the run that is going on: what it means to copy, and what it has confirmed.
#include "confirming_rsync/journal.h"

#include "confirming_rsync/printed_name.h"
#include "confirming_rsync/text_files.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {

namespace {

constexpr mode_t ownFile = 0600;
constexpr std::string_view journalPrefix = "run-";
constexpr std::string_view unfinishedPrefix = "new-";

bool beginsWith(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

} // namespace

Journal::Journal(Descriptor folder, const JournalHead& head, const std::vector<std::string>& names)
    : folder_(std::move(folder)) {
    const std::string ownName = std::to_string(head.begun) + "-" + std::to_string(::getpid());
    const std::string unfinished = std::string(unfinishedPrefix) + ownName;
    name_ = std::string(journalPrefix) + ownName;
    file_ = Descriptor(::openat(folder_.get(), unfinished.c_str(),
                                O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, ownFile));
    if (!file_ || !hold(file_)) {
        fail();
        return;
    }
    std::string text = headText(head);
    for (const std::string& name : names) {
        if (staysBelow(name)) {
            text += intendedLine(name);
        }
    }
    if (!writeText(file_, text) ||
        ::renameat(folder_.get(), unfinished.c_str(), folder_.get(), name_.c_str()) != 0) {
        fail();
        ::unlinkat(folder_.get(), unfinished.c_str(), 0);
    }
}

void Journal::write(std::string_view lines) {
    if (file_ && failure_.empty() && !lines.empty() && !writeText(file_, lines)) {
        fail();
    }
}

void Journal::remove() {
    if (!name_.empty()) {
        ::unlinkat(folder_.get(), name_.c_str(), 0);
    }
}

void Journal::fail() {
    failure_ = std::strerror(errno);
}

bool isUnfinishedJournal(std::string_view name) {
    return beginsWith(name, unfinishedPrefix);
}

bool isJournal(std::string_view name) {
    return beginsWith(name, journalPrefix);
}

bool hold(const Descriptor& journal) {
    struct stat status {};
    return ::flock(journal.get(), LOCK_EX | LOCK_NB) == 0 && ::fstat(journal.get(), &status) == 0 &&
           status.st_nlink > 0;
}

} // namespace confirming
