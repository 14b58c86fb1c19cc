// Reading whole texts.
#include "confirming_rsync/text_files.h"

#include <array>
#include <cerrno>
#include <cstddef>

#include <fcntl.h>
#include <unistd.h>

namespace confirming {

bool readText(const Descriptor& file, std::string& text) {
    std::array<char, 65536> buffer{};
    text.clear();
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return count == 0;
        }
    }
}

std::optional<std::string> readTextFile(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    std::string text;
    if (!file || !readText(file, text)) {
        return std::nullopt;
    }
    return text;
}

} // namespace confirming
