// The base of tests that need a Daemon, and so a whole installation.
#include "tests/unit/support/configured_test.h"

#include "daemon/global.h"

void ConfiguredTest::SetUp() {
    SettingsTest::SetUp();
    configure();
    commandLine({});
    writeFile(GLOBAL::passwordFile, "secret\n");
    writeScript(GLOBAL::rsyncCommand, "exit 0\n");
}

void ConfiguredTest::configure(const std::vector<std::string>& lines) {
    std::string text = "logfile " + logPath + "\n";
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    writeFile(configPath, text);
}

void ConfiguredTest::commandLine(const std::vector<std::string>& words) {
    arguments = words;
    arguments.insert(arguments.begin(), "/usr/sbin/anything");
    argumentPointers.clear();
    for (std::string& argument : arguments) {
        argumentPointers.push_back(argument.data());
    }
    argumentPointers.push_back(nullptr);
    GLOBAL::argc = static_cast<int>(arguments.size());
    GLOBAL::argv = argumentPointers.data();
}
