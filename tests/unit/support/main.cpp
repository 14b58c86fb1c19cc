// Entry point of the unit tests; refuses to run where the daemon's fixed places are the host's.
#include "tests/unit/support/files.h"

#include <cstdio>
#include <string>

#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/vfs.h>

namespace {

/// True when the file system at `path` lives in memory.
bool inMemory(const char* path) {
    struct statfs status = {};
    return statfs(path, &status) == 0 && status.f_type == TMPFS_MAGIC;
}

/// True in the sandbox: its first process is the sandbox script, and the fixed places are covered.
bool insideSandbox() {
    std::string firstProcess = readFile("/proc/1/cmdline");
    for (char& character : firstProcess) {
        if (character == '\0') {
            character = ' ';
        }
    }
    if (firstProcess.find("/sandbox --inside ") == std::string::npos) {
        return false;
    }
    for (const char* place : {"/etc", "/var/run", "/tmp", "/usr/local"}) {
        if (!inMemory(place)) {
            return false;
        }
    }
    return true;
}

const pid_t testProcess = getpid();
bool allTestsRan = false;

/// Called by exit. Much of the code under test ends its process, with values of which a parent sees
/// 0: in the process of the tests that must not pass for success.
void failIfEndedEarly(int value, void* /*unused*/) {
    if (getpid() == testProcess && !allTestsRan) {
        fprintf(stderr, "The code under test called exit(%d) in the process of the tests.\n",
                value);
        _exit(1);
    }
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests) && !insideSandbox()) {
        fprintf(stderr,
                "These tests write to /etc, /var/run, /tmp and /usr/local: they run in the sandbox "
                "only.\n  tests/support/sandbox %s\n",
                argv[0]);
        return 2;
    }
    on_exit(failIfEndedEarly, nullptr);
    const int result = RUN_ALL_TESTS();
    allTestsRan = true;
    return result;
}
