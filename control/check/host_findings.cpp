// What this host lacks, or has in the way, for a configuration to work.
#include "control/check/host_findings.h"

#include "control/aside.h"
#include "control/check/config_findings.h"
#include "control/child.h"
#include "control/consumer_pipe.h"
#include "control/control_files.h"
#include "daemon/global.h"
#include "transfer/copy_command.h"
#include "utilities/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <system_error>
#include <thread>
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

/// Of a configuration with more detectors than this, the others' targets and shares are not
/// looked at.
constexpr std::size_t mostDetectors = 256;

/// For all targets together, and for all shares.
constexpr std::chrono::seconds targetLimit{3};
constexpr std::chrono::seconds shareLimit{4};
constexpr std::chrono::seconds pipeLimit{2};

/// Nobody reads who has not read for so long while a copy waits for him.
constexpr std::chrono::milliseconds waitProves{1200};

/// With less, in bytes and in files, a file system is full.
constexpr std::uint64_t nothingLeft = 1024 * 1024UL;
constexpr std::uint64_t fewInodes = 16;

bool isRoot() {
    return geteuid() == 0;
}

/// Why this process may not use a path in this way; 0 if it may. For others than root, whose rights
/// are not the daemon's, only what holds for root too.
int refusal(const std::string& path, int mode) {
    if (faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0) {
        return 0;
    }
    return isRoot() || errno == EROFS ? errno : 0;
}

bool contains(std::string_view text, std::string_view word) {
    return text.find(word) != std::string_view::npos;
}

Finding hostFinding(Severity severity, const char* code, const std::string& subject,
                    const std::string& text, const std::string& advice) {
    return {severity, code, 0, subject, text, advice, Finding::About::host};
}

/// Who but root may change what a folder holds; empty if nobody.
std::string whoElseWrites(const struct stat& status) {
    if (status.st_uid != 0) {
        return "belongs to user " + std::to_string(status.st_uid);
    }
    return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "may be written by others" : "";
}

/// True for a file system that is no place for files: what is written there is gone, or refused.
bool holdsNoFiles(const std::string& folder) {
    struct statfs system = {};
    const bool isDevices = (folder + "/").compare(0, 5, "/dev/") == 0 &&
                           (folder + "/").compare(0, 9, "/dev/shm/") != 0;
    static const std::set<long> kinds = {PROC_SUPER_MAGIC,    SYSFS_MAGIC,       CGROUP_SUPER_MAGIC,
                                         CGROUP2_SUPER_MAGIC, DEBUGFS_MAGIC,     TRACEFS_MAGIC,
                                         SECURITYFS_MAGIC,    DEVPTS_SUPER_MAGIC};
    return isDevices || (statfs(folder.c_str(), &system) == 0 && kinds.count(system.f_type) > 0);
}

