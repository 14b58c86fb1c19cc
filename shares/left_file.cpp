// The files of names that runs which are over have left: what waits to be announced.
#include "shares/left_file.h"

#include "shares/files.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {

bool hold(const Descriptor& file) {
    struct stat status {};
    return ::flock(file.get(), LOCK_EX | LOCK_NB) == 0 && ::fstat(file.get(), &status) == 0 &&
           status.st_nlink > 0;
}

bool isForeign(int error) {
    return error == ELOOP || error == ENXIO || error == EACCES || error == EPERM;
}

std::optional<LeftNames> readLeft(const Descriptor& folder, const char* name, bool& isDamaged) {
    const Descriptor file = openOwnFile(folder, name);
    std::string text;
    isDamaged = !file && isForeign(errno);
    if (!file && errno == ENOENT) {
        return LeftNames();
    }
    if (!file || !readText(file, text)) {
        return std::nullopt;
    }
    auto left = readLeftNames(text);
    isDamaged = !left;
    return left;
}

bool writeLeft(const Descriptor& folder, const char* name, const LeftNames& left) {
    if (left.names.empty() && left.remarks.empty()) {
        return ::unlinkat(folder.get(), name, 0) == 0 || errno == ENOENT;
    }
    const std::string fresh = std::string("new-") + name;
    ::unlinkat(folder.get(), fresh.c_str(), 0);
    const Descriptor file(::openat(folder.get(), fresh.c_str(),
                                   O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    return file && writeAll(file.get(), leftNamesText(left)) && ::fsync(file.get()) == 0 &&
           ::renameat(folder.get(), fresh.c_str(), folder.get(), name) == 0 &&
           ::fsync(folder.get()) == 0;
}

} // namespace confirming
