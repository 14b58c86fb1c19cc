// What this host lacks, or has in the way, for a configuration to work.
#include "control/aside.h"
#include "control/check/findings.h"
#include "control/child.h"
#include "control/consumer_pipe.h"
#include "control/control_files.h"
#include "daemon/global.h"
#include "transfer/copy_command.h"
#include "utilities/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <utility>

#include <fcntl.h>
#include <grp.h>
#include <linux/magic.h>
#include <pwd.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace control {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr Severity warning = Severity::warning;
constexpr Severity error = Severity::error;
constexpr Severity fatal = Severity::fatal;

/// Of a configuration with more detectors than this, the others' targets and shares are not
/// looked at.
constexpr std::size_t mostDetectors = 256;

/// For all places together, and for all shares.
constexpr std::chrono::seconds placeLimit{3};
constexpr std::chrono::seconds shareLimit{4};

/// Nobody reads who has not read for so long while a copy waits for him.
constexpr std::chrono::milliseconds waitProves{1200};

/// With less, in bytes and in files, a file system is full.
constexpr std::uint64_t nothingLeft = 1024 * 1024UL;
constexpr std::uint64_t fewInodes = 16;

/// What is to be held against something, if it is so.
struct Fault {
    bool isSo;
    Severity severity;
    std::string text; // behind the name of what it is about
    std::string advice;
};

/// Something that is looked at, and what was found there.
struct Place {
    std::string code;
    std::string subject; // a path, for most
    std::string name;    // with which its findings begin
    Findings findings = {};
    std::string folder = {}; // of a target, through links

    void add(const Findings& others) {
        findings.insert(findings.end(), others.begin(), others.end());
    }

    /// Adds what is so, of the first `most` that are.
    void judge(const std::vector<Fault>& faults, std::size_t most = 9) {
        for (const Fault& fault : faults) {
            if (fault.isSo && findings.size() < most) {
                findings.push_back({fault.severity, code, 0, subject, name + fault.text,
                                    fault.advice, Finding::About::host});
            }
        }
    }
};

Place passwordFile() {
    return Place{"password-file", GLOBAL::passwordFile,
                 "the password file " + GLOBAL::passwordFile + " "};
}

Place copyProgram() {
    return Place{"copy-program", GLOBAL::rsyncCommand,
                 "the copy program " + GLOBAL::rsyncCommand + " "};
}

bool isRoot() {
    return geteuid() == 0;
}

/// Why this process may not use a path in this way; empty if it may. For others than root, whose
/// rights are not the daemon's, only what holds for root too.
std::string refusal(const std::string& path, int mode) {
    const bool isRefused = faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) != 0;
    return isRefused && (isRoot() || errno == EROFS) ? std::strerror(errno) : "";
}

/// The same for a folder that the daemon writes to.
std::string folderRefusal(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) != 0 ? std::strerror(errno)
           : !S_ISDIR(status.st_mode)       ? std::strerror(ENOTDIR)
                                            : refusal(path, W_OK | X_OK);
}

