// The configuration as the daemon takes it: read with the daemon's own code, completed in its
// order.
#pragma once

#include "control/file.h"
#include "daemon/global.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace control {

/// One detector as the daemon serves it.
struct Detector {
    std::string id;
    std::string remoteIp;
    std::string shareUrl;  // what listing and copy processes are told
    std::string target;    // the local directory after all rules ("/data/./run1")
    int minPause = 0;      // milliseconds
    int interrunPause = 0; // milliseconds

    /// The last argument of its copy processes.
    std::string destination() const { return target + "/"; }
};

/// The settings that a configuration file can make, with the daemon's defaults.
struct Configuration {
    std::string logFileName = GLOBAL::logFileName;
    int logFileMaxSize = GLOBAL::logFileMaxSize; // bytes; 0 rotates at once, a negative one never
    int logFileMaxNumber = GLOBAL::logFileMaxNumber; // of the highest archive
    std::string uid = GLOBAL::uid;
    std::string gid = GLOBAL::gid;
    std::string usrdir = GLOBAL::usrdir; // $UID and $GID replaced

    /// Those that are served, ascending by ID: of several with one ID, the last.
    std::vector<Detector> detectors;
};

/// The file that the daemon would read: the first of its two places that can be opened. Nothing if
/// neither can.
std::optional<std::string> findConfigFile();

/// The two places, in the order in which the daemon looks.
const std::vector<std::string>& configFilePaths();

/// Reads a configuration file as it stands, if it is a regular file up to `largestConfigFile`. Its
/// problem, if any, is a whole sentence.
FileText readConfigFile(const std::string& path);

/// Bytes of a configuration file that are read at most. The daemon has no limit, but no
/// configuration that is meant to be one comes near it.
constexpr std::size_t largestConfigFile = 1024UL * 1024;

/// Either a configuration, or one sentence that says why there is none.
struct LoadedConfiguration {
    std::optional<Configuration> configuration;
    std::string problem;
};

/// Reads a configuration file and applies the start options ("-u", "1:2", ...) over it, as the
/// daemon does. Fails when the file can't be read (see readConfigFile), and where the daemon would
/// refuse the options.
LoadedConfiguration loadConfiguration(const std::string& path,
                                      const std::vector<std::string>& startOptions);

/// The same from the reduced text of a configuration file (see readConfigText).
LoadedConfiguration makeConfiguration(const std::string& text,
                                      const std::vector<std::string>& startOptions);

} // namespace control