/// Looks at one target; runs on a thread of its own.
TargetLook lookAtTarget(const std::string& id, const std::string& target) {
    TargetLook look;
    look.folder = targetFolder(target);
    const auto tell = [&](Severity severity, const std::string& text, const std::string& advice) {
        look.findings.push_back(hostFinding(severity, "target", id,
                                            "the target of detector " + inQuotes(id) + ", " +
                                                inQuotes(target) + ", " + text,
                                            advice));
    };
    const std::string advice = "use a directory that root can make and write";
    // The way that "mkdir -p" goes, as far as it exists.
    fs::path nearest = "/";
    std::set<fs::path> way = {nearest}; // each folder of it
    struct stat status = {};
    for (const fs::path& part : fs::path("/" + target).relative_path()) {
        const fs::path next = nearest / part;
        const int reason = stat(next.c_str(), &status) == 0 ? 0 : errno;
        std::string what;
        if (reason == 0 && !S_ISDIR(status.st_mode)) {
            what = "is no directory";
        } else if (reason == ENOENT && lstat(next.c_str(), &status) == 0) {
            what = "is a link to nowhere";
        } else if (reason != 0 && reason != ENOENT && (reason != EACCES || isRoot())) {
            what = std::string("(") + std::strerror(reason) + ")";
        }
        if (!what.empty()) {
            tell(Severity::error, "can't be made: " + inQuotes(next.string()) + " " + what, advice);
            return look;
        }
        if (reason != 0) {
            break;
        }
        nearest = next;
        way.insert(targetFolder(nearest.string()));
    }

    std::error_code failure;
    const fs::path real = fs::canonical(nearest, failure);
    const fs::path whole = fs::weakly_canonical("/" + target, failure);
    if (!failure) {
        look.folder = targetFolder(whole.string());
        for (fs::path each = real; each.has_relative_path(); each = each.parent_path()) {
            way.insert(each);
        }
    }
    // The target itself is its owner's; what leads there has to be root's.
    way.erase(look.folder);
    way.erase(targetFolder(target));
    for (const fs::path& folder : way) {
        if (stat(folder.c_str(), &status) == 0 && !whoElseWrites(status).empty()) {
            look.unsafe.emplace_back(folder.string(), whoElseWrites(status));
        }
    }
    if (const int reason = refusal(nearest.string(), W_OK | X_OK)) {
        tell(Severity::error,
             "can't be made or written: " + inQuotes(nearest.string()) + ": " +
                 std::strerror(reason),
             advice);
    } else if (holdsNoFiles(real.string())) {
        tell(Severity::error, "lies on a file system that holds no files", advice);
    } else {
        struct statvfs system = {};
        const bool isKnown = statvfs(nearest.c_str(), &system) == 0;
        if (isKnown && system.f_blocks > 0 && system.f_bfree * system.f_frsize < nothingLeft) {
            tell(Severity::warning, "lies on a file system that is full: nothing can be copied",
                 "make room there");
        } else if (isKnown && system.f_files > 0 && system.f_ffree < fewInodes) {
            tell(Severity::warning,
                 "lies on a file system without free inodes: no further file can be made",
                 "remove files there");
        }
    }
    return look;
}

/// What there is to say of the log at this absolute path; runs on a thread of its own.
Findings lookAtLog(const std::string& log) {
    Findings findings;
    const auto tellOf = [&](Severity severity, const std::string& text) {
        findings.push_back(hostFinding(severity, "log", log, text,
                                       "let it be a file that root can write, in a folder of "
                                       "root's"));
    };
    struct stat status = {};
    const bool exists = stat(log.c_str(), &status) == 0;
    if (exists && !S_ISREG(status.st_mode)) {
        tellOf(Severity::fatal, "the log " + inQuotes(log) + " is " +
                                    (S_ISDIR(status.st_mode) ? "a directory" : "no regular file"));
        return findings;
    }
    // A link to a file that does not exist yet leads to where it will be.
    std::error_code failure;
    const fs::path place = fs::weakly_canonical(log, failure);
    const std::string folder = (failure ? fs::path(log) : place).parent_path().string();
    const std::string ofFolder = "the folder of the log, " + inQuotes(folder) + ", ";
    struct stat folderStatus = {};
    if (stat(folder.c_str(), &folderStatus) != 0 || !S_ISDIR(folderStatus.st_mode)) {
        tellOf(Severity::fatal, ofFolder + "does not exist: the daemon does not start");
        return findings;
    }
    const int rotation = refusal(folder, W_OK | X_OK);
    if (const int reason = exists ? refusal(log, W_OK) : rotation) {
        tellOf(Severity::fatal, "the log " + inQuotes(log) + " can't be written (" +
                                    std::strerror(reason) + "): the daemon does not start");
    } else if (rotation != 0) {
        tellOf(Severity::warning, ofFolder + "can't be written (" + std::strerror(rotation) +
                                      "): the log is never rotated");
    }
    if ((folderStatus.st_mode & S_IWOTH) != 0) {
        tellOf(Severity::warning,
               ofFolder + "may be written by everyone: who puts a link there has the daemon write "
                          "to, and change the mode of, another file");
    }
    return findings;
}

/// Gathers findings for findOnHost.
class HostFinder {
public:
    explicit HostFinder(const Configuration& checked) : configuration(checked) {}

