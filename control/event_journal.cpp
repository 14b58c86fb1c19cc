// When did what begin and end: a journal of bounded size with one line for each change.
#include "control/event_journal.h"

#include "control/display_text.h"
#include "utilities/descriptors.h"
#include "utilities/text.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>

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

double now() {
    return static_cast<double>(std::time(nullptr));
}

std::string problem(const char* what) {
    return std::string("cannot ") + what + " " + eventJournalPath() + ": " + std::strerror(errno);
}

/// Writes the newer half to a new file that takes the old one's place.
void halve(const std::string& path) {
    std::ifstream old(path, std::ios::binary);
    old.seekg(largest / 2);
    std::string line;
    std::getline(old, line); // the rest of one that is cut
    const std::string fresh = path + ".new";
    {
        std::ofstream file(fresh, std::ios::binary | std::ios::trunc);
        file << old.rdbuf();
    }
    std::rename(fresh.c_str(), path.c_str());
}

} // namespace

std::string eventJournalPath() {
    return std::string(folder) + "/events";
}

std::string noteEvents(const std::vector<std::string>& texts) {
    const std::string path = eventJournalPath();
    mkdir(folder, 0755);
    std::string lines;
    for (const std::string& text : texts) {
        lines += localTime(now(), "%Y-%m-%dT%H:%M:%S%z ") + displayable(text, false) + "\n";
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
        halve(path);
    }
    return {};
}

std::vector<Event> readEvents() {
    std::ifstream file(eventJournalPath());
    std::vector<Event> events;
    std::string line;
    while (std::getline(file, line)) {
        std::tm parts = {};
        const char* const rest = strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S%z", &parts);
        if (rest == nullptr || *rest != ' ') {
            continue;
        }
        const long offset = parts.tm_gmtoff;
        events.push_back({static_cast<double>(timegm(&parts) - offset), rest + 1});
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
            if (counts) {
                deaths.last = event.time;
                const std::size_t how = event.text.find("SIG");
                const std::size_t end = event.text.find_first_of(", ", how);
                deaths.how =
                    how == std::string::npos ? deaths.how : event.text.substr(how, end - how);
            }
        }
    }
    return deaths;
}

} // namespace control
