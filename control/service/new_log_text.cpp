// What the daemon adds to its log from a moment on, wherever rotation puts it.
#include "control/service/new_log_text.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace control {

namespace {

/// The banner and all that start-up may complain about stand in the first few hundred bytes.
constexpr std::size_t limit = 65536;

/// Archives beyond that are not looked at: a daemon that rotates as often as it can has then gone
/// through many cycles.
constexpr int archivesLookedAt = 100;

/// Opens a regular file for reading, and nothing else.
Descriptor openRegular(const std::string& path, struct stat& status) {
    Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (file.get() >= 0 && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        file.reset();
        return Descriptor();
    }
    return file;
}

std::string readFrom(int file, off_t offset) {
    std::string text(limit, '\0');
    std::size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t count = pread(file, text.data() + filled, text.size() - filled,
                                    offset + static_cast<off_t>(filled));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    text.resize(filled);
    return text;
}

} // namespace

NewLogText::NewLogText(std::string logPath, int highestArchive)
    : path(std::move(logPath)), highest(highestArchive), since(std::time(nullptr)) {
    struct stat status = {};
    original = openRegular(path, status);
    originalSize = original.get() >= 0 ? status.st_size : 0;
}

std::string NewLogText::read() const {
    struct stat first = {};
    std::string text;
    if (original.get() >= 0 && fstat(original.get(), &first) == 0) {
        // Shorter than before: somebody has emptied it.
        text = readFrom(original.get(), first.st_size < originalSize ? 0 : originalSize);
    }
    const auto add = [&](const std::string& name) {
        struct stat status = {};
        const Descriptor file = openRegular(name, status);
        const bool isOriginal =
            status.st_dev == first.st_dev && status.st_ino == first.st_ino && original.get() >= 0;
        if (file.get() >= 0 && !isOriginal && status.st_mtim.tv_sec >= since) {
            text += readFrom(file.get(), 0);
        }
    };
    for (int number = std::min(highest, archivesLookedAt); number >= 0; --number) {
        add(path + "." + std::to_string(number));
    }
    add(path);
    return text;
}

bool NewLogText::isReadable() const {
    struct stat status = {};
    if (openRegular(path, status).get() >= 0) {
        return true;
    }
    // Not there (yet) is not unreadable.
    return stat(path.c_str(), &status) != 0 && errno == ENOENT;
}

} // namespace control