    Findings find(const std::string& file, const std::vector<TargetLook>& targets) {
        if (!isRoot()) {
            tell(Severity::warning, "not-root", "user",
                 "this is not run as root, so that what only root may see or do is not checked",
                 "run it as root for the rest");
        }
        lookAtConfigurationFile(file);
        askOfLog();
        lookAtPasswordFile();
        lookAtCopyProgram();
        lookAtPipe();
        lookAtFixedFolders();
        lookAtOwner();
        tellOfTargets(targets);
        return std::move(findings);
    }

private:
    void tell(Severity severity, const char* code, const std::string& subject,
              const std::string& text, const std::string& advice) {
        findings.push_back(hostFinding(severity, code, subject, text, advice));
    }

    void lookAtConfigurationFile(const std::string& file);
    void askOfLog();
    void lookAtPasswordFile();
    void lookAtCopyProgram();
    void lookAtPipe();
    void lookAtWaits(const PipeSnapshot& pipe);
    bool isUsableFolder(const char* code, const std::string& path, const std::string& use);
    void lookAtFixedFolders();
    void lookAtOwner();
    void tellOfTargets(const std::vector<TargetLook>& targets);

    const Configuration& configuration;
    Findings findings;
};

void HostFinder::lookAtConfigurationFile(const std::string& file) {
    const std::vector<std::string>& paths = configFilePaths();
    struct stat status = {};
    if (file == paths[0] && stat(paths[1].c_str(), &status) == 0) {
        tell(Severity::warning, "configuration-file", paths[1],
             "there is a second configuration, " + paths[1] + ", which is not read, since " +
                 paths[0] + " exists",
             "remove one of the two");
    }
    const bool isInPlace = std::find(paths.begin(), paths.end(), file) != paths.end();
    if (isInPlace && stat(file.c_str(), &status) == 0 && !whoElseWrites(status).empty()) {
        tell(Severity::warning, "configuration-file", file,
             "others than root may write the configuration, whose values reach a shell of root's",
             "chown root " + file + " && chmod go-w " + file);
    }
}

void HostFinder::askOfLog() {
    const std::string& log = configuration.logFileName;
    if (log == "/dev/null" || log.empty() || log.front() != '/') {
        return; // told of where it is configured
    }
    const auto found = Aside<Findings>().ask([log] { return lookAtLog(log); }, targetLimit);
    if (found) {
        findings.insert(findings.end(), found->begin(), found->end());
    } else {
        tell(Severity::fatal, "log", log,
             "the log " + inQuotes(log) + " does not answer: the daemon does not start",
             "look at its file system, and at the server that it is of");
    }
}

void HostFinder::lookAtPasswordFile() {
    const std::string& path = GLOBAL::passwordFile;
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        if (errno != EACCES || isRoot()) {
            tell(Severity::fatal, "password-file", path,
                 "the password file " + path + " can't be found (" + std::strerror(errno) +
                     "): the daemon does not start",
                 "put the password of the detectors' rsync daemons there, with mode 0600");
        }
        return;
    }
    // Not known to others than root; a single letter stands for a password.
    constexpr std::size_t enough = 4096;
    const Findings found = judgePasswordFile(status, readFile(path, enough).text.value_or("x"));
    findings.insert(findings.end(), found.begin(), found.end());
}

void HostFinder::lookAtCopyProgram() {
    const std::string& path = GLOBAL::rsyncCommand;
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        if (errno != EACCES || isRoot()) {
            tell(Severity::fatal, "copy-program", path,
                 "the copy program " + path + " can't be found (" + std::strerror(errno) +
                     "): the daemon does not start",
                 "install it, for instance with the package skarn-confirming-rsync");
        }
        return;
    }
    constexpr std::size_t enough = 16UL * 1024 * 1024;
    const Findings found = judgeCopyProgram(status, readFile(path, enough).text.value_or(""));
    findings.insert(findings.end(), found.begin(), found.end());
    struct statvfs system = {};
    if (statvfs(path.c_str(), &system) == 0 && (system.f_flag & ST_NOEXEC) != 0) {
        tell(Severity::error, "copy-program", path,
             "the file system of the copy program " + path + " is mounted with noexec",
             "mount it without, or install the program elsewhere and link to it");
    }
}