/// Who but root may change what a file or folder holds; empty if nobody.
std::string whoElseWrites(const struct stat& status) {
    return status.st_uid != 0 ? "belongs to user " + std::to_string(status.st_uid)
           : (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "may be written by others"
                                                         : "";
}

std::string whoElseWrites(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? whoElseWrites(status) : "";
}

/// True for a file system that is no place for files: what is written there is gone, or refused.
bool holdsNoFiles(const std::string& folder) {
    struct statfs system = {};
    const bool isDevices = UTILITIES::stringBegin(folder + "/", "/dev/") &&
                           !UTILITIES::stringBegin(folder + "/", "/dev/shm/");
    static const std::set<long> kinds = {PROC_SUPER_MAGIC,    SYSFS_MAGIC,       CGROUP_SUPER_MAGIC,
                                         CGROUP2_SUPER_MAGIC, DEBUGFS_MAGIC,     TRACEFS_MAGIC,
                                         SECURITYFS_MAGIC,    DEVPTS_SUPER_MAGIC};
    return isDevices || (statfs(folder.c_str(), &system) == 0 && kinds.count(system.f_type) > 0);
}

void lookAtConfigurationFile(Place& place) {
    const std::string& file = place.subject;
    const std::vector<std::string>& paths = configFilePaths();
    const bool isInPlace = std::find(paths.begin(), paths.end(), file) != paths.end();
    place.judge(
        {{file == paths[0] && access(paths[1].c_str(), F_OK) == 0, warning,
          "is read, and a second configuration, " + paths[1] + ", is not", "remove one of them"},
         {isInPlace && !whoElseWrites(file).empty(), warning,
          "may be written by others than root; its values reach a shell of root's",
          "chown root " + file + " && chmod go-w " + file}});
}

void lookAtLog(Place& place) {
    const std::string& log = place.subject;
    const std::string name = std::exchange(place.name, "");
    struct stat status = {};
    struct stat folderStatus = {};
    const bool exists = stat(log.c_str(), &status) == 0;
    // A link to a file that does not exist yet leads to where it will be.
    std::error_code failure;
    const fs::path real = fs::weakly_canonical(log, failure);
    const std::string folder = (failure ? fs::path(log) : real).parent_path().string();
    const bool hasFolder =
        stat(folder.c_str(), &folderStatus) == 0 && S_ISDIR(folderStatus.st_mode);
    const std::string rotation = refusal(folder, W_OK | X_OK);
    const std::string reason = exists ? refusal(log, W_OK) : rotation;
    const std::string ofFolder = "the folder of the log, " + inQuotes(folder) + ", ";
    const char* const advice = "let it be a file that root can write, in a folder of root's";
    place.judge(
        {{exists && S_ISDIR(status.st_mode), fatal, name + "is a directory", advice},
         {exists && !S_ISREG(status.st_mode), fatal, name + "is no file", advice},
         {!hasFolder, fatal, ofFolder + "does not exist: the daemon does not start", advice},
         {!reason.empty(), fatal,
          name + "can't be written (" + reason + "): the daemon does not start", advice},
         {!rotation.empty(), warning,
          ofFolder + "can't be written (" + rotation + "): it is never rotated", advice},
         {(folderStatus.st_mode & S_IWOTH) != 0, warning,
          ofFolder + "may be written by everyone, and a link there leads the daemon to any "
                     "other file",
          advice}},
        1);
}

/// Looks at a file that the daemon does not start without.
void lookAtNeeded(Place& place, Findings (*judge)(const struct stat&, std::string_view),
                  const char* advice) {
    constexpr std::size_t enough = 16UL * 1024 * 1024;
    struct stat status = {};
    if (stat(place.subject.c_str(), &status) == 0) {
        // What it holds is not known to others than root; a single letter stands for it.
        place.findings = judge(status, readFile(place.subject, enough).text.value_or("x"));
        return;
    }
    const int reason = errno;
    place.judge(
        {{reason != EACCES || isRoot(), fatal,
          std::string("can't be found (") + std::strerror(reason) + "): the daemon does not start",
          advice}});
}

/// A thread of the daemon for which copying stands still although somebody has the pipe open.
std::optional<PipeWait> findWait() {
    // Only a claim; but of a stranger's threads none waits in this pipe.
    const auto look = [daemon = readPidFile().daemon] {
        return daemon == 0 ? std::vector<PipeWait>()
                           : findPipeWaits(daemon).value_or(std::vector<PipeWait>());
    };
    const std::vector<PipeWait> before = look();
    if (before.empty()) {
        return std::nullopt;
    }
    // Who was not woken meanwhile waits still.
    std::this_thread::sleep_for(waitProves);
    const std::vector<PipeWait> later = look();
    const auto still = std::find_first_of(before.begin(), before.end(), later.begin(), later.end());
    return still == before.end() ? std::nullopt : std::optional<PipeWait>(*still);
}

void lookAtPipe(Place& place) {
    using State = PipeSnapshot::State;
    const std::string& path = place.subject;
    const PipeSnapshot pipe = lookAtConsumerPipe(path);
    const std::optional<PipeWait> wait = pipe.state == State::read ? findWait() : std::nullopt;
    const std::string make =
        "mkfifo -m 0600 " + path + ", chown it to the consumer's user, and start the consumer";
    place.judge({{pipe.state == State::absent, warning,
                  "does not exist: files are copied, but nobody is told of them", make},
                 {pipe.state == State::notAPipe, error, "is no named pipe: nobody is told of files",
                  "remove it; then " + make},
                 {pipe.state == State::noReader, warning, "is read by nobody: copying stands still",
                  "start the consumer"},
                 {pipe.state == State::unknown && isRoot(), warning,
                  "may have a reader or not: not every process may be looked at",
                  "look at the consumer itself"}});
    if (wait && wait->opens) {
        place.name = "a copy waits for a reader of a pipe that was removed";
        place.judge({{true, warning, ", and stands still", "restart the daemon"}});
    } else if (wait) {
        place.name = pipe.readers.front() + " holds " + place.name;
        place.judge({{true, warning, "open and does not read: copying stands still",
                      "look at the consumer, or start it anew"}});
    }
}

void lookAtTmp(Place& place) {
    const std::string capture = "/tmp/skarn_error.log";
    const std::string reason = folderRefusal("/tmp");
    struct stat status = {};
    const bool isForeign =
        lstat(capture.c_str(), &status) == 0 && (!S_ISREG(status.st_mode) || status.st_uid != 0);
    place.judge({{!reason.empty(), error, "can't be written (" + reason + "): nothing is copied",
                  "make it a directory that root can write"},
                 {isForeign, error,
                  "holds " + capture +
                      ", which is not root's regular file: the listing may not be "
                      "run, without a word in the log (unless the daemon has a "
                      "/tmp of its own)",
                  "find out who made it, and remove it"}},
                1);
}

/// Looks at /var/run, and at what the daemon writes there.
void lookAtRun(Place& place) {
    for (const std::string& path : {std::string("/var/run"), pidFilePath(), statusFilePath()}) {
        struct stat status = {};
        const std::string reason = path == place.subject               ? folderRefusal(path)
                                   : lstat(path.c_str(), &status) != 0 ? ""
                                   : S_ISREG(status.st_mode)           ? refusal(path, W_OK)
                                                                       : "it is no regular file";
        place.name = path;
        place.judge({{!reason.empty(), fatal, " can't be written: " + reason,
                      "remove it, or let root write it"}});
    }
}

/// Looks at those to whom this host gives targets.
void lookAtOwners(Place& place, const std::string& uid, const std::string& gid) {
    const auto isNumber = [](const std::string& text) {
        return text.find_first_not_of("0123456789") == std::string::npos;
    };
    const char* const effect = ", so that no target can be given to it";
    const char* const advice = "write one of this host, or a number";
    place.judge({{!isNumber(uid) && getpwnam(uid.c_str()) == nullptr, error,
                  "no user " + inQuotes(uid) + effect, advice},
                 {!isNumber(gid) && getgrnam(gid.c_str()) == nullptr, error,
                  "no group " + inQuotes(gid) + effect, advice}});
}

void lookAtTarget(Place& place, const std::string& target) {
    // The way that "mkdir -p" goes, as far as it exists.
    fs::path nearest = "/";
    std::set<std::string> way = {"/"}; // each folder of it
    struct stat status = {};
    std::string refused;
    for (const fs::path& part : fs::path("/" + target).relative_path()) {
        const fs::path next = nearest / part;
        const int reason = stat(next.c_str(), &status) == 0 ? 0 : errno;
        if (reason == 0 && S_ISDIR(status.st_mode)) {
            nearest = next;
            way.insert(targetFolder(nearest.string()));
            continue;
        }
        const std::string why = reason != 0 ? std::strerror(reason) : "no directory";
        if (reason == ENOENT ? fs::is_symlink(next) : reason != EACCES || isRoot()) {
            refused = inQuotes(next.string()) + " (" + why + ")";
        }
        break;
    }

    std::error_code failure;
    const fs::path real = fs::canonical(nearest, failure);
    const fs::path whole = fs::weakly_canonical("/" + target, failure);
    if (!failure && refused.empty()) {
        place.folder = targetFolder(whole.string());
        for (fs::path each = real; each.has_relative_path(); each = each.parent_path()) {
            way.insert(each.string());
        }
    }
    const std::string reason = refusal(nearest.string(), W_OK | X_OK);
    refused += refused.empty() && !reason.empty() ? inQuotes(nearest.string()) + ": " + reason : "";
    struct statvfs system = {};
    const bool isKnown = statvfs(nearest.c_str(), &system) == 0;
    const char* const advice = "use a directory that root can make and write";
    place.judge(
        {{!refused.empty(), error, "can't be made or written: " + refused, advice},
         {holdsNoFiles(real.string()), error, "lies on a file system that holds no files", advice},
         {isKnown && system.f_blocks > 0 && system.f_bfree * system.f_frsize < nothingLeft, warning,
          "lies on a file system that is full: nothing can be copied", "make room there"},
         {isKnown && system.f_files > 0 && system.f_ffree < fewInodes, warning,
          "lies on a file system without free inodes: no further file can be made",
          "remove files there"}},
        1);

    // The target itself is its owner's; what leads there has to be root's.
    way.erase(place.folder);
    way.erase(targetFolder(target));
    for (const std::string& folder : way) {
        const std::string who = whoElseWrites(folder);
        std::string cure = "chown root:root ";
        cure.append(folder).append(" && chmod go-w ").append(folder);
        Place unsafe{"unsafe-folder", folder, inQuotes(folder) + ", on the way to a target, "};
        unsafe.judge({{!who.empty(), error,
                       who + ": who puts a link in the place of what lies below it has root make "
                             "folders, write files and give them away wherever he wants",
                       cure}});
        place.add(unsafe.findings);
    }
}

} // namespace

