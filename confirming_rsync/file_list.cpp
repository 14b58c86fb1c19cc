// The list of names that stock rsync is told to copy.
#include "confirming_rsync/file_list.h"

#include "confirming_rsync/left_names.h"
#include "shares/files.h"
#include "shares/printed_name.h"
#include "utilities/descriptors.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {

namespace {

/// The name without what does not change the file it means.
std::string_view trimmed(std::string_view name) {
    for (;;) {
        if (name.substr(0, 1) == "/") {
            name.remove_prefix(1);
        } else if (name.substr(0, 2) == "./") {
            name.remove_prefix(2);
        } else {
            return name;
        }
    }
}

/// True if no part of the name is empty, "." or "..".
bool isPlain(std::string_view name) {
    for (;;) {
        const std::size_t end = name.find('/');
        const std::string_view part = name.substr(0, end);
        if (part.empty() || part == "." || part == "..") {
            return false;
        }
        if (end == std::string_view::npos) {
            return true;
        }
        name.remove_prefix(end + 1);
    }
}

/// True if nobody but this user and root can have written the file or put it there.
bool isTrusted(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           (status.st_uid == ::geteuid() || status.st_uid == 0) &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

FileIdentity identityFrom(const struct stat& status, const std::string& path) {
    constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
    return {status.st_dev, status.st_ino,
            status.st_mtim.tv_sec * nanosecondsPerSecond + status.st_mtim.tv_nsec, path};
}

} // namespace

ListedNames listedNames(std::string_view text, bool endedByNul) {
    ListedNames listed;
    while (!text.empty()) {
        std::size_t end = text.find(endedByNul ? '\0' : '\n');
        if (!endedByNul) {
            end = std::min(end, text.substr(0, end).find('\r'));
        }
        const std::string_view name = text.substr(0, end);
        if (isReminder(name)) {
            listed.hasReminder = true;
        } else if (isPlain(trimmed(name))) {
            listed.names.push_back(printedName(trimmed(name)));
        } else if (!name.empty()) {
            listed.others.push_back(printedName(name));
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return listed;
}

FileList readFileList(const std::string& path) {
    const Descriptor file(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    FileList list;
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        list.failure = errno == ELOOP ? "it is a link" : std::strerror(errno);
    } else if (!isTrusted(status)) {
        list.failure = "others than its user may have written it";
    } else if (!readText(file, list.text)) {
        list.failure = std::strerror(errno);
    }
    list.identity = identityFrom(status, path);
    return list;
}

bool isStillThere(const FileIdentity& list) {
    struct stat status {};
    if (::lstat(list.path.c_str(), &status) != 0) {
        // Only this proves it.
        return errno != ENOENT;
    }
    const FileIdentity now = identityFrom(status, list.path);
    return now.device == list.device && now.inode == list.inode && now.modified == list.modified;
}

} // namespace confirming
