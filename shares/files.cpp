// Reading whole texts; files and folders that nobody but this user can have filled.
#include "shares/files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace confirming {

namespace {

/// Keeps what is this user's alone; else it is closed, and errno set.
Descriptor ownOnly(Descriptor opened, mode_t type) {
    struct stat status {};
    int error = 0;
    if (opened && ::fstat(opened.get(), &status) != 0) {
        error = errno;
    } else if (opened && ((status.st_mode & S_IFMT) != type || !isOwn(status))) {
        error = EPERM;
    }
    if (error != 0) {
        opened.reset();
        errno = error;
    }
    return opened;
}

} // namespace

bool readText(const Descriptor& file, std::string& text) {
    std::array<char, 65536> buffer{};
    ssize_t count = 0;
    text.clear();
    while ((count = TEMP_FAILURE_RETRY(::read(file.get(), buffer.data(), buffer.size()))) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return count == 0;
}

std::optional<std::string> readTextFile(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    std::string text;
    return file && readText(file, text) ? std::optional(text) : std::nullopt;
}

bool isOwn(const struct stat& status) {
    return status.st_uid == ::geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

Descriptor openOwnFile(const Descriptor& folder, const std::string& name) {
    return ownOnly(Descriptor(::openat(folder.get(), name.c_str(),
                                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)),
                   S_IFREG);
}

Descriptor openOwnFolder(int parent, const std::string& name) {
    return ownOnly(
        Descriptor(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)),
        S_IFDIR);
}

Descriptor makeOwnFolder(int parent, const std::string& name, mode_t mode, bool isDurable) {
    const bool isNew = ::mkdirat(parent, name.c_str(), mode) == 0;
    if (!isNew && errno != EEXIST) {
        return {};
    }
    Descriptor folder = openOwnFolder(parent, name);
    if (isNew && folder) {
        ::fchmod(folder.get(), mode);
    }
    if (isNew && isDurable && parent >= 0) {
        ::fsync(parent);
    }
    return folder;
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