HostFindings findOnHost(const Configuration& configuration, const std::string& file) {
    struct Question {
        Place place;
        Severity silence; // how bad it is that it does not answer
        std::function<void(Place&)> look;
    };
    const std::string& pipe = GLOBAL::pathToVantrelFifo;
    const std::string& log = configuration.logFileName;
    std::vector<Question> questions = {
        {Place{"configuration-file", file, file + " "}, warning, lookAtConfigurationFile}};
    if (log != "/dev/null" && !log.empty() && log.front() == '/') { // else told of already
        questions.push_back(
            {Place{"log", log, "the log " + inQuotes(log) + " "}, fatal, lookAtLog});
    }
    const std::vector<Question> fixed = {
        {passwordFile(), fatal,
         [](Place& place) {
             lookAtNeeded(place, judgePasswordFile,
                          "put the password of the detectors' rsync daemons there, with mode 0600");
         }},
        {copyProgram(), fatal,
         [](Place& place) {
             lookAtNeeded(place, judgeCopyProgram,
                          "install it, for instance with the package skarn-confirming-rsync");
         }},
        {Place{"pipe", pipe, "the hand-off pipe " + pipe + " "}, warning, lookAtPipe},
        {Place{"tmp-folder", "/tmp", "/tmp "}, error, lookAtTmp},
        {Place{"run-folder", "/var/run", "/var/run "}, fatal, lookAtRun}};
    questions.insert(questions.end(), fixed.begin(), fixed.end());
    if (!configuration.usrdir.empty()) {
        questions.push_back({Place{"owner", "owner", "the host has "}, warning,
                             [uid = configuration.uid, gid = configuration.gid](Place& place) {
                                 lookAtOwners(place, uid, gid);
                             }});
    }
    HostFindings found;
    for (const Detector& detector : configuration.detectors) {
        const std::string& target = detector.target;
        found.folders.push_back(targetFolder(target));
        if (found.folders.size() <= mostDetectors) {
            const std::string name =
                "the target of detector " + inQuotes(detector.id) + ", " + inQuotes(target) + ", ";
            questions.push_back({Place{"target", detector.id, name, {}, found.folders.back()},
                                 error, [target](Place& place) { lookAtTarget(place, target); }});
        }
    }
    const Clock::time_point end = Clock::now() + placeLimit;
    std::vector<Aside<Place>> asides(questions.size());
    for (std::size_t i = 0; i < questions.size(); ++i) {
        asides[i].begin([question = questions[i]]() mutable {
            question.look(question.place);
            return question.place;
        });
    }
    Place host{"not-root", "user", ""};
    host.judge({{!isRoot(), warning,
                 "this is not run as root, so that what only root may see or do is not checked",
                 "run it as root for the rest"}});
    std::set<std::string> told; // a folder may be on the way to several targets
    auto folder = found.folders.begin();
    for (std::size_t i = 0; i < questions.size(); ++i) {
        Place& place = questions[i].place;
        if (std::optional<Place> answer = asides[i].answerBy(end)) {
            place = std::move(*answer);
        } else {
            const bool isFatal = questions[i].silence == fatal;
            place.judge(
                {{true, questions[i].silence,
                  std::string("does not answer") + (isFatal ? ": the daemon does not start" : ""),
                  "look for what hangs there, such as a file server"}});
        }
        if (place.code == "target") {
            *folder++ = place.folder;
        }
        std::copy_if(place.findings.begin(), place.findings.end(),
                     std::back_inserter(host.findings),
                     [&told](const Finding& each) { return told.insert(each.text).second; });
    }
    found.findings = std::move(host.findings);
    return found;
}

