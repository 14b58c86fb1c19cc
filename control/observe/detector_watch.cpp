// What the daemon does for each detector: by its children in /proc, and by what the copy program
// says of its listings and copies.
#include "control/observe/detector_watch.h"

#include "control/observe/log_model.h"
#include "shares/process_identity.h"
#include "shares/share_figures.h"
#include "utilities/text.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace control {

namespace {

using UTILITIES::stringBegin;

using State = DetectorSnapshot::State;
using confirming::ShareFigures;

/// So long may a listing be without an answer, or a target's preparation take.
constexpr double patience = 3;

/// The same where this user may not see whether it has an answer.
constexpr double longPatience = 60;

/// So long a complaint in the error file is believed: the next listing of any detector empties it.
constexpr double complaintKept = 15;

constexpr std::size_t longestErrorFile = 65536;
constexpr int mostLists = 1024;

/// As the daemon splits it: quotation marks are gone.
std::string firstWord(const std::string& text) {
    const std::vector<std::string> words = UTILITIES::splitWords(text, ' ');
    return words.empty() ? std::string() : words.front();
}

/// What one of the daemon's children is there for.
struct Task {
    enum class Kind { other, listing, copying, preparing };
    Kind kind = Kind::other;
    std::string url;    // when listing or copying
    std::string target; // when copying or preparing
    std::string list;   // when copying

    bool isFor(const DetectorSnapshot& detector) const {
        return kind != Kind::other && (url.empty() || url == firstWord(detector.shareUrl)) &&
               (target.empty() || target == firstWord(detector.target));
    }
};

Task taskOf(std::vector<std::string> words) {
    if (words.size() == 3 && words[1] == "-c") {
        // The shell that it is run through, unless it has become the program already.
        words = UTILITIES::splitWords(words[2], ' ');
        if (!words.empty() && stringBegin(words.back(), "2>")) {
            words.pop_back();
        }
    }
    if (words.size() < 3) {
        return {};
    }
    const auto option = [&words](std::string_view name) {
        return std::find_if(words.begin(), words.end(),
                            [name](const std::string& word) { return stringBegin(word, name); });
    };
    const std::string last = words.back();
    if (words[0] == "mkdir" || words[0] == "chown") {
        return {Task::Kind::preparing, "", last, ""};
    }
    constexpr std::string_view files = "--files-from=";
    if (const auto list = option(files); list != words.end()) {
        const std::string target = last.substr(0, last.size() - (last.back() == '/' ? 1 : 0));
        return {Task::Kind::copying, words[words.size() - 2], target, list->substr(files.size())};
    }
    return option("--list-only") == words.end() ? Task() : Task{Task::Kind::listing, last, "", ""};
}

/// All bytes that a process and those below it have read; nothing if it may not be seen.
std::optional<std::uint64_t> bytesRead(pid_t pid, int depth = 0) {
    const auto found = statusNumbers(readProcFile("/proc/" + std::to_string(pid) + "/io"), "rchar");
    if (found.empty()) {
        return std::nullopt;
    }
    std::uint64_t bytes = found.front();
    for (const pid_t child : childrenOf(pid)) {
        bytes += depth < 4 ? bytesRead(child, depth + 1).value_or(0) : 0;
    }
    return bytes;
}

double seconds(std::uint64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / 1e9;
}

std::optional<double> ago(const confirming::Moment& moment, const Snapshot& snapshot) {
    return moment.boottime == 0
               ? std::nullopt
               : std::optional(std::max(0.0, snapshot.uptime - seconds(moment.boottime)));
}

void addListing(const ShareFigures& listing, const Process* daemon, const Snapshot& snapshot,
                DetectorSnapshot& detector) {
    CopyFigures& figures = *detector.figures;
    figures.listings = listing.counts[ShareFigures::begun];
    figures.entries = listing.last.entries;
    figures.listedAgo = ago(listing.last.at, snapshot);
    // What another daemon has found says nothing of now.
    if (daemon == nullptr || seconds(listing.last.at.boottime) + 0.1 < sinceBoot(*daemon) ||
        listing.last.status == 0) {
        return;
    }
    detector.complaint = causeIn(listing.lastText);
    if (detector.complaint.empty()) {
        detector.complaint =
            "the copy program ended with status " + std::to_string(listing.last.status);
    }
    if (const auto failing = ago(listing.last.failingSince, snapshot)) {
        detector.failingSince = snapshot.time - *failing;
    }
    if (listing.last.entries == 0) {
        detector.state = State::unreachable;
    }
}

void addCopies(const ShareFigures& copies, const Snapshot& snapshot, DetectorSnapshot& detector) {
    CopyFigures& figures = *detector.figures;
    const auto& counts = copies.counts;
    figures.recovered = counts[ShareFigures::recoveredFiles];
    figures.files = counts[ShareFigures::confirmedFiles] + figures.recovered;
    figures.bytes = counts[ShareFigures::confirmedBytes] + counts[ShareFigures::recoveredBytes];
    figures.unconfirmed = counts[ShareFigures::unconfirmedFiles];
    figures.copies = counts[ShareFigures::begun];
    figures.flushErrors = counts[ShareFigures::flushErrors];
    figures.announcedAgo = ago(copies.last.at, snapshot);
    figures.lastFile = copies.lastText;
}

std::uint64_t countNames(const std::string& path) {
    const OpenedFile file = openRegularFile(path, O_NOFOLLOW);
    const uid_t owner = file.status.st_uid;
    // Anybody may have made a file of such a name below /tmp.
    if (!file.descriptor || (owner != 0 && owner != geteuid())) {
        return 0;
    }
    std::array<char, 65536> block{};
    std::uint64_t names = 0;
    ssize_t got = 0;
    while ((got = read(file.descriptor.get(), block.data(), block.size())) > 0) {
        names += static_cast<std::uint64_t>(std::count(block.data(), block.data() + got, '\n'));
    }
    return names;
}

} // namespace

