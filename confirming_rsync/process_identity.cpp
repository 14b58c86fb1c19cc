// Telling one process from every other, also from a later one with the same number.
#include "confirming_rsync/process_identity.h"

#include "confirming_rsync/descriptors.h"

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <ctime>

namespace confirming {

namespace {

constexpr std::string_view blanks = " \n";

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
    std::string text = readTextFile("/proc/sys/kernel/random/boot_id").value_or("");
    text.erase(text.find_last_not_of(blanks) + 1);
    return text;
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
    return status && (!isRunning(*status) || status->start != process.start);
}

bool isRunning(const ProcessStatus& status) {
    return status.state != 'Z' && status.state != 'X';
}

std::optional<ProcessStatus> parseProcessStatus(std::string_view text) {
    // PID (NAME) STATE and then numbers.
    constexpr int stateField = 1;
    constexpr int groupField = 3;
    constexpr int startField = 20;
    const std::size_t name = text.rfind(')');
    if (name == std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(name + 1);
    ProcessStatus status;
    for (int field = 1;; ++field) {
        const std::size_t begin = text.find_first_not_of(blanks);
        if (begin == std::string_view::npos) {
            return std::nullopt;
        }
        text.remove_prefix(begin);
        const std::string_view word = text.substr(0, text.find_first_of(blanks));
        if (field == stateField) {
            status.state = word.front();
        } else if (field == groupField && !readNumber(word, status.group)) {
            return std::nullopt;
        } else if (field == startField) {
            return readNumber(word, status.start) ? std::optional(status) : std::nullopt;
        }
        text.remove_prefix(word.size());
    }
}

std::uint64_t nanosecondsSinceBoot() {
    constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
    struct timespec now {};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * nanosecondsPerSecond +
           static_cast<std::uint64_t>(now.tv_nsec);
}

} // namespace confirming
