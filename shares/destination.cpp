// The directory that the files arrive in: what is in place there, and making it durable.
#include "shares/destination.h"

#include "shares/printed_name.h"
#include "shares/process_identity.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace confirming {

namespace {

/// Whether the system says that there is nothing of a name: of one behind a link, or one that
/// nothing can have, it says so in other ways.
bool isAbsence(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

} // namespace

Destination::Destination(const std::string& path)
    : path_(path), directory_(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      openError_(errno) {
}

/// Opens what has that name, a raw one, below the directory and on no detour. Folder by folder:
/// where a service is kept from setting set-user-ID bits, systemd refuses the call that does it at
/// once (openat2).
Descriptor Destination::open(const std::string& name, int flags) const {
    if (!directory_ || name.find('\0') != std::string::npos) {
        errno = directory_ ? ENOENT : openError_;
        return {};
    }
    Descriptor folder;
    int at = directory_.get();
    for (std::string_view rest = name;;) {
        const std::size_t end = rest.find('/');
        const bool isLast = end == std::string_view::npos;
        const std::string part(rest.substr(0, end));
        if (part == "..") {
            errno = ENOENT; // nothing below the directory
            return {};
        }
        Descriptor next(::openat(at, part.c_str(),
                                 (isLast ? flags : O_PATH | O_DIRECTORY) | O_NOFOLLOW | O_CLOEXEC));
        if (isLast || !next) {
            return next;
        }
        folder = std::move(next);
        at = folder.get();
        rest.remove_prefix(end + 1);
    }
}

std::optional<struct stat> Destination::fileHere(const std::string& name) const {
    const Descriptor file = open(unprintedName(name), O_PATH);
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        return std::nullopt;
    }
    if (S_ISDIR(status.st_mode)) {
        errno = ENOENT;
        return std::nullopt;
    }
    return status;
}

std::optional<struct stat> Destination::file(const std::string& name) const {
    const auto found = fileHere(name);
    // Else it may be in the one that stands there by now.
    return found || isInItsPlace() ? found : Destination(path_).fileHere(name);
}

std::optional<std::uint64_t> Destination::sizeOf(const std::string& name) const {
    const auto status = file(name);
    return status ? std::optional(static_cast<std::uint64_t>(status->st_size)) : std::nullopt;
}

Destination::Presence Destination::presence(const std::string& name) const {
    if (fileHere(name)) {
        return Presence::there;
    }
    const bool isAbsent = isAbsence(errno);
    if (isInItsPlace()) {
        return isAbsent ? Presence::absent : Presence::unknown;
    }
    return file(name) ? Presence::there : Presence::unknown;
}

/// False if another directory, or something else, stands there by now: what is not in this one may
/// be in that.
bool Destination::isInItsPlace() const {
    struct stat own {};
    struct stat there {};
    if (::stat(path_.c_str(), &there) != 0) {
        return !directory_ && errno == ENOENT;
    }
    return directory_ && ::fstat(directory_.get(), &own) == 0 && own.st_dev == there.st_dev &&
           own.st_ino == there.st_ino;
}

bool Destination::canBeDurable() const {
    struct statfs system {};
    return ::fstatfs(directory_.get(), &system) != 0 ||
           (system.f_type != TMPFS_MAGIC && system.f_type != RAMFS_MAGIC);
}

bool Destination::keepsFractions() const {
    constexpr long someNanoseconds = 123456789;
    const Descriptor file(
        ::openat(directory_.get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, S_IRUSR | S_IWUSR));
    const std::array<struct timespec, 2> times{{{1, someNanoseconds}, {1, someNanoseconds}}};
    struct stat status {};
    if (!file || ::futimens(file.get(), times.data()) != 0 || ::fstat(file.get(), &status) != 0) {
        return true; // as on all but very old file systems
    }
    return status.st_mtim.tv_nsec == someNanoseconds;
}

std::optional<std::uint64_t> Destination::oldInode(const std::string& name,
                                                   std::optional<std::int64_t> boot) const {
    return isInItsPlace() ? oldInodeHere(name, boot) : Destination(path_).oldInodeHere(name, boot);
}

std::optional<std::uint64_t> Destination::oldInodeHere(const std::string& name,
                                                       std::optional<std::int64_t> boot) const {
    const Descriptor file = open(unprintedName(name), O_PATH);
    struct statx status {};
    constexpr unsigned wanted = STATX_TYPE | STATX_INO | STATX_BTIME | STATX_CTIME;
    if (!file || ::statx(file.get(), "", AT_EMPTY_PATH, wanted, &status) != 0) {
        return isAbsence(errno) ? std::nullopt : std::optional<std::uint64_t>(0);
    }
    if (!S_ISREG(status.stx_mode)) {
        return std::nullopt; // the others have nothing that could come later than their times
    }
    // Each copy makes a new file. The time of its last change would do as well, had nobody given
    // all files another owner since.
    const bool hasBirth = (status.stx_mask & STATX_BTIME) != 0;
    const std::int64_t made = hasBirth ? status.stx_btime.tv_sec : status.stx_ctime.tv_sec;
    // Not time(): its clock runs some milliseconds behind the one that files are dated by.
    struct timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return isSinceBoot(made, boot, now.tv_sec) ? std::nullopt
                                               : std::optional<std::uint64_t>(status.stx_ino);
}

std::string Destination::makeDurable(const std::vector<std::string>& names) const {
    if (flush(names)) {
        return {};
    }
    std::string failure = std::strerror(errno);
    // The system does not try again to write what it could not write, and what it has in memory
    // looks sound. Rsync has to find a difference.
    constexpr std::array<struct timespec, 2> longAgo{{{0, UTIME_OMIT}, {0, 0}}};
    for (const std::string& name : names) {
        const Descriptor file = open(unprintedName(name), O_RDONLY | O_NONBLOCK | O_NOCTTY);
        if (file) {
            ::futimens(file.get(), longAgo.data());
        }
    }
    return failure;
}

/// False, errno set, if it is not known that all of it is on the disk.
bool Destination::flush(const std::vector<std::string>& names) const {
    // One call for the whole file system: it waits for what others have written there, too, but a
    // call for each file has the disk empty its cache each time, which takes fifty times as long.
    struct stat own {};
    struct statfs system {};
    if (::syncfs(directory_.get()) != 0 || ::fstat(directory_.get(), &own) != 0 ||
        ::fstatfs(directory_.get(), &system) != 0) {
        return false;
    }
    if ((system.f_flags & ST_RDONLY) != 0) {
        // Made so because of an error: it then has nothing to write, and nothing to complain about.
        errno = EROFS;
        return false;
    }
    for (const std::string& name : names) {
        const auto status = file(name);
        // Some file systems don't pass that call on; and others may be mounted in the directory.
        if (status && S_ISREG(status->st_mode) &&
            (system.f_type == FUSE_SUPER_MAGIC || status->st_dev != own.st_dev)) {
            const Descriptor file = open(unprintedName(name), O_RDONLY | O_NONBLOCK | O_NOCTTY);
            if (!file || ::fsync(file.get()) != 0 || ::syncfs(file.get()) != 0) {
                return false;
            }
        }
    }
    return true;
}

} // namespace confirming
