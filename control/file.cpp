// Reading a file, and telling which file it is, without being made to wait by what it turns out to
// be.
#include "control/file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace control {

std::optional<FileId> fileIdOf(const std::string& path) {
    struct statx status = {};
    if (statx(AT_FDCWD, path.c_str(), AT_STATX_DONT_SYNC, STATX_INO, &status) != 0) {
        return std::nullopt;
    }
    return FileId{makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
}

FileVersion versionOf(const struct stat& status) {
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec};
}

std::optional<FileVersion> versionOf(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? std::optional(versionOf(status)) : std::nullopt;
}

double modificationTime(const struct stat& status) {
    return static_cast<double>(status.st_mtim.tv_sec) +
           static_cast<double>(status.st_mtim.tv_nsec) / 1e9;
}

std::optional<double> modificationTime(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? std::optional(modificationTime(status))
                                             : std::nullopt;
}

OpenedFile openRegularFile(const std::string& path, int flags) {
    OpenedFile file;
    const auto refuse = [&file](int error) {
        file.error = error;
        file.problem = std::strerror(error);
        return std::move(file);
    };
    const Descriptor place(open(path.c_str(), O_PATH | O_CLOEXEC | flags));
    if (place.get() < 0 || fstat(place.get(), &file.status) != 0) {
        return refuse(errno);
    }
    if (!S_ISREG(file.status.st_mode)) {
        file.problem = S_ISDIR(file.status.st_mode)   ? "it is a directory"
                       : S_ISLNK(file.status.st_mode) ? "it is a symbolic link"
                                                      : "not a regular file";
        return file;
    }
    // The very file that was looked at. Some files of the kernel would block all the same.
    const std::string opened = "/proc/self/fd/" + std::to_string(place.get());
    file.descriptor = Descriptor(open(opened.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return file.descriptor.get() < 0 ? refuse(errno) : std::move(file);
}

FileText readFile(const std::string& path, std::size_t limit, off_t offset, int flags) {
    const OpenedFile file = openRegularFile(path, flags);
    FileText read{std::nullopt, file.problem, file.error, file.status};
    std::string text;
    char part[16384];
    for (ssize_t got = 1; file.descriptor && got > 0 && text.size() < limit;) {
        got = TEMP_FAILURE_RETRY(pread(file.descriptor.get(), part,
                                       std::min(sizeof part, limit - text.size()),
                                       offset + static_cast<off_t>(text.size())));
        if (got < 0) {
            read.error = errno;
            read.problem = std::strerror(errno);
            return read;
        }
        text.append(part, static_cast<std::size_t>(got));
    }
    if (file.descriptor) {
        read.text = std::move(text);
    }
    return read;
}

bool replaceFile(const std::string& path, const std::string& text) {
    const std::string fresh = path + ".new";
    unlink(fresh.c_str());
    const Descriptor file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    return file.get() >= 0 && fchmod(file.get(), 0644) == 0 && writeAll(file.get(), text) &&
           std::rename(fresh.c_str(), path.c_str()) == 0;
}

} // namespace control
