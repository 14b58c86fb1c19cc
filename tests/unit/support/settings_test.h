// The base of every test that touches the daemon's settings or files.
#pragma once

#include "tests/unit/support/files.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

/// Puts every GLOBAL setting back after each test, gives each test a scratch directory, lets the
/// system calls that were told to fail work again, deletes the workers a test left, removes the
/// daemon's fixed files, and fails a test that left a descriptor open.
class SettingsTest : public testing::Test {
protected:
    SettingsTest();
    ~SettingsTest() override;

    void SetUp() override;
    void TearDown() override;

    /// The test leaves descriptors open by design; it is not checked for them.
    void leavesDescriptorsOpen() { checksDescriptors = false; }

    /// Deletes every worker of the registry.
    static void deleteWorkers();

    ScratchDirectory scratch;

private:
    struct Settings;
    Settings* saved;
    std::vector<int> descriptorsBefore;
    bool checksDescriptors = true;
};
