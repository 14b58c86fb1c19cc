// When did what begin and end: a journal of bounded size with one line for each change.
#include "control/event_journal.h"

#include "control/display_text.h"
#include "control/file.h"
#include "utilities/descriptors.h"
#include "utilities/text.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace control {

namespace {

using UTILITIES::stringBegin;

constexpr const char* folder = "/var/log/skarn";
constexpr off_t largest = 1024L * 1024;

constexpr double day = 86400;

/// Two ends so close together are one, told by two who saw it.
constexpr double sameEnd = 10;

/// So long an end may take that was asked for.
constexpr double endingTime = 120;

std::string problem(const char* what) {
    return std::string("cannot ") + what + " " + eventJournalPath() + ": " + std::strerror(errno);
}

} // namespace

std::string eventJournalPath() {
    return std::string(folder) + "/events";
}

std::string noteEvents(const std::vector<std::string>& texts) {
    const std::string path = eventJournalPath();
    mkdir(folder, 0755);
    const std::string time =
        localTime(static_cast<double>(std::time(nullptr)), "%Y-%m-%dT%H:%M:%S%z ");
    std::string lines;
    for (const std::string& text : texts) {
        lines += time + displayable(text, false) + "\n";
    }
    const Descriptor lock(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (flock(lock.get(), LOCK_EX) != 0) {
        return problem("lock");
    }
    const Descriptor file(open(
        path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    struct stat status = {};
    if (file.get() < 0 || !writeAll(file.get(), lines)) {
        return problem("write");
    }
    if (fstat(file.get(), &status) == 0 && status.st_size > largest) {
        const std::string newer =
            readFile(path, static_cast<std::size_t>(status.st_size), largest / 2).text.value_or("");
        replaceFile(path, newer.substr(newer.find('\n') + 1)); // the first line is cut
    }
    return {};
}

std::vector<Event> readEvents() {
    std::ifstream file(eventJournalPath());
    std::vector<Event> events;
    for (std::string line; std::getline(file, line);) {
        std::tm parts = {};
        const char* const rest = strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S%z", &parts);
        if (rest != nullptr && *rest == ' ') {
            const long offset = parts.tm_gmtoff;
            events.push_back({static_cast<double>(timegm(&parts) - offset), rest + 1});
        }
    }
    return events;
}

Deaths deathsIn(const std::vector<Event>& events, double now) {
    Deaths deaths;
    double told = -day;
    double lastEnd = -day;
    bool counts = false; // the end that is being told was no death that counts
    for (const Event& event : events) {
        if (stringBegin(event.text, toldToEnd)) {
            told = event.time;
        } else if (stringBegin(event.text, daemonEnded)) {
            if (event.time - lastEnd > sameEnd) {
                counts = event.time - told > endingTime && now - event.time <= day;
                deaths.lastDay += counts ? 1 : 0;
                deaths.how = counts ? "" : deaths.how;
                told = -day; // one request ends one daemon
            }
            lastEnd = event.time;
            const std::size_t how = event.text.find("SIG");
            if (counts && how != std::string::npos) {
                deaths.how = event.text.substr(how, event.text.find_first_of(", ", how) - how);
            }
            deaths.last = counts ? event.time : deaths.last;
        }
    }
    return deaths;
}

std::optional<double> parseMoment(const std::string& text, double now) {
    for (const char* const format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        std::tm parts = {};
        const char* const rest = strptime(text.c_str(), format, &parts);
        if (rest != nullptr && *rest == '\0') {
            parts.tm_isdst = -1;
            return static_cast<double>(std::mktime(&parts));
        }
    }
    static const std::map<std::string, double> units{
        {"s", 1}, {"min", 60}, {"m", 60}, {"h", 3600}, {"d", day}};
    std::istringstream words(text);
    double number = -1;
    std::string unit;
    words >> number >> unit;
    const bool isDuration = number >= 0 && number < 1e6 && words.eof() && units.count(unit) > 0;
    return isDuration ? std::optional(now - number * units.at(unit)) : std::nullopt;
}

} // namespace control
