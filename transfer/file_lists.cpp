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
constexpr mode_t fileListMode = 0644;

/// How many of the first `count` bytes of `lines` are whole lines.
std::size_t wholeLines(std::string_view lines, off_t count) {
    const auto begun = lines.substr(0, static_cast<std::size_t>(std::max<off_t>(count, 0)));
    const std::size_t end = begun.rfind('\n');
    return end == std::string_view::npos ? 0 : end + 1;
}

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
        writePending();
    }
}

void FileList::close() {
    writePending();
    file.reset();
}

void FileList::writePending() {
    const off_t begin = lseek(file.get(), 0, SEEK_CUR);
    if (!writeAll(file.get(), pending)) {
        // The half of a name that fitted in, or had a later one glued to it when there is room
        // again, would be the name of something else.
        const off_t written = lseek(file.get(), 0, SEEK_CUR) - begin;
        const std::size_t whole = wholeLines(pending, written);
        const int result = ftruncate(file.get(), begin + static_cast<off_t>(whole));
        static_cast<void>(result); // to be made shorter, a file needs no room
        file.reset();
    }
    pending.clear();
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
    // Now, and not when its own copy process starts: until then there may be long pauses, in which
    // /tmp may fill.
    for (FileList& list : lists) {
        list.close();
    }
    return lists;
}
