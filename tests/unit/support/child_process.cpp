// Running code in a process of its own and seeing how it ended.
#include "tests/unit/support/child_process.h"

#include "tests/unit/support/files.h"
#include "tests/unit/support/waiting.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// A file in memory that the child and its children write one after the other.
class Capture {
public:
    explicit Capture(const char* name) {
        const int low = memfd_create(name, MFD_CLOEXEC);
        // Out of the way of the numbers that the code under test gets.
        constexpr int highNumber = 200;
        descriptor = fcntl(low, F_DUPFD_CLOEXEC, highNumber);
        close(low);
        if (descriptor < 0) {
            perror("memfd");
            abort();
        }
    }
    ~Capture() { close(descriptor); }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    int number() const { return descriptor; }

    std::string content() const { return readFile("/proc/self/fd/" + std::to_string(descriptor)); }

private:
    int descriptor;
};

void append(int descriptor, const std::string& text) {
    if (write(descriptor, text.data(), text.size()) < 0) {
        abort();
    }
}

/// Called by exit, in the child and in everything it forks.
void recordExit(int value, void* descriptor) {
    append(*static_cast<int*>(descriptor),
           std::to_string(getpid()) + " " + std::to_string(value) + "\n");
}

/// In the child: where recordExit writes.
int exitsDescriptor = -1;

/// Fails the test when a process called exit with one value and ended with another: a sanitizer
/// that finds something at the end of a process says so by its status.
void expectStatusAsGiven(const ChildOutcome& outcome, pid_t pid, int waitStatus) {
    for (const ChildOutcome::Exit& each : outcome.exits) {
        if (each.pid == pid && WIFEXITED(waitStatus)) {
            EXPECT_EQ(WEXITSTATUS(waitStatus), each.value & 0xff) << outcome.errorOutput;
        }
    }
}

} // namespace

ChildOutcome runForResult(const std::function<std::string()>& body, std::vector<Orphan>* left) {
    const Capture output("output");
    const Capture errorOutput("errors");
    const Capture result("result");
    const Capture exits("exits");
    // What is still in these buffers would be written twice.
    fflush(nullptr);
    if (left != nullptr) {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    ChildOutcome outcome;
    outcome.pid = fork();
    if (outcome.pid == 0) {
        const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
        dup2(nothing, STDIN_FILENO);
        close(nothing);
        dup2(output.number(), STDOUT_FILENO);
        dup2(errorOutput.number(), STDERR_FILENO);
        exitsDescriptor = exits.number();
        on_exit(recordExit, &exitsDescriptor);
        append(result.number(), body());
        fflush(nullptr);
        exit(0);
    }
    outcome.ended = outcome.pid > 0 && waitForProcess(outcome.pid, outcome.waitStatus);
    if (left != nullptr) {
        Orphan orphan = {};
        const auto collect = [&orphan] {
            orphan.pid = waitpid(-1, &orphan.waitStatus, WNOHANG);
            return orphan.pid != 0;
        };
        while (waitUntil(collect) && orphan.pid > 0) {
            left->push_back(orphan);
        }
        prctl(PR_SET_CHILD_SUBREAPER, 0);
    }
    outcome.output = output.content();
    outcome.errorOutput = errorOutput.content();
    outcome.result = result.content();
    std::istringstream recorded(exits.content());
    for (ChildOutcome::Exit each = {}; recorded >> each.pid >> each.value;) {
        outcome.exits.push_back(each);
    }
    expectStatusAsGiven(outcome, outcome.pid, outcome.waitStatus);
    if (left != nullptr) {
        for (const Orphan& orphan : *left) {
            expectStatusAsGiven(outcome, orphan.pid, orphan.waitStatus);
        }
    }
    return outcome;
}

int ChildOutcome::status() const {
    return ended && WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1;
}

int ChildOutcome::exitValue() const {
    for (const Exit& each : exits) {
        if (each.pid == pid) {
            return each.value;
        }
    }
    return -1;
}

bool waitForProcess(pid_t pid, int& waitStatus) {
    if (waitUntil([&] { return waitpid(pid, &waitStatus, WNOHANG) != 0; })) {
        return true;
    }
    kill(pid, SIGKILL);
    waitpid(pid, &waitStatus, 0);
    return false;
}
