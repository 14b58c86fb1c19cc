// skarnctl unannounced: files that were copied and that the consumer may not know of.
#include "control/aside.h"
#include "control/command.h"
#include "control/configuration.h"
#include "control/display_text.h"
#include "control/event_journal.h"
#include "control/file.h"
#include "control/observe/log_follower.h"
#include "control/observe/log_model.h"
#include "control/service/daemon_processes.h"
#include "daemon/global.h"
#include "shares/destination.h"
#include "shares/encoded_name.h"
#include "shares/files.h"
#include "shares/journal_folder.h"
#include "shares/left_file.h"
#include "utilities/descriptors.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace control {

namespace {

using confirming::Destination;

/// So long the consumer may take to make room in the pipe, in milliseconds.
constexpr int patience = 10000;

/// So long a target may take to tell of one file.
constexpr std::chrono::seconds patienceForTarget(2);

/// What was announced here because the log named it: the log goes on naming it.
constexpr const char* announcedBefore = "/var/log/skarn/announced";

/// A file of the copy program's journals.
struct Journal {
    std::string share;
    std::string destination;
    std::string file; // its name; empty for none

    bool operator<(const Journal& other) const {
        return std::tie(share, destination, file) <
               std::tie(other.share, other.destination, other.file);
    }
    std::string path() const {
        return confirming::journalFolder(JOURNAL_FOLDER, share, destination) + "/" + file;
    }
};

/// A file that may be unannounced.
struct Candidate {
    std::string target; // ends in a slash
    std::string name;   // below it, as rsync prints it
    std::string why;
    Journal journal; // that has its name; none if it is from the log

    std::string record() const { return target + name; }
};

/// Looks into targets; one that once does not answer is not asked again.
class Targets {
public:
    Destination::Presence presenceOf(const Candidate& file) {
        if (silent.count(file.target) > 0) {
            return Destination::Presence::unknown;
        }
        const auto found = Aside<Destination::Presence>().ask(
            [target = file.target, name = file.name] { return Destination(target).presence(name); },
            patienceForTarget);
        if (!found) {
            silent.insert(file.target);
        }
        return found.value_or(Destination::Presence::unknown);
    }

