// The command line: owner of the copied files, re-pointing of detectors, version, usage text.
#include "daemon/daemon.h"
#include "daemon/global.h"
#include "transfer/worker.h"
#include "utilities/text.h"

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

void Daemon::parseArguments() {
    // Returns the fields of the value that follows the option at `index`, or ends the process with
    // the usage text.
    const auto valueOf = [this](int index, std::size_t fieldCount) {
        std::vector<std::string> fields;
        if (index != GLOBAL::argc - 1) {
            fields = UTILITIES::splitWords(GLOBAL::argv[index + 1], ':');
        }
        if (fields.size() != fieldCount) {
            usage();
            exit(1);
        }
        return fields;
    };

    for (int i = 1; i < GLOBAL::argc; i += 2) {
        const std::string option = GLOBAL::argv[i];
        if (option == "-u" || option == "--user") {
            const std::vector<std::string> owner = valueOf(i, 2);
            GLOBAL::uid = owner[0];
            GLOBAL::gid = owner[1];
        } else if (option == "-d" || option == "--detector") {
            const std::vector<std::string> fields = valueOf(i, 3);
            const auto detector = detectors.find(fields[0]);
            if (detector == detectors.end()) {
                std::cerr << "No detectorID " << fields[0] << " found in config file" << std::endl;
                exit(1);
            }
            detector->second->setSource(fields[1]);
            detector->second->setTarget(fields[2]);
        } else if (option == "--version") {
            std::cout << "SKARN version " << version << std::endl;
            std::cout << "Copyright (C) 2026 the skarn authors" << std::endl;
            exit(0);
        } else {
            std::cerr << "Unknown option " << option << std::endl;
            usage();
            exit(1);
        }
    }
}

void Daemon::usage() const {
    std::cerr << "Usage: " << std::endl
              << "      " << GLOBAL::progName
              << " ( start | restart ) [start options] | stop | status" << std::endl
              << "            Start options:" << std::endl
              << "            -u, --user UID:GID" << std::endl
              << "                  Set uid (gid) of the copied files to UID (GID)." << std::endl
              << "            -d, --detector DETECTOR_ID:SOURCE:TARGET" << std::endl
              << "                  Set source (target) of the detector DETECTOR_ID" << std::endl
              << "                  to SOURCE (TARGET)." << std::endl;
}
