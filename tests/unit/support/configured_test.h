// The base of tests that need a Daemon, and so a whole installation.
#pragma once

#include "tests/unit/support/settings_test.h"

#include <string>
#include <vector>

/// Installs what the daemon needs at its fixed places: a configuration file, the password file and
/// a copy program that does nothing. The log is in the scratch directory.
class ConfiguredTest : public SettingsTest {
protected:
    void SetUp() override;

    /// Writes the configuration file: a line that names the log, then `lines`.
    void configure(const std::vector<std::string>& lines = {});

    /// Makes `words` the command line, behind the program's name.
    void commandLine(const std::vector<std::string>& words);

    std::string logText() const { return readFile(logPath); }

    const std::string logPath = scratch / "log";
    static constexpr const char* configPath = "/etc/skarn_orbelin.conf";
    static constexpr const char* secondConfigPath = "/etc/skarn_orbelin/skarn_orbelin.conf";

private:
    std::vector<std::string> arguments;
    std::vector<char*> argumentPointers;
};
