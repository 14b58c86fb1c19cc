// What is in place under an announced path, asked without following any link below the target.
#include "relay/file_look.h"

#include <cerrno>
#include <cstddef>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace relay {

namespace {

FileType typeOf(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return FileType::file;
    case S_IFDIR:
        return FileType::folder;
    case S_IFLNK:
        return FileType::link;
    default:
        return FileType::special;
    }
}

} // namespace

int openBeneath(int folder, const std::string& name, int flags) {
    open_how how{};
    how.flags = static_cast<unsigned>(flags) | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(::syscall(SYS_openat2, folder, name.c_str(), &how, sizeof how));
}

Identity identityOf(const struct stat& status) {
    return {status.st_size, status.st_mtim.tv_sec * billion + status.st_mtim.tv_nsec,
            status.st_ino};
}

void FileLook::at(const Located& place, Record& record) {
    if (targetPath != place.target) {
        targetPath = place.target;
        folder.reset();
        folderError = 0;
        target = Descriptor(::open(targetPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        targetError = target ? 0 : errno;
    }
    if (!target) {
        record.isGone = targetError == ENOENT;
        return;
    }
    const std::size_t slash = place.name.rfind('/');
    const std::string_view inFolder =
        slash == std::string_view::npos ? std::string_view(".") : place.name.substr(0, slash);
    const std::string leaf(slash == std::string_view::npos ? place.name
                                                           : place.name.substr(slash + 1));
    if ((!folder && folderError == 0) || folderName != inFolder) {
        folderName = inFolder;
        folder = Descriptor(openBeneath(target.get(), folderName, O_PATH | O_DIRECTORY));
        folderError = folder ? 0 : errno;
    }
    if (!folder) {
        // ELOOP: a link; EXDEV: ".." that leads out of the target.
        record.way = folderError == ELOOP || folderError == EXDEV ? Way::hasLink : Way::unknown;
        record.isGone = folderError == ENOENT;
        return;
    }
    record.way = place.isCertain ? Way::linkFree : Way::unknown;
    struct stat status {};
    if (leaf.empty() || leaf == "." || leaf == ".." ||
        ::fstatat(folder.get(), leaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        record.isGone = !leaf.empty() && errno == ENOENT;
        return;
    }
    record.type = typeOf(status.st_mode);
    record.identity = identityOf(status);
}

} // namespace relay