void HostFinder::lookAtPipe() {
    PipeSnapshot unknown;
    unknown.path = GLOBAL::pathToVantrelFifo;
    const auto look = [] { return lookAtConsumerPipe(GLOBAL::pathToVantrelFifo); };
    const PipeSnapshot pipe = Aside<PipeSnapshot>().ask(look, pipeLimit).value_or(unknown);
    const std::string make =
        "mkfifo -m 0600 " + pipe.path + ", chown it to the consumer's user, and start the consumer";
    const std::string name = "the hand-off pipe " + pipe.path + " ";
    switch (pipe.state) {
    case PipeSnapshot::State::absent:
        tell(Severity::warning, "pipe", pipe.path,
             name + "does not exist: files are copied, but nobody is told of them", make);
        break;
    case PipeSnapshot::State::notAPipe:
        tell(Severity::error, "pipe", pipe.path,
             pipe.path + " is no named pipe, so that no consumer is told of a file",
             "remove it; then " + make);
        break;
    case PipeSnapshot::State::noReader:
        tell(Severity::warning, "pipe", pipe.path,
             name + "is read by nobody: copying stands still until somebody does",
             "start the consumer");
        break;
    case PipeSnapshot::State::unknown:
        if (isRoot()) {
            tell(Severity::warning, "pipe", pipe.path,
                 name + "may have a reader or not: not every process may be looked at",
                 "look at the consumer itself");
        }
        break;
    case PipeSnapshot::State::read:
        lookAtWaits(pipe);
        break;
    }
}

/// Whether copying stands still although somebody has the pipe open for reading.
void HostFinder::lookAtWaits(const PipeSnapshot& pipe) {
    // Only a claim; but of a stranger's threads none waits in this pipe.
    const pid_t daemon = readPidFile().daemon;
    const auto look = [daemon] {
        auto waits = findPipeWaits(daemon).value_or(std::vector<PipeWait>());
        if (!waits.empty()) {
            // Who was not woken meanwhile waits still.
            std::this_thread::sleep_for(waitProves);
            const auto later = findPipeWaits(daemon).value_or(std::vector<PipeWait>());
            waits.erase(std::remove_if(waits.begin(), waits.end(),
                                       [&later](const PipeWait& wait) {
                                           return std::find(later.begin(), later.end(), wait) ==
                                                  later.end();
                                       }),
                        waits.end());
        }
        return waits;
    };
    const auto found =
        daemon == 0 ? std::nullopt : Aside<std::vector<PipeWait>>().ask(look, pipeLimit);
    for (const PipeWait& wait : found.value_or(std::vector<PipeWait>())) {
        if (wait.opens) {
            tell(Severity::warning, "pipe", pipe.path,
                 "a copy waits for a reader of a pipe that was removed, and stands still",
                 "restart the daemon");
        } else {
            tell(Severity::warning, "pipe", pipe.path,
                 pipe.readers.front() + " holds the hand-off pipe " + pipe.path +
                     " open and does not read: copying stands still",
                 "look at the consumer, or start it anew");
        }
        break; // all of them wait for the same
    }
}

bool HostFinder::isUsableFolder(const char* code, const std::string& path, const std::string& use) {
    struct stat status = {};
    int reason = stat(path.c_str(), &status) == 0 ? 0 : errno;
    if (reason == 0) {
        reason = S_ISDIR(status.st_mode) ? refusal(path, W_OK | X_OK) : ENOTDIR;
    }
    if (reason != 0) {
        tell(Severity::error, code, path,
             path + " can't be written (" + std::strerror(reason) + "): " + use,
             "make it a directory that root can write");
    }
    return reason == 0;
}

