// Where the journals lie: one folder for each pair of share and destination.
#include "shares/journal_folder.h"

#include "shares/encoded_name.h"
#include "shares/files.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace confirming {

namespace {

constexpr mode_t mode = 0700;
constexpr mode_t modeOfParents = 0755;

bool makeParents(const std::string& path) {
    for (std::size_t end = path.find('/', 1); end != std::string::npos;
         end = path.find('/', end + 1)) {
        if (::mkdir(path.substr(0, end).c_str(), modeOfParents) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
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
        const Descriptor all = makeOwnFolder(AT_FDCWD, base, mode, true);
        const Descriptor share =
            all ? makeOwnFolder(all.get(), encodedName(source), mode, true) : Descriptor();
        if (share) {
            folder = makeOwnFolder(share.get(), encodedName(destination), mode, true);
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

} // namespace confirming
