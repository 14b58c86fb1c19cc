// What this host lacks, or has in the way, for a configuration to work.
#include "control/check/host_findings.h"

#include "control/check/targets.h"
#include "control/consumer_pipe.h"
#include "control/control_files.h"
#include "daemon/global.h"
#include "utilities/descriptors.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace control {

namespace {

namespace fs = std::filesystem;

/// Of a configuration with more detectors than this, the others' targets are not looked at.
constexpr std::size_t mostTargets = 1000;

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

/// What a file holds, up to a limit; empty if it can't be read.
std::string readSome(const std::string& path, std::size_t limit) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    std::string content(limit, '\0');
    std::size_t size = 0;
    ssize_t got = 0;
    while (size < limit && (got = read(file.get(), &content[size], limit - size)) > 0) {
        size += static_cast<std::size_t>(got);
    }
    content.resize(size);
    return content;
}

bool contains(std::string_view text, std::string_view word) {
    return text.find(word) != std::string_view::npos;
}

Finding hostFinding(Severity severity, const char* code, const std::string& subject,
                    const std::string& text, const std::string& advice) {
    return {severity, code, 0, subject, text, advice, Finding::About::host};
}

/// Gathers findings for findOnHost.
class HostFinder {
public:
    HostFinder(const Configuration& checked, const std::string& checkedFile)
        : configuration(checked), file(checkedFile) {}

    Findings find() {
        if (!isRoot()) {
            warning("not-root", "user",
                    "this is not run as root, so that what only root may see or do is not checked",
                    "run it as root for the rest");
        }
        lookAtConfigurationFile();
        lookAtLog();
        lookAtPasswordFile();
        lookAtCopyProgram();
        lookAtPipe();
        lookAtFixedFolders();
        lookAtOwner();
        for (const Detector& detector : configuration.detectors) {
            if (++targetsLookedAt > mostTargets) {
                break;
            }
            lookAtTarget(detector);
        }
        lookAtLinkedTargets();
        return std::move(findings);
    }

private:
    void error(const char* code, const std::string& subject, const std::string& text,
               const std::string& advice) {
        findings.push_back(hostFinding(Severity::error, code, subject, text, advice));
    }
    void fatal(const char* code, const std::string& subject, const std::string& text,
               const std::string& advice) {
        findings.push_back(hostFinding(Severity::fatal, code, subject, text, advice));
    }
    void warning(const char* code, const std::string& subject, const std::string& text,
                 const std::string& advice) {
        findings.push_back(hostFinding(Severity::warning, code, subject, text, advice));
    }

    void lookAtConfigurationFile();
    void lookAtLog();
    void lookAtPasswordFile();
    void lookAtCopyProgram();
    void lookAtPipe();
    void lookAtFixedFolders();
    bool isUsableFolder(const char* code, const std::string& path, const std::string& use);
    void lookAtOwner();
    void lookAtTarget(const Detector& detector);
    void lookAtLinkedTargets();

    const Configuration& configuration;
    const std::string& file;
    Findings findings;
    std::size_t targetsLookedAt = 0;
};

void HostFinder::lookAtConfigurationFile() {
    const std::vector<std::string>& paths = configFilePaths();
    struct stat status = {};
    if (file == paths[0] && stat(paths[1].c_str(), &status) == 0) {
        warning("second-file-ignored", paths[1],
                "there is a second configuration, " + paths[1] + ", which is not read, since " +
                    paths[0] + " exists",
                "remove one of the two");
    }
    const bool isInPlace = std::find(paths.begin(), paths.end(), file) != paths.end();
    if (isInPlace && stat(file.c_str(), &status) == 0 &&
        ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 || status.st_uid != 0)) {
        warning("configuration-writable", file,
                "others than root may write the configuration, whose values reach a shell of "
                "root's",
                "chown root " + file + " && chmod go-w " + file);
    }
}

