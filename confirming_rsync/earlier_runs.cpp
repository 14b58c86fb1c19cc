// The journals that earlier runs have left behind: finding, holding, reading and removing them.
#include "confirming_rsync/earlier_runs.h"

#include "confirming_rsync/file_list.h"
#include "confirming_rsync/journal.h"
#include "confirming_rsync/journal_folder.h"
#include "confirming_rsync/text_files.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {

namespace {

constexpr mode_t ownFile = 0600;
constexpr const char* turnName = "turn";

Descriptor openFile(const Descriptor& folder, const std::string& name) {
    return Descriptor(::openat(folder.get(), name.c_str(),
                               O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

/// True if nobody but this user can have written it.
bool isOwnFile(const Descriptor& file) {
    struct stat status {};
    return ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_uid == ::geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::string readFromBeginning(const Descriptor& file) {
    ::lseek(file.get(), 0, SEEK_SET);
    return readText(file);
}

std::optional<ReadJournal> readJournal(const std::string& text) {
    std::string_view rest = text;
    const auto head = takeHead(rest);
    auto body = head ? readBody(rest) : std::nullopt;
    if (!body) {
        return std::nullopt;
    }
    return ReadJournal{*head, std::move(*body)};
}

} // namespace

EarlierRuns::EarlierRuns(const Descriptor& folder, const Wanted& wanted, const std::string& except)
    : folder_(folder), except_(except),
      turn_(::openat(folder.get(), turnName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, ownFile)) {
    if (!turn_ || !hold(turn_)) {
        return;
    }
    std::vector<std::string> names = namesIn(folder);
    // By their begin: a run's number has as many digits as the next one's, or fewer.
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        if (isJournal(name) && name != except_) {
            look(name, wanted);
        } else if (isUnfinishedJournal(name)) {
            const Descriptor file = openFile(folder, name);
            if (file && hold(file)) {
                ::unlinkat(folder.get(), name.c_str(), 0);
            }
        }
    }
}

void EarlierRuns::look(const std::string& name, const Wanted& wanted) {
    Descriptor file = openFile(folder_, name);
    if (!file && errno != ELOOP && errno != ENXIO && errno != EACCES) {
        // Gone by now, or there is no descriptor to be had: nothing that speaks against it.
        return;
    }
    if (!file || !isOwnFile(file)) {
        setAside(name, "not a file of this program's");
        return;
    }
    if (!hold(file)) {
        return;
    }
    const std::string text = readText(file);
    std::string_view rest = text;
    const auto head = takeHead(rest);
    if (!head) {
        setAside(name, "damaged");
        return;
    }
    if ((wanted.source != nullptr && *wanted.source != head->source) ||
        (wanted.destination != nullptr && *wanted.destination != head->destination)) {
        setAside(name, "of another share or destination");
        return;
    }
    const bool handedOff = isAlive(head->daemon);
    if (handedOff && (isStillThere(head->list) ||
                      (wanted.daemon != nullptr && *wanted.daemon != head->daemon))) {
        return;
    }
    if (!handedOff || !isAllDone(text)) {
        if (!readBody(rest)) {
            setAside(name, "damaged");
            return;
        }
        leaveNamesOpen_ = true;
    }
    held_.push_back({name, std::move(file)});
}

std::vector<ReadJournal> EarlierRuns::read() {
    std::vector<ReadJournal> journals;
    for (const Held& held : held_) {
        auto journal = readJournal(readFromBeginning(held.file));
        if (journal) {
            journals.push_back(std::move(*journal));
        } else {
            setAside(held.name, "damaged");
        }
    }
    return journals;
}

std::vector<ReadJournal> EarlierRuns::readGoingOn(const ProcessIdentity& daemon) const {
    std::vector<ReadJournal> journals;
    for (const std::string& name : namesIn(folder_)) {
        if (!isJournal(name) || name == except_ || isHeld(name)) {
            continue;
        }
        const Descriptor file = openFile(folder_, name);
        if (!file || !isOwnFile(file)) {
            continue;
        }
        auto journal = readJournal(readText(file));
        if (journal && journal->head.daemon == daemon) {
            journals.push_back(std::move(*journal));
        }
    }
    return journals;
}

void EarlierRuns::remove() {
    for (const Held& held : held_) {
        ::unlinkat(folder_.get(), held.name.c_str(), 0);
    }
    held_.clear();
}

void EarlierRuns::setAside(const std::string& name, const std::string& why) {
    const std::string aside = "damaged-" + name;
    const bool moved = ::renameat(folder_.get(), name.c_str(), folder_.get(), aside.c_str()) == 0;
    remarks_.push_back("the journal " + name + " is not used: " + why +
                       (moved ? "; set aside as " + aside : "; it could not be set aside"));
}

bool EarlierRuns::isHeld(const std::string& name) const {
    return std::any_of(held_.begin(), held_.end(),
                       [&name](const Held& held) { return held.name == name; });
}

} // namespace confirming
