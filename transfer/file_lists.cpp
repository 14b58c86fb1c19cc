// Dealing the names of a cycle to file lists.
#include "transfer/file_lists.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

constexpr std::size_t namesPerProcess = 101;
constexpr std::size_t writeSize = 65536;
constexpr mode_t fileListMode = 0600;

} // namespace

int copyProcessCount(std::size_t count, int setting) {
    const std::uint64_t wanted = count / namesPerProcess + 1;
    const auto limit =
        static_cast<std::uint64_t>(static_cast<std::int64_t>(setting == 0 ? 1 : setting));
    return static_cast<int>(std::min(wanted, limit));
}

std::string fileListName(int index) {
    const auto thread = static_cast<std::int32_t>(static_cast<std::uint32_t>(pthread_self()));
    return "/tmp/file_list_" + std::to_string(getpid()) + "_" + std::to_string(thread) + "_" +
           std::to_string(index);
}

FileList::FileList(std::string nameOfFile) : fileName(std::move(nameOfFile)) {
    // What a dead daemon left under this name, or someone planted there, is not written through.
    unlink(fileName.c_str());
    file = Descriptor(moveAboveStandard(
        open(fileName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, fileListMode)));
}

void FileList::add(std::string_view entry) {
    pending += entry;
    pending += '\n';
    if (pending.size() >= writeSize) {
        writeAll(file.get(), pending);
        pending.clear();
    }
}

void FileList::close() {
    writeAll(file.get(), pending);
    pending.clear();
    file.reset();
}

std::vector<FileList> dealNames(const NameList& names, int n) {
    std::vector<FileList> lists;
    lists.reserve(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        lists.emplace_back(fileListName(i));
    }
    std::size_t k = 0;
    for (const std::string_view name : names) {
        lists[k++ % lists.size()].add(name);
    }
    return lists;
}