void HostFinder::lookAtLog() {
    const std::string& log = configuration.logFileName;
    if (log == "/dev/null" || log.empty() || log.front() != '/') {
        return; // told of where it is configured
    }
    const std::string advice = "make it a file that root can write, in a folder of root's";
    struct stat status = {};
    const bool exists = stat(log.c_str(), &status) == 0;
    if (exists && !S_ISREG(status.st_mode)) {
        fatal("log-not-a-file", log,
              "the log " + inQuotes(log) + " is " +
                  (S_ISDIR(status.st_mode) ? "a directory" : "no regular file"),
              advice);
        return;
    }
    // A link to a file that does not exist yet leads to where it will be.
    std::error_code failure;
    const fs::path place = fs::weakly_canonical(log, failure);
    const std::string folder = (failure ? fs::path(log) : place).parent_path().string();
    struct stat folderStatus = {};
    if (stat(folder.c_str(), &folderStatus) != 0 || !S_ISDIR(folderStatus.st_mode)) {
        fatal("log-folder-missing", log,
              "the folder of the log, " + inQuotes(folder) +
                  ", does not exist: the daemon does not start",
              "mkdir " + folder);
        return;
    }
    const int reason = exists ? refusal(log, W_OK) : refusal(folder, W_OK | X_OK);
    if (reason != 0) {
        fatal("log-not-writable", log,
              "the log " + inQuotes(log) + " can't be written (" + std::strerror(reason) +
                  "): the daemon does not start",
              advice);
        return;
    }
    if (const int rotation = refusal(folder, W_OK | X_OK)) {
        warning("log-not-rotatable", log,
                "the folder of the log, " + inQuotes(folder) + ", can't be written (" +
                    std::strerror(rotation) + "): the log is never rotated",
                advice);
    }
    if ((folderStatus.st_mode & S_IWOTH) != 0) {
        warning("log-in-open-folder", log,
                "everyone may write to the folder of the log, " + inQuotes(folder) +
                    ": who puts a link there has the daemon write to, and change the mode of, "
                    "another file",
                "put the log into a folder that only root writes to");
    }
}

void HostFinder::lookAtPasswordFile() {
    const std::string& path = GLOBAL::passwordFile;
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        if (errno == EACCES && !isRoot()) {
            return;
        }
        fatal("password-file-missing", path,
              "the password file " + path + " can't be found (" + std::strerror(errno) +
                  "): the daemon does not start",
              "put the password of the detectors' rsync daemons there, with mode 0600");
        return;
    }
    // Not known to others than root; a single letter stands for a password.
    const bool readable = S_ISREG(status.st_mode) && access(path.c_str(), R_OK) == 0;
    constexpr std::size_t enough = 4096;
    for (Finding& each : judgePasswordFile(status, readable ? readSome(path, enough) : "x")) {
        findings.push_back(std::move(each));
    }
}

void HostFinder::lookAtCopyProgram() {
    const std::string& path = GLOBAL::rsyncCommand;
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        if (errno == EACCES && !isRoot()) {
            return;
        }
        fatal("copy-program-missing", path,
              "the copy program " + path + " can't be found (" + std::strerror(errno) +
                  "): the daemon does not start",
              "install it, for instance with the package skarn-confirming-rsync");
        return;
    }
    constexpr std::size_t enough = 16UL * 1024 * 1024;
    const std::string content = S_ISREG(status.st_mode) ? readSome(path, enough) : std::string();
    for (Finding& each : judgeCopyProgram(status, content)) {
        findings.push_back(std::move(each));
    }
    struct statvfs system = {};
    if (statvfs(path.c_str(), &system) == 0 && (system.f_flag & ST_NOEXEC) != 0) {
        error("copy-program-noexec", path,
              "the file system of the copy program " + path + " is mounted with noexec",
              "mount it without, or install the program elsewhere and link to it");
    }
}

void HostFinder::lookAtPipe() {
    const PipeSnapshot pipe = lookAtConsumerPipe();
    const std::string advice = "mkfifo -m 0600 " + pipe.path + ", and start the consumer";
    switch (pipe.state) {
    case PipeSnapshot::State::absent:
        warning("pipe-absent", pipe.path,
                "the hand-off pipe " + pipe.path +
                    " does not exist: files are copied, but nobody is told of them",
                advice);
        break;
    case PipeSnapshot::State::notAPipe:
        error("pipe-not-a-fifo", pipe.path,
              pipe.path + " is no named pipe, so that no consumer is told of a file",
              "remove it; then " + advice);
        break;
    case PipeSnapshot::State::noReader:
        warning("pipe-without-reader", pipe.path,
                "nobody reads the hand-off pipe " + pipe.path +
                    ": copying stands still until somebody does",
                "start the consumer");
        break;
    case PipeSnapshot::State::unknown:
        if (isRoot()) {
            warning("pipe-unknown", pipe.path,
                    "whether the hand-off pipe " + pipe.path +
                        " is read can't be told: not every process may be looked at",
                    "look at the consumer itself");
        }
        break;
    case PipeSnapshot::State::read:
        break;
    }
}

