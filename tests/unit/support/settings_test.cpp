// The base of every test that touches the daemon's settings or files.
#include "tests/unit/support/settings_test.h"

#include "daemon/global.h"
#include "tests/unit/support/faults.h"
#include "transfer/worker.h"

#include <filesystem>
#include <tuple>

namespace {

auto allSettings() {
    return std::tie(GLOBAL::progName, GLOBAL::argc, GLOBAL::argv, GLOBAL::logFileName, GLOBAL::uid,
                    GLOBAL::gid, GLOBAL::usrdir, GLOBAL::passwordFile, GLOBAL::rsyncPort,
                    GLOBAL::rsyncCommand, GLOBAL::rsyncdShare, GLOBAL::rsyncOptions,
                    GLOBAL::rsyncListingOptions, GLOBAL::skarnStartTime, GLOBAL::pathToVantrelFifo,
                    GLOBAL::logFileMaxSize, GLOBAL::logFileMaxNumber, GLOBAL::numberOfProcesses);
}

/// The files at fixed places that the daemon reads or writes.
void removeFixedFiles() {
    std::error_code error;
    for (const char* path :
         {"/etc/skarn_orbelin.conf", "/etc/skarn_orbelin", "/var/run/skarn_orbelin.pid",
          "/var/run/skarn_orbelin.stat", "/var/run/vantrel_orbelin_files", "/tmp/skarn_error.log",
          "/usr/local/orbelin"}) {
        std::filesystem::remove_all(path, error);
    }
}

} // namespace

/// A copy of every setting.
struct SettingsTest::Settings {
    std::tuple<std::string, int, char**, std::string, std::string, std::string, std::string,
               std::string, std::string, std::string, std::string, std::string, std::string, time_t,
               std::string, int, int, int>
        values;
};

SettingsTest::SettingsTest() : saved(new Settings{allSettings()}) {
}

SettingsTest::~SettingsTest() {
    allSettings() = saved->values;
    delete saved;
}

void SettingsTest::SetUp() {
    FAULTS::clear();
    removeFixedFiles();
    descriptorsBefore = openDescriptors();
}

void SettingsTest::TearDown() {
    FAULTS::clear();
    deleteWorkers();
    removeFixedFiles();
    if (checksDescriptors) {
        EXPECT_EQ(openDescriptors(), descriptorsBefore) << "the test left descriptors open";
    }
}

void SettingsTest::deleteWorkers() {
    while (!Worker::workers.empty()) {
        delete *Worker::workers.begin();
    }
}