Findings findInShares(const Configuration& configuration) {
    const Clock::time_point end = Clock::now() + shareLimit;
    std::map<std::string, std::pair<std::string, Child>> listings; // of each share, for the first
    for (const Detector& detector : configuration.detectors) {
        const std::string& share = detector.shareUrl;
        if (isPlainWord(share) && listings.size() < mostDetectors && listings.count(share) == 0) {
            std::vector<std::string> words = UTILITIES::splitWords(listingCommand(share), ' ');
            words.pop_back(); // what sends its errors to a file
            listings.emplace(share, std::pair(detector.id, Child(words)));
        }
    }
    Findings findings;
    for (auto& [share, detectorAndListing] : listings) {
        auto& [detector, listing] = detectorAndListing;
        std::string reason;
        if (listing.startError() != 0) {
            reason = std::strerror(listing.startError());
        } else if (!listing.finish(end)) {
            listing.kill();
            // One that has begun to answer is only long.
            reason = listing.text().empty()
                         ? "no answer within " + std::to_string(shareLimit.count()) + " seconds"
                         : "";
        } else if (*listing.status() != 0) {
            reason = firstLine(listing.text());
            reason = reason.empty() ? howItEnded(*listing.status()) : reason;
        }
        Place place{"share", detector, "the share of detector " + inQuotes(detector) + ", "};
        place.judge({{!reason.empty(), error,
                      std::string(share).append(", can't be listed: ").append(reason),
                      "look at the detector's rsync daemon: address, port 49371, module ramdisk, "
                      "password"}});
        findings.insert(findings.end(), place.findings.begin(), place.findings.end());
    }
    return findings;
}