bool HostFinder::isUsableFolder(const char* code, const std::string& path, const std::string& use) {
    struct stat status = {};
    int reason = stat(path.c_str(), &status) == 0 ? 0 : errno;
    if (reason == 0) {
        reason = S_ISDIR(status.st_mode) ? refusal(path, W_OK | X_OK) : ENOTDIR;
    }
    if (reason != 0) {
        error(code, path, path + " can't be written (" + std::strerror(reason) + "): " + use,
              "make it a directory that root can write");
    }
    return reason == 0;
}

void HostFinder::lookAtFixedFolders() {
    struct stat status = {};
    if (isUsableFolder("tmp-not-writable", "/tmp", "nothing is listed and nothing is copied")) {
        const std::string capture = "/tmp/skarn_error.log";
        if (lstat(capture.c_str(), &status) == 0 &&
            (!S_ISREG(status.st_mode) || status.st_uid != 0)) {
            error("error-capture-planted", capture,
                  capture + " is not root's regular file: the listing may not be run, without a "
                            "word in the log (unless the daemon has a /tmp of its own)",
                  "find out who made it, and remove it");
        }
    }
    if (isUsableFolder("run-not-writable", "/var/run",
                       "the daemon ends as soon as it has started, without a word")) {
        for (const std::string& path : {pidFilePath(), statusFilePath()}) {
            errno = 0;
            if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
                fatal("control-file-not-regular", path,
                      path + " is no regular file, and the daemon can't write it", "remove it");
            } else if (const int reason = errno == ENOENT ? 0 : refusal(path, W_OK)) {
                fatal("control-file-not-writable", path,
                      path + " can't be written: " + std::strerror(reason), "let root write it");
            }
        }
    }
}

void HostFinder::lookAtOwner() {
    if (configuration.usrdir.empty()) {
        return; // nothing is given to anyone by this host
    }
    const auto isNumber = [](const std::string& text) {
        return text.find_first_not_of("0123456789") == std::string::npos;
    };
    const std::string& uid = configuration.uid;
    const std::string& gid = configuration.gid;
    if (!isNumber(uid) && getpwnam(uid.c_str()) == nullptr) {
        error("unknown-user", uid,
              "there is no user " + inQuotes(uid) + ", so that no target can be given to it",
              "write a user of this host, or a number");
    }
    if (!isNumber(gid) && getgrnam(gid.c_str()) == nullptr) {
        error("unknown-group", gid,
              "there is no group " + inQuotes(gid) + ", so that no target can be given to it",
              "write a group of this host, or a number");
    }
}

void HostFinder::lookAtTarget(const Detector& detector) {
    const std::string what =
        "the target of detector " + inQuotes(detector.id) + ", " + inQuotes(detector.target) + ", ";
    const std::string advice = "use a directory that root can make and write";
    // The way that "mkdir -p" goes, as far as it exists.
    fs::path nearest = "/";
    const fs::path target = "/" + detector.target;
    for (const fs::path& part : target.relative_path()) {
        const fs::path next = nearest / part;
        struct stat status = {};
        if (stat(next.c_str(), &status) == 0) {
            if (!S_ISDIR(status.st_mode)) {
                error("target-not-a-folder", detector.id,
                      what + "can't be made: " + inQuotes(next.string()) + " is no directory",
                      advice);
                return;
            }
            nearest = next;
            continue;
        }
        const int reason = errno;
        if (reason == ENOENT && lstat(next.c_str(), &status) == 0) {
            error("target-dangling-link", detector.id,
                  what + "can't be made: " + inQuotes(next.string()) + " is a link to nowhere",
                  advice);
            return;
        }
        if (reason == EACCES && !isRoot()) {
            return;
        }
        if (reason != ENOENT) {
            error("target-not-writable", detector.id,
                  what + "can't be made (" + std::strerror(reason) + ")", advice);
            return;
        }
        break;
    }
    if (const int reason = refusal(nearest.string(), W_OK | X_OK)) {
        error("target-not-writable", detector.id,
              what + "can't be made or written: " + inQuotes(nearest.string()) + ": " +
                  std::strerror(reason),
              advice);
        return;
    }
    struct statvfs system = {};
    if (statvfs(nearest.c_str(), &system) == 0 && ((system.f_blocks > 0 && system.f_bfree == 0) ||
                                                   (system.f_files > 0 && system.f_ffree == 0))) {
        warning("target-full", detector.id,
                what + "lies on a file system that is full: nothing can be copied",
                "make room there");
    }
}