void HostFinder::lookAtFixedFolders() {
    struct stat status = {};
    if (isUsableFolder("tmp-folder", "/tmp", "nothing is listed and nothing is copied")) {
        const std::string capture = "/tmp/skarn_error.log";
        if (lstat(capture.c_str(), &status) == 0 &&
            (!S_ISREG(status.st_mode) || status.st_uid != 0)) {
            tell(Severity::error, "tmp-folder", capture,
                 capture + " is not root's regular file: the listing may not be run, without a "
                           "word in the log (unless the daemon has a /tmp of its own)",
                 "find out who made it, and remove it");
        }
    }
    if (isUsableFolder("run-folder", "/var/run", "the daemon ends as soon as it has started")) {
        for (const std::string& path : {pidFilePath(), statusFilePath()}) {
            if (lstat(path.c_str(), &status) != 0) {
                continue;
            }
            const bool isFile = S_ISREG(status.st_mode);
            const int reason = isFile ? refusal(path, W_OK) : 0;
            if (!isFile || reason != 0) {
                tell(Severity::fatal, "run-folder", path,
                     path + " can't be written: " +
                         (isFile ? std::strerror(reason) : "it is no regular file"),
                     "remove it, or let root write it");
            }
        }
    }
}

void HostFinder::lookAtOwner() {
    const auto isNumber = [](const std::string& text) {
        return text.find_first_not_of("0123456789") == std::string::npos;
    };
    const std::string& uid = configuration.uid;
    const std::string& gid = configuration.gid;
    if (configuration.usrdir.empty()) {
        return; // nothing is given to anyone by this host
    }
    if (!isNumber(uid) && getpwnam(uid.c_str()) == nullptr) {
        tell(Severity::error, "owner", uid,
             "there is no user " + inQuotes(uid) + ", so that no target can be given to it",
             "write a user of this host, or a number");
    }
    if (!isNumber(gid) && getgrnam(gid.c_str()) == nullptr) {
        tell(Severity::error, "owner", gid,
             "there is no group " + inQuotes(gid) + ", so that no target can be given to it",
             "write a group of this host, or a number");
    }
}

void HostFinder::tellOfTargets(const std::vector<TargetLook>& targets) {
    std::map<std::string, std::string> unsafe; // each folder once
    for (const TargetLook& look : targets) {
        findings.insert(findings.end(), look.findings.begin(), look.findings.end());
        unsafe.insert(look.unsafe.begin(), look.unsafe.end());
    }
    for (const auto& [folder, who] : unsafe) {
        std::string text = inQuotes(folder);
        text += ", on the way to a target, " + who +
                ": who puts a link in the place of what lies below it has root make folders, "
                "write files and give them away wherever he wants";
        std::string advice = "chown root:root " + folder;
        advice += " && chmod go-w " + folder;
        tell(Severity::error, "unsafe-folder", folder, text, advice);
    }
}

} // namespace

std::vector<TargetLook> lookAtTargets(const Configuration& configuration) {
    const Clock::time_point end = Clock::now() + targetLimit;
    std::vector<Aside<TargetLook>> asides(std::min(configuration.detectors.size(), mostDetectors));
    auto next = configuration.detectors.begin();
    for (Aside<TargetLook>& aside : asides) {
        aside.begin([id = next->id, target = next->target] { return lookAtTarget(id, target); });
        ++next;
    }
    std::vector<TargetLook> looks(configuration.detectors.size());
    for (std::size_t i = 0; i < looks.size(); ++i) {
        const Detector& detector = configuration.detectors[i];
        looks[i].folder = targetFolder(detector.target);
        if (i >= asides.size()) {
            continue;
        }
        if (std::optional<TargetLook> look = asides[i].answerBy(end)) {
            looks[i] = std::move(*look);
        } else {
            looks[i].findings = {
                hostFinding(Severity::error, "target", detector.id,
                            "the target of detector " + inQuotes(detector.id) + ", " +
                                inQuotes(detector.target) + ", does not answer",
                            "look at its file system, and at the server that it is of")};
        }
    }
    return looks;
}