std::string causeIn(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    std::string found;
    while (std::getline(lines, line)) {
        if (!line.empty() && (found.empty() || (!tellsCause(found) && tellsCause(line)))) {
            found = line;
        }
    }
    for (const char* const prefix : {"rsync: ", "[Receiver] ", "[receiver] "}) {
        if (stringBegin(found, prefix)) {
            found.erase(0, std::string_view(prefix).size());
        }
    }
    // "failed to connect to 10.0.0.1 (10.0.0.1): Connection refused (111)"
    const std::size_t reason = found.rfind(": ");
    if (stringBegin(found, "failed to connect to ") && reason != std::string::npos) {
        found.erase(0, reason + 2);
    }
    const std::size_t number = found.rfind(" (");
    if (number != std::string::npos && number + 3 < found.size() && found.back() == ')' &&
        found.find_first_not_of("0123456789", number + 2) == found.size() - 1) {
        found.erase(number);
    }
    return found;
}

void DetectorWatch::look(const std::vector<Detector>& detectors, const Process* daemon,
                         Snapshot& snapshot) {
    for (const Detector& detector : detectors) {
        DetectorSnapshot shown;
        shown.id = detector.id;
        shown.remoteIp = detector.remoteIp;
        shown.shareUrl = detector.shareUrl;
        shown.target = detector.target;
        shown.state = daemon == nullptr ? State::notServed : State::idle;
        snapshot.detectors.push_back(std::move(shown));
    }
    addFigures(daemon, snapshot);
    if (daemon != nullptr) {
        const std::string root = "/proc/" + std::to_string(daemon->pid) + "/root";
        addChildren(*daemon, root, snapshot);
        if (!snapshot.hasFigures) {
            readErrorFile(root, snapshot);
        }
    }
    for (const DetectorSnapshot& detector : snapshot.detectors) {
        known[detector.id].files = detector.figures ? detector.figures->files : 0;
    }
}

void DetectorWatch::addFigures(const Process* daemon, Snapshot& snapshot) const {
    const std::string boot = confirming::currentBoot();
    for (const ShareFigures& each : confirming::readAllShareFigures(base)) {
        for (DetectorSnapshot& detector : snapshot.detectors) {
            const bool isCopies = !each.destination.empty();
            if (each.boot != boot || each.share != firstWord(detector.shareUrl) ||
                (isCopies && each.destination != firstWord(detector.target) + "/")) {
                continue;
            }
            snapshot.hasFigures = true;
            const double since = snapshot.time - ago(each.since, snapshot).value_or(0);
            if (!detector.figures) {
                detector.figures.emplace();
                detector.figures->since = since;
            }
            detector.figures->since = std::min(detector.figures->since, since);
            if (isCopies) {
                addCopies(each, snapshot, detector);
            } else {
                addListing(each, daemon, snapshot, detector);
            }
        }
    }
}