Findings judgePasswordFile(const struct stat& status, std::string_view content) {
    const auto isOpen = [&status](mode_t mode) { return (status.st_mode & mode) != 0; };
    const bool isFile = S_ISREG(status.st_mode);
    const bool isEmpty =
        content.find_first_not_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
    Place place = passwordFile();
    const std::string close = "chmod 0600 " + place.subject;
    place.judge(
        {{!isFile, error, "is no regular file", "make it one, with mode 0600"},
         {isFile && isOpen(S_IROTH | S_IWOTH), error,
          "may be read or written by everyone: rsync refuses it, nothing is copied", close},
         {isFile && !isOpen(S_IROTH | S_IWOTH) && isOpen(S_IRGRP | S_IWGRP), warning,
          "may be read or written by its group", close},
         {isFile && status.st_uid != 0, error, "is not root's: rsync refuses it, nothing is copied",
          "chown root " + place.subject},
         {isFile && isEmpty, error, "holds no password: no detector lets the daemon in",
          "write the password of the detectors' rsync daemons into it"}});
    return place.findings;
}

Findings judgeCopyProgram(const struct stat& status, std::string_view content) {
    const auto holds = [content](std::string_view word) {
        return content.find(word) != std::string_view::npos;
    };
    const bool isFile = S_ISREG(status.st_mode);
    Place place = copyProgram();
    const std::string& path = place.subject;
    struct statvfs system = {};
    place.judge(
        {{!isFile, error, "is no regular file", "install the copy program in its place"},
         {isFile && (status.st_mode & S_IXUSR) == 0, fatal,
          "is not executable by its owner: the daemon does not start", "chmod 0755 " + path},
         {isFile && !whoElseWrites(status).empty(), warning,
          "may be changed by others than root, who runs it",
          "chown root " + path + " && chmod 0755 " + path},
         {isFile && UTILITIES::stringBegin(content, "\177ELF") && holds("remove-source-files") &&
              !holds("confirm-files"),
          error, "does not know the option --confirm-files: nothing is copied",
          "install a copy program that does; a stock rsync does not"},
         {statvfs(path.c_str(), &system) == 0 && (system.f_flag & ST_NOEXEC) != 0, error,
          "lies on a file system that is mounted with noexec",
          "mount it without, or install the program elsewhere and link to it"}});
    return place.findings;
}

} // namespace control