Findings findInShares(const Configuration& configuration) {
    const Clock::time_point end = Clock::now() + shareLimit;
    std::map<std::string, std::string> detectorOf; // of each share, the first one
    std::map<std::string, Child> listings;
    for (const Detector& detector : configuration.detectors) {
        if (isPlainWord(detector.shareUrl) && listings.size() < mostDetectors &&
            detectorOf.emplace(detector.shareUrl, detector.id).second) {
            std::vector<std::string> words =
                UTILITIES::splitWords(listingCommand(detector.shareUrl), ' ');
            words.pop_back(); // what sends its errors to a file
            listings.emplace(detector.shareUrl, words);
        }
    }
    Findings findings;
    for (auto& [share, listing] : listings) {
        const std::string& detector = detectorOf.at(share);
        const bool hasEnded = listing.startError() == 0 && listing.finish(end);
        std::string reason;
        if (listing.startError() != 0) {
            reason = std::strerror(listing.startError());
        } else if (hasEnded && *listing.status() != 0) {
            reason = firstLine(listing.text());
            reason = reason.empty() ? howItEnded(*listing.status()) : reason;
        } else if (!hasEnded) {
            listing.kill();
            // One that has begun to answer is only long.
            reason = listing.text().empty()
                         ? "no answer within " + std::to_string(shareLimit.count()) + " seconds"
                         : "";
        }
        if (!reason.empty()) {
            std::string text = "the share of detector " + inQuotes(detector);
            text.append(", ").append(share).append(", can't be listed: ").append(reason);
            findings.push_back(hostFinding(Severity::error, "share", detector, text,
                                           "look at the detector's rsync daemon: address, port "
                                           "49371, module ramdisk, password"));
        }
    }
    return findings;
}

Findings judgePasswordFile(const struct stat& status, std::string_view content) {
    const std::string& path = GLOBAL::passwordFile;
    Findings findings;
    const auto tell = [&findings](Severity severity, const std::string& text,
                                  const std::string& advice) {
        findings.push_back(hostFinding(severity, "password-file", GLOBAL::passwordFile,
                                       "the password file " + GLOBAL::passwordFile + " " + text,
                                       advice));
    };
    if (!S_ISREG(status.st_mode)) {
        tell(Severity::error, "is no regular file",
             "make it a file with the password, of mode 0600");
        return findings;
    }
    if ((status.st_mode & (S_IROTH | S_IWOTH)) != 0) {
        tell(Severity::error,
             "may be read or written by everyone: rsync refuses it, and nothing is listed or "
             "copied",
             "chmod 0600 " + path);
    } else if ((status.st_mode & (S_IRGRP | S_IWGRP)) != 0) {
        tell(Severity::warning, "may be read or written by its group", "chmod 0600 " + path);
    }
    if (status.st_uid != 0) {
        tell(Severity::error, "is not root's: rsync refuses it, and nothing is listed or copied",
             "chown root " + path);
    }
    if (content.find_first_not_of(std::string_view("\r\n\0", 3)) == std::string_view::npos) {
        tell(Severity::error, "holds no password: no detector lets the daemon in",
             "write the password of the detectors' rsync daemons into it");
    }
    return findings;
}

Findings judgeCopyProgram(const struct stat& status, std::string_view content) {
    const std::string& path = GLOBAL::rsyncCommand;
    Findings findings;
    const auto tell = [&findings](Severity severity, const std::string& text,
                                  const std::string& advice) {
        findings.push_back(hostFinding(severity, "copy-program", GLOBAL::rsyncCommand,
                                       "the copy program " + GLOBAL::rsyncCommand + " " + text,
                                       advice));
    };
    if (!S_ISREG(status.st_mode)) {
        tell(Severity::error, "is no regular file", "install the copy program in its place");
        return findings;
    }
    if ((status.st_mode & S_IXUSR) == 0) {
        tell(Severity::fatal, "is not executable by its owner: the daemon does not start",
             "chmod 0755 " + path);
    }
    if (!whoElseWrites(status).empty()) {
        tell(Severity::warning, "may be changed by others than root, who runs it",
             "chown root " + path + " && chmod 0755 " + path);
    }
    if (content.substr(0, 4) == "\177ELF" && contains(content, "remove-source-files") &&
        !contains(content, "confirm-files")) {
        tell(Severity::error, "does not know the option --confirm-files: nothing is copied",
             "install a copy program that does; a stock rsync does not");
    }
    return findings;
}

Findings findOnHost(const Configuration& configuration, const std::string& file,
                    const std::vector<TargetLook>& targets) {
    return HostFinder(configuration).find(file, targets);
}

} // namespace control
