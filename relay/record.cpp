// One announcement, as the relay knows it.
#include "relay/record.h"

#include <array>
#include <cstddef>
#include <ctime>

namespace relay {

namespace {

constexpr std::array<std::string_view, 4> kindNames = {"file", "usershift", "run", "other"};
constexpr std::array<std::string_view, 5> typeNames = {"unknown", "file", "folder", "link",
                                                       "special"};

bool beginsWith(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

} // namespace

Kind kindOfLine(std::string_view line) {
    if (beginsWith(line, "/") && line.find('\0') == std::string_view::npos) {
        return Kind::file;
    }
    if (beginsWith(line, "usershift: ")) {
        return Kind::usershift;
    }
    return beginsWith(line, "run: ") ? Kind::run : Kind::other;
}

std::string lineOf(const Record& record) {
    return record.path + '\n';
}

std::string_view nameOf(Kind kind) {
    return kindNames.at(static_cast<std::size_t>(kind));
}

std::string_view nameOf(FileType type) {
    return typeNames.at(static_cast<std::size_t>(type));
}

std::optional<Kind> kindNamed(std::string_view name) {
    for (std::size_t number = 0; number < kindNames.size(); ++number) {
        if (kindNames.at(number) == name) {
            return static_cast<Kind>(number);
        }
    }
    return std::nullopt;
}

std::int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time.tv_sec * billion + time.tv_nsec;
}

} // namespace relay