void DetectorWatch::addChildren(const Process& daemon, const std::string& root,
                                Snapshot& snapshot) {
    for (const pid_t pid : childrenOf(daemon.pid)) {
        const Task task = taskOf(commandLine(pid));
        const std::optional<Process> child = readProcess(pid);
        const auto isHis = [&task](const DetectorSnapshot& each) { return task.isFor(each); };
        auto& all = snapshot.detectors;
        // Where two detectors have the same share and target, nothing tells their children apart.
        if (!child || !isRunning(*child) || std::count_if(all.begin(), all.end(), isHis) != 1) {
            continue;
        }
        DetectorSnapshot& detector = *std::find_if(all.begin(), all.end(), isHis);
        if (task.kind == Task::Kind::copying) {
            ++detector.copyProcesses;
            detector.state = State::copying;
            const double age = snapshot.uptime - sinceBoot(*child);
            detector.cycleSeconds = std::max(detector.cycleSeconds.value_or(0), age);
            addProgress(root, task.list, detector);
        } else {
            detector.preparing = task.kind == Task::Kind::preparing;
            noteAnswer(*child, snapshot, detector);
        }
    }
}

/// Tells a listing or a preparation that goes on from one that hangs.
void DetectorWatch::noteAnswer(const Process& child, const Snapshot& snapshot,
                               DetectorSnapshot& detector) {
    const double age = snapshot.uptime - sinceBoot(child);
    const std::optional<std::uint64_t> bytes = bytesRead(child.pid);
    Answer& answer = known[detector.id].answer;
    if (answer.startTicks != child.startTicks || answer.bytes != bytes.value_or(0)) {
        // Nobody has seen what it did before; but one that is old already hangs when it does
        // nothing between two looks.
        answer = {child.startTicks, bytes.value_or(0), snapshot.uptime};
    }
    const bool unchanged = snapshot.uptime - answer.unchangedSince > 1;
    if (age >= (bytes ? patience : longPatience) && (unchanged || !bytes)) {
        detector.noAnswer = age;
    }
    if (detector.state == State::idle && (detector.noAnswer || !detector.preparing)) {
        detector.state = detector.noAnswer ? State::hanging : State::listing;
    }
}

/// `list` is one of the file lists of the cycle: ".../file_list_PID_THREAD_INDEX".
void DetectorWatch::addProgress(const std::string& root, const std::string& list,
                                DetectorSnapshot& detector) {
    const std::size_t underscore = list.rfind('_');
    if (detector.dealt || underscore == std::string::npos) {
        return;
    }
    const std::string beginning = root + list.substr(0, underscore + 1);
    const std::optional<FileId> first = fileIdOf(beginning + "0");
    if (!first) {
        return;
    }
    Known& seen = known[detector.id];
    Cycle& cycle = seen.cycle;
    if (!(cycle.list == *first)) {
        cycle = {*first, 0, detector.figures ? seen.files : std::nullopt};
        for (int index = 0; index < mostLists && fileIdOf(beginning + std::to_string(index));
             ++index) {
            cycle.dealt += countNames(beginning + std::to_string(index));
        }
    }
    detector.dealt = cycle.dealt;
    if (cycle.begunAt && detector.figures) {
        const std::uint64_t files = detector.figures->files;
        detector.finished = std::min(cycle.dealt, files - std::min(*cycle.begunAt, files));
    }
}

void DetectorWatch::readErrorFile(const std::string& root, Snapshot& snapshot) {
    const std::string text =
        readFile(root + "/tmp/skarn_error.log", longestErrorFile, 0, O_NOFOLLOW).text.value_or("");
    auto& all = snapshot.detectors;
    std::string whose;
    for (const DetectorSnapshot& detector : all) {
        const std::size_t at = text.find(detector.remoteIp);
        const std::size_t end = at + detector.remoteIp.size();
        const bool isNamed = !detector.remoteIp.empty() && at != std::string::npos &&
                             (end == text.size() || text[end] < '0' || text[end] > '9');
        whose = isNamed || all.size() == 1 ? detector.id : whose;
    }
    if (!text.empty() || all.size() == 1) { // a single one's own listing has emptied it
        known[whose].complaint = causeIn(text);
        known[whose].complainedAt = snapshot.uptime;
    }
    const auto complaintOf = [this, &snapshot](const std::string& id) {
        const Known& found = known[id];
        return snapshot.uptime - found.complainedAt > complaintKept ? "" : found.complaint;
    };
    snapshot.listingComplaint = complaintOf("");
    for (DetectorSnapshot& detector : all) {
        detector.complaint = complaintOf(detector.id);
        if (!detector.complaint.empty() && detector.state != State::copying) {
            detector.state = State::unreachable;
        }
    }
}

} // namespace control
