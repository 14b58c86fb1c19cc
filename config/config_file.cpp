// Finding the configuration file and filling the settings from it.
#include "config/config_text.h"
#include "daemon/daemon.h"
#include "daemon/global.h"
#include "utilities/text.h"

#include <cstdlib>
#include <fstream>
#include <iostream>

namespace {

constexpr const char* configFilePaths[] = {"/etc/skarn_orbelin.conf",
                                           "/etc/skarn_orbelin/skarn_orbelin.conf"};

} // namespace

void Daemon::readConfigFile() {
    std::ifstream file;
    for (const char* path : configFilePaths) {
        file.open(path);
        if (file) {
            break;
        }
    }
    if (!file) {
        std::cerr << "Error no config file found" << std::endl;
        exit(512);
    }
    const std::string text = readConfigText(file);

    // An absent key leaves its default, so the results don't matter.
    UTILITIES::readVar(text, "logfile", GLOBAL::logFileName);
    UTILITIES::readVar(text, "logfile_max_number", GLOBAL::logFileMaxNumber);
    UTILITIES::parseSizeVar(text, "logfile_max_size", GLOBAL::logFileMaxSize);
    UTILITIES::readVar(text, "uid", GLOBAL::uid);
    UTILITIES::readVar(text, "gid", GLOBAL::gid);
    UTILITIES::readVar(text, "usrdir", GLOBAL::usrdir);
    parseDetectorIds(text);
}
