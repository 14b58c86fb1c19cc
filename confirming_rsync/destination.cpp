// The directory that the files arrive in.
#include "confirming_rsync/destination.h"

#include "confirming_rsync/printed_name.h"

#include <optional>
#include <utility>

#include <sys/stat.h>

namespace confirming {

namespace {

std::optional<struct stat> statusOf(const std::string& directory, const std::string& name) {
    const std::string path = directory + "/" + unprintedName(name);
    struct stat status {};
    if (path.find('\0') != std::string::npos || ::lstat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return status;
}

} // namespace

Destination::Destination(std::string path) : path_(std::move(path)) {
}

bool Destination::sentLineMayFollow(const std::string& name) const {
    const auto status = statusOf(path_, name);
    return !status || !S_ISREG(status->st_mode) || status->st_nlink != 1;
}

bool Destination::hasFile(const std::string& name) const {
    const auto status = statusOf(path_, name);
    return status && !S_ISDIR(status->st_mode);
}

} // namespace confirming