void HostFinder::lookAtLinkedTargets() {
    std::vector<std::string> named;
    std::vector<std::string> real;
    for (const Detector& detector : configuration.detectors) {
        if (named.size() == mostTargets) {
            break;
        }
        named.push_back(targetFolder(detector.target));
        std::error_code failure;
        const fs::path place = fs::weakly_canonical("/" + detector.target, failure);
        real.push_back(failure ? named.back() : targetFolder(place.string()));
    }
    const std::vector<TargetOverlap> known = overlappingTargets(named);
    for (const TargetOverlap& overlap : overlappingTargets(real)) {
        if (std::find(known.begin(), known.end(), overlap) != known.end()) {
            continue;
        }
        const std::string& one = configuration.detectors[overlap.outer].id;
        const std::string& other = configuration.detectors[overlap.inner].id;
        const std::string& folder = real[overlap.inner];
        if (overlap.same) {
            error("same-target", other, sameTargetText(one, other, folder) + " (through a link)",
                  sameTargetAdvice);
        } else {
            warning("nested-target", other,
                    nestedTargetText(one, other, folder) + " (through a link)", nestedTargetAdvice);
        }
    }
}

} // namespace

Findings judgePasswordFile(const struct stat& status, std::string_view content) {
    const std::string& path = GLOBAL::passwordFile;
    Findings findings;
    const auto add = [&findings](Severity severity, const char* code, const std::string& text,
                                 const std::string& advice) {
        findings.push_back(hostFinding(severity, code, GLOBAL::passwordFile,
                                       "the password file " + GLOBAL::passwordFile + " " + text,
                                       advice));
    };
    if (!S_ISREG(status.st_mode)) {
        add(Severity::error, "password-file-not-regular", "is no regular file",
            "make it a file with the password, of mode 0600");
        return findings;
    }
    if ((status.st_mode & (S_IROTH | S_IWOTH)) != 0) {
        add(Severity::error, "password-file-open",
            "may be read or written by everyone: rsync refuses it, and nothing is listed or copied",
            "chmod 0600 " + path);
    } else if ((status.st_mode & (S_IRGRP | S_IWGRP)) != 0) {
        add(Severity::warning, "password-file-group", "may be read or written by its group",
            "chmod 0600 " + path);
    }
    if (status.st_uid != 0) {
        add(Severity::error, "password-file-owner",
            "is not root's: rsync refuses it, and nothing is listed or copied",
            "chown root " + path);
    }
    if (content.find_first_not_of(std::string_view("\r\n\0", 3)) == std::string_view::npos) {
        add(Severity::error, "password-file-empty",
            "holds no password: no detector lets the daemon in",
            "write the password of the detectors' rsync daemons into it");
    }
    return findings;
}

Findings judgeCopyProgram(const struct stat& status, std::string_view content) {
    const std::string& path = GLOBAL::rsyncCommand;
    Findings findings;
    const auto add = [&findings](Severity severity, const char* code, const std::string& text,
                                 const std::string& advice) {
        findings.push_back(hostFinding(severity, code, GLOBAL::rsyncCommand,
                                       "the copy program " + GLOBAL::rsyncCommand + " " + text,
                                       advice));
    };
    if (!S_ISREG(status.st_mode)) {
        add(Severity::error, "copy-program-not-a-file", "is no regular file",
            "install the copy program in its place");
        return findings;
    }
    if ((status.st_mode & S_IXUSR) == 0) {
        add(Severity::fatal, "copy-program-not-executable",
            "is not executable by its owner: the daemon does not start", "chmod 0755 " + path);
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 || status.st_uid != 0) {
        add(Severity::warning, "copy-program-writable",
            "may be changed by others than root, who runs it",
            "chown root " + path + " && chmod 0755 " + path);
    }
    const bool isBinary = content.substr(0, 4) == "\177ELF";
    if (isBinary && contains(content, "remove-source-files") &&
        !contains(content, "confirm-files")) {
        add(Severity::error, "copy-program-without-confirm-files",
            "does not know the option --confirm-files: nothing is copied",
            "install a copy program that does; a stock rsync does not");
    }
    return findings;
}

Findings findOnHost(const Configuration& configuration, const std::string& file) {
    return HostFinder(configuration, file).find();
}

} // namespace control
