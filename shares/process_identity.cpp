// Telling one process from every other, also from a later one with the same number.
#include "shares/process_identity.h"

#include "shares/files.h"
#include "utilities/text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <utility>

namespace confirming {

namespace {

std::optional<std::string> statusText(pid_t pid) {
    return readTextFile("/proc/" + std::to_string(pid) + "/stat");
}

template<typename Number>
bool readNumber(std::string_view word, Number& number) {
    const char* const end = word.data() + word.size();
    const auto read = std::from_chars(word.data(), end, number);
    return read.ec == std::errc() && read.ptr == end;
}

} // namespace

std::string currentBoot() {
    const auto text = readTextFile("/proc/sys/kernel/random/boot_id");
    return text ? text->substr(0, text->find('\n')) : "";
}

bool operator==(const ProcessIdentity& left, const ProcessIdentity& right) {
    return left.boot == right.boot && left.pid == right.pid && left.start == right.start;
}

std::optional<ProcessIdentity> identityOf(pid_t pid) {
    const auto status = parseProcessStatus(statusText(pid).value_or(""));
    std::string boot = currentBoot();
    if (!status || boot.empty()) {
        return std::nullopt;
    }
    return ProcessIdentity{std::move(boot), pid, status->start};
}

bool isDead(const ProcessIdentity& process) {
    const std::string boot = currentBoot();
    if (boot != process.boot) {
        return !boot.empty();
    }
    const auto text = statusText(process.pid);
    if (!text) {
        return errno == ENOENT;
    }
    const auto status = parseProcessStatus(*text);
    return status && (!status->isRunning() || status->start != process.start);
}

std::optional<ProcessStatus> parseProcessStatus(std::string_view text) {
    // PID (NAME) STATE PARENT GROUP and then more numbers.
    constexpr int fieldsBetween = 16; // the group and the start
    using UTILITIES::takeWord;
    text.remove_prefix(std::min(text.size(), text.rfind(')')));
    takeWord(text);
    const std::string_view state = takeWord(text);
    takeWord(text);
    const std::string_view group = takeWord(text);
    for (int field = 0; field < fieldsBetween; ++field) {
        takeWord(text);
    }
    ProcessStatus status;
    if (!readNumber(group, status.group) || !readNumber(takeWord(text), status.start)) {
        return std::nullopt;
    }
    status.state = state.front();
    return status;
}

std::optional<std::int64_t> secondOfBoot() {
    return parseSecondOfBoot(readTextFile("/proc/stat").value_or(""));
}

std::optional<std::int64_t> parseSecondOfBoot(std::string_view text) {
    constexpr std::string_view label = "\nbtime ";
    const std::size_t at = text.find(label);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(at + label.size());
    std::int64_t second = 0;
    return readNumber(text.substr(0, text.find('\n')), second) ? std::optional(second)
                                                               : std::nullopt;
}

bool isSinceBoot(std::int64_t second, std::optional<std::int64_t> boot, std::int64_t now) {
    // What was in the very second of the boot may have been before it.
    return boot && second > *boot && second <= now;
}

std::uint64_t nanosecondsSinceBoot() {
    constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
    struct timespec now {};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * nanosecondsPerSecond +
           static_cast<std::uint64_t>(now.tv_nsec);
}

} // namespace confirming