    /// Why a file can't be announced; empty if it is there.
    std::string whyNot(const Candidate& file) {
        const Destination::Presence found = presenceOf(file);
        return found == Destination::Presence::there    ? ""
               : found == Destination::Presence::absent ? "it is not there"
               : silent.count(file.target) > 0 ? "the file system of its target does not answer"
                                               : "whether it is there can't be told";
    }

private:
    std::set<std::string> silent;
};

/// The names in the copy program's journals of a share and a target that no detector has now. What
/// was left for one that it has is announced by its next copy. False if one can't be read.
bool addJournals(const Configuration& configuration, std::vector<Candidate>& candidates) {
    std::set<std::pair<std::string, std::string>> served;
    for (const Detector& each : configuration.detectors) {
        served.emplace(each.shareUrl, each.destination());
    }
    bool allRead = true;
    for (const std::string& name :
         confirming::namesIn(confirming::openOwnFolder(AT_FDCWD, JOURNAL_FOLDER))) {
        const std::string share = confirming::decodedName(name).value_or(name);
        for (const auto& [destination, folder] :
             confirming::openJournalFolders(JOURNAL_FOLDER, share)) {
            for (const char* const file : {confirming::asideName, confirming::leftName}) {
                const Journal journal{share, destination, file};
                bool isDamaged = false;
                const auto left = confirming::readLeft(folder, file, isDamaged);
                if (!left) {
                    complain(journal.path() + (isDamaged ? " is damaged" : " can't be read"));
                    allRead = false;
                    continue;
                }
                for (const confirming::OpenName& open : left->names) {
                    if (open.isGone && served.count({share, destination}) == 0) {
                        candidates.push_back(
                            {destination, open.name, "left open under another target", journal});
                    }
                }
            }
        }
    }
    return allRead;
}

/// The names that the log gives, of the daemon's last start. `announced` becomes those records that
/// were announced before and that the log still names. False if it can't be read.
bool addLogged(const Configuration& configuration, Targets& targets,
               std::vector<Candidate>& candidates, std::set<std::string>& announced) {
    const auto model = std::make_shared<LogModel>();
    LogAside log(configuration.logFileName, configuration.logFileMaxNumber, {}, model);
    std::set<std::string> before;
    std::ifstream file(announcedBefore);
    for (std::string line; std::getline(file, line);) {
        before.insert(line);
    }
    if (!log.poll()) {
        complain(log.problem());
        announced = std::move(before); // any of them may still be named
        return false;
    }
    std::set<std::string> added;
    const auto add = [&](const std::set<std::string>& names, const std::string& why) {
        for (const std::string& name : names) {
            for (const Detector& detector : configuration.detectors) {
                const Candidate candidate{detector.destination(), name, why, {}};
                const std::string record = candidate.record();
                if (before.count(record) > 0) {
                    announced.insert(record);
                    // The log names no target: where the file is, it was meant.
                } else if (!name.empty() && added.count(record) == 0 &&
                           targets.presenceOf(candidate) == Destination::Presence::there) {
                    candidates.push_back(candidate);
                    added.insert(record);
                }
            }
        }
    };
    add(model->account().unannounced, "the pipe did not take it");
    add(model->account().lost, "sent and not confirmed; a later copy may have announced it");
    return true;
}

/// Writes a record with one call, as the daemon does. An error's number, or 0.
int announce(int pipe, const std::string& record) {
    if (record.size() > PIPE_BUF) {
        return EMSGSIZE;
    }
    for (;;) {
        if (write(pipe, record.data(), record.size()) == static_cast<ssize_t>(record.size())) {
            return 0;
        }
        pollfd room = {pipe, POLLOUT, 0};
        if (errno != EAGAIN || poll(&room, 1, patience) <= 0) {
            return errno;
        }
    }
}

/// Takes the names out of the file of a journal. False if that can't be done, for instance since a
/// listing or a copy is at work on it.
bool forget(const Journal& journal, const std::set<std::string>& names) {
    const auto folders = confirming::openJournalFolders(JOURNAL_FOLDER, journal.share);
    const auto folder = folders.find(journal.destination);
    bool isDamaged = false;
    auto left = folder != folders.end() && confirming::hold(folder->second)
                    ? confirming::readLeft(folder->second, journal.file.c_str(), isDamaged)
                    : std::nullopt;
    if (!left) {
        return false;
    }
    left->names.erase(std::remove_if(left->names.begin(), left->names.end(),
                                     [&names](const confirming::OpenName& open) {
                                         return open.isGone && names.count(open.name) > 0;
                                     }),
                      left->names.end());
    return confirming::writeLeft(folder->second, journal.file.c_str(), *left);
}

/// `announced` are the records that the log names and that were announced before.
int announceAll(const std::vector<Candidate>& candidates, Targets& targets,
                std::set<std::string> announced) {
    const std::string& path = GLOBAL::pathToVantrelFifo;
    const Descriptor pipe(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (pipe.get() < 0) {
        complain(errno == ENXIO ? "nobody reads the pipe " + path + "; nothing was announced"
                                : "cannot open " + path + ": " + std::strerror(errno));
        return failed;
    }
    std::map<Journal, std::set<std::string>> forgotten;
    std::size_t count = 0;
    int status = succeeded;
    for (const Candidate& each : candidates) {
        if (const std::string reason = targets.whyNot(each); !reason.empty()) {
            say(each.record() + ": not announced, " + reason);
            continue;
        }
        const int error = announce(pipe.get(), each.record() + "\n");
        if (error != 0) {
            complain(each.record() + " could not be announced: " + std::strerror(error));
            status = failed;
            break;
        }
        say(each.record() + ": announced");
        ++count;
        if (each.journal.file.empty()) {
            announced.insert(each.record());
        } else {
            forgotten[each.journal].insert(each.name);
        }
    }
    if (count == 0) {
        return status;
    }
    noteEvents({grouped(count) + " files announced by hand (skarnctl unannounced)"});
    // What the log will go on naming, and nothing else, so that this does not grow for ever.
    std::string lines;
    for (const std::string& record : announced) {
        lines += record + "\n";
    }
    if (!replaceFile(announcedBefore, lines)) {
        complain(std::string("cannot write ") + announcedBefore + ": " + std::strerror(errno));
        status = failed;
    }
    for (const auto& [journal, names] : forgotten) {
        if (!forget(journal, names)) {
            complain("the names stay in " + journal.path() + ", so they will be named again");
            status = failed;
        }
    }
    return status;
}

} // namespace

int runUnannounced(const CommonOptions& common, bool isToAnnounce) {
    const LoadedConfiguration loaded = loadDaemonsConfiguration(common.daemonPath);
    if (!loaded.configuration) {
        complain(loaded.problem);
        return failed;
    }
    if (access(JOURNAL_FOLDER, R_OK) != 0 && errno == EACCES) {
        complain(std::string("only root may look into ") + JOURNAL_FOLDER);
        return notAllowed;
    }
    std::vector<Candidate> candidates;
    std::set<std::string> announced;
    Targets targets;
    bool isWhole = addJournals(*loaded.configuration, candidates);
    isWhole = addLogged(*loaded.configuration, targets, candidates, announced) && isWhole;
    const int status = isWhole ? succeeded : failed;
    if (candidates.empty()) {
        say(isWhole ? "no file is known that was copied and not announced"
                    : "no such file is known, but not all could be looked through");
        return status;
    }
    if (isToAnnounce) {
        return std::max(status, announceAll(candidates, targets, announced));
    }
    for (const Candidate& each : candidates) {
        const std::string reason = targets.whyNot(each);
        say(each.record() + ": " + each.why + (reason.empty() ? "" : "; " + reason));
    }
    return status;
}

} // namespace control
