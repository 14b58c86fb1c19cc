// The configuration as the daemon takes it: read with the daemon's own code, completed in its
// order.
#include "control/configuration.h"

#include "config/config_text.h"
#include "transfer/copy_command.h"
#include "transfer/worker.h"
#include "utilities/text.h"

#include <map>
#include <memory>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

namespace control {

namespace {

/// A worker that is never started: it knows the rules for source and target.
class PlannedWorker : public Worker {
public:
    using Worker::Worker;

    Detector detector() const {
        const std::string url = ::shareUrl(remoteIp, sourcePath);
        return {detectorId, remoteIp, url, targetPath, minPause, interrunPause};
    }
};

using Workers = std::map<std::string, std::unique_ptr<PlannedWorker>>;

Workers makeWorkers(const std::string& text) {
    Workers workers;
    int minPause = 0;
    int interrunPause = 0;
    for (const std::string& block : cutDetectorBlocks(text)) {
        const auto read = [&block](const char* key) {
            std::string value;
            UTILITIES::readVar(block, key, value);
            return value;
        };
        const std::string id = read("detectorID");
        UTILITIES::readVar(block, "minpause", minPause);
        UTILITIES::readVar(block, "interrun_pause", interrunPause);
        workers[id] = std::make_unique<PlannedWorker>(id, read("remoteIP"), read("source"),
                                                      read("target"), minPause, interrunPause);
    }
    return workers;
}

/// Applies the start options; returns what the daemon would complain about, or an empty text.
std::string applyStartOptions(const std::vector<std::string>& words, Configuration& configuration,
                              Workers& workers) {
    for (std::size_t i = 0; i < words.size(); i += 2) {
        const std::string& option = words[i];
        const bool isUser = option == "-u" || option == "--user";
        if (!isUser && option != "-d" && option != "--detector") {
            return "Unknown option " + option;
        }
        const auto fields =
            UTILITIES::splitWords(i + 1 < words.size() ? words[i + 1] : std::string(), ':');
        if (fields.size() != (isUser ? 2 : 3)) {
            return option + (isUser ? " needs UID:GID" : " needs DETECTOR_ID:SOURCE:TARGET");
        }
        if (isUser) {
            configuration.uid = fields[0];
            configuration.gid = fields[1];
            continue;
        }
        const auto worker = workers.find(fields[0]);
        if (worker == workers.end()) {
            return "No detectorID " + fields[0] + " found in config file";
        }
        worker->second->setSource(fields[1]);
        worker->second->setTarget(fields[2]);
    }
    return {};
}

void replaceFirst(std::string& text, const std::string& word, const std::string& replacement) {
    const std::size_t position = text.find(word);
    if (position != std::string::npos) {
        text.replace(position, word.size(), replacement);
    }
}

} // namespace

const std::vector<std::string>& configFilePaths() {
    static const std::vector<std::string> paths = {"/etc/skarn_orbelin.conf",
                                                   "/etc/skarn_orbelin/skarn_orbelin.conf"};
    return paths;
}

std::optional<std::string> findConfigFile() {
    for (const std::string& path : configFilePaths()) {
        // Asked, not tried: an open could block.
        if (faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0) {
            return path;
        }
    }
    return std::nullopt;
}

FileText readConfigFile(const std::string& path) {
    FileText file = readFile(path, largestConfigFile + 1);
    if (file.text && file.text->size() > largestConfigFile) {
        file.text.reset();
        file.problem = "larger than " + std::to_string(largestConfigFile) +
                       " bytes, which no configuration is";
    }
    if (!file.text) {
        file.problem = "cannot read " + path + ": " + file.problem;
    }
    return file;
}

LoadedConfiguration loadConfiguration(const std::string& path,
                                      const std::vector<std::string>& startOptions) {
    const FileText file = readConfigFile(path);
    if (!file.text) {
        return {std::nullopt, file.problem};
    }
    std::istringstream lines(*file.text);
    return makeConfiguration(readConfigText(lines), startOptions);
}

LoadedConfiguration makeConfiguration(const std::string& text,
                                      const std::vector<std::string>& startOptions) {
    Configuration configuration;
    UTILITIES::readVar(text, "logfile", configuration.logFileName);
    UTILITIES::readVar(text, "logfile_max_number", configuration.logFileMaxNumber);
    UTILITIES::parseSizeVar(text, "logfile_max_size", configuration.logFileMaxSize);
    UTILITIES::readVar(text, "uid", configuration.uid);
    UTILITIES::readVar(text, "gid", configuration.gid);
    UTILITIES::readVar(text, "usrdir", configuration.usrdir);

    Workers workers = makeWorkers(text);
    const std::string problem = applyStartOptions(startOptions, configuration, workers);
    if (!problem.empty()) {
        return {std::nullopt, problem};
    }

    replaceFirst(configuration.usrdir, "$UID", configuration.uid);
    replaceFirst(configuration.usrdir, "$GID", configuration.gid);
    for (const auto& [id, worker] : workers) {
        if (!configuration.usrdir.empty()) {
            std::string target = worker->target();
            if (target.empty() || target.back() != '/') {
                target += '/';
            }
            worker->setTarget(target + configuration.usrdir);
        }
        configuration.detectors.push_back(worker->detector());
    }
    return {std::move(configuration), {}};
}

} // namespace control
