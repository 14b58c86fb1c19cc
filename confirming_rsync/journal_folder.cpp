// Where the journals lie: one folder for each pair of share and destination.
#include "confirming_rsync/journal_folder.h"

#include "confirming_rsync/encoded_name.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {

namespace {

constexpr mode_t ownFolder = 0700;
constexpr mode_t parentFolder = 0755;

bool makeParents(const std::string& path) {
    for (std::size_t end = path.find('/', 1); end != std::string::npos;
         end = path.find('/', end + 1)) {
        if (::mkdir(path.substr(0, end).c_str(), parentFolder) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

/// Keeps what is this user's alone; else it is closed, and errno set.
Descriptor ownOnly(Descriptor opened, mode_t type) {
    struct stat status {};
    int error = 0;
    if (opened && ::fstat(opened.get(), &status) != 0) {
        error = errno;
    } else if (opened && ((status.st_mode & S_IFMT) != type || status.st_uid != ::geteuid() ||
                          (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)) {
        error = EPERM;
    }
    if (error != 0) {
        opened.reset();
        errno = error;
    }
    return opened;
}

Descriptor openOwnFolder(int parent, const std::string& name) {
    return ownOnly(
        Descriptor(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)),
        S_IFDIR);
}

Descriptor makeOwnFolder(int parent, const std::string& name) {
    if (::mkdirat(parent, name.c_str(), ownFolder) == 0) {
        ::fsync(parent); // there after a cut of the power, too
    } else if (errno != EEXIST) {
        return {};
    }
    return openOwnFolder(parent, name);
}

} // namespace

std::string journalFolder(const std::string& base, const std::string& source,
                          const std::string& destination) {
    return base + "/" + encodedName(source) + "/" + encodedName(destination);
}

Descriptor openJournalFolder(const std::string& base, const std::string& source,
                             const std::string& destination, std::string& failure) {
    Descriptor folder;
    if (makeParents(base)) {
        const Descriptor all = makeOwnFolder(AT_FDCWD, base);
        const Descriptor share = all ? makeOwnFolder(all.get(), encodedName(source)) : Descriptor();
        if (share) {
            folder = makeOwnFolder(share.get(), encodedName(destination));
        }
    }
    failure = folder ? "" : std::strerror(errno);
    return folder;
}

std::map<std::string, Descriptor> openJournalFolders(const std::string& base,
                                                     const std::string& source) {
    std::map<std::string, Descriptor> folders;
    const Descriptor all = openOwnFolder(AT_FDCWD, base);
    const Descriptor share = all ? openOwnFolder(all.get(), encodedName(source)) : Descriptor();
    if (!share) {
        return folders;
    }
    for (const std::string& name : namesIn(share)) {
        Descriptor folder = openOwnFolder(share.get(), name);
        if (folder) {
            folders.emplace(decodedName(name).value_or(name), std::move(folder));
        }
    }
    return folders;
}

Descriptor openOwnFile(const Descriptor& folder, const std::string& name) {
    return ownOnly(Descriptor(::openat(folder.get(), name.c_str(),
                                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)),
                   S_IFREG);
}

std::vector<std::string> namesIn(const Descriptor& folder) {
    // One of its own: reading moves a position that would be shared.
    const int own = ::openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const auto close = [](DIR* directory) { ::closedir(directory); };
    const std::unique_ptr<DIR, decltype(close)> directory(own >= 0 ? ::fdopendir(own) : nullptr,
                                                          close);
    std::vector<std::string> names;
    if (!directory) {
        return names;
    }
    while (const struct dirent* entry = ::readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace confirming
