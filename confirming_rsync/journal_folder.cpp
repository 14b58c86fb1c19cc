// Where the journals lie: one folder for each pair of share and destination.
#include "confirming_rsync/journal_folder.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {

namespace {

constexpr mode_t ownFolder = 0700;
constexpr mode_t parentFolder = 0755;

/// A short name for a text of any length and content. That two texts get the same one is unlikely,
/// and does no harm: each journal says in full what it is for.
std::string shortName(std::string_view text) {
    // FNV-1a.
    std::uint64_t hash = 14695981039346656037U;
    for (const char byte : text) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * 1099511628211U;
    }
    constexpr std::string_view digits = "0123456789abcdef";
    std::string name;
    for (int shift = 60; shift >= 0; shift -= 4) {
        name += digits[(hash >> shift) & 15U];
    }
    return name;
}

bool makeParents(const std::string& path) {
    for (std::size_t end = path.find('/', 1); end != std::string::npos;
         end = path.find('/', end + 1)) {
        if (::mkdir(path.substr(0, end).c_str(), parentFolder) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

/// Opens a folder below another one. Empty, errno set, if it is none or not this user's alone.
Descriptor openOwnFolder(int parent, const std::string& name) {
    Descriptor folder(
        ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (folder && ::fstat(folder.get(), &status) == 0 &&
        (status.st_uid != ::geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)) {
        folder.close();
        errno = EPERM;
    }
    return folder;
}

Descriptor makeOwnFolder(int parent, const std::string& name) {
    if (::mkdirat(parent, name.c_str(), ownFolder) != 0 && errno != EEXIST) {
        return {};
    }
    return openOwnFolder(parent, name);
}

} // namespace

Descriptor openJournalFolder(const std::string& base, const std::string& source,
                             const std::string& destination, std::string& failure) {
    Descriptor folder;
    if (makeParents(base)) {
        const Descriptor all = makeOwnFolder(AT_FDCWD, base);
        if (all) {
            folder = makeOwnFolder(all.get(), shortName(source) + "-" + shortName(destination));
        }
    }
    failure = folder ? "" : std::strerror(errno);
    return folder;
}

std::vector<Descriptor> openJournalFolders(const std::string& base, const std::string& source) {
    std::vector<Descriptor> folders;
    const Descriptor all = openOwnFolder(AT_FDCWD, base);
    if (!all) {
        return folders;
    }
    const std::string beginning = shortName(source) + "-";
    for (const std::string& name : namesIn(all)) {
        if (name.compare(0, beginning.size(), beginning) == 0) {
            Descriptor folder = openOwnFolder(all.get(), name);
            if (folder) {
                folders.push_back(std::move(folder));
            }
        }
    }
    return folders;
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
    return names;
}

} // namespace confirming
