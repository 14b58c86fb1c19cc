// Running code in a process of its own and seeing how it ended.
#pragma once

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include <sys/types.h>

/// How a process, and every process that it forked, ended.
struct ChildOutcome {
    /// A call of exit: the value as it was given, of which a parent sees only the low eight bits.
    struct Exit {
        pid_t pid;
        int value;
    };

    bool ended = false;      // false: it had to be killed after a long time
    int waitStatus = 0;      // as waitpid gives it
    std::string output;      // of it and all that inherited it
    std::string errorOutput; // likewise
    std::string result;      // what the function returned; empty if it ended the process
    std::vector<Exit> exits; // in order of the calls

    /// The status that a parent sees; -1 if a signal ended it.
    int status() const;

    /// The value given to exit by the process itself; -1 if it did not call it.
    int exitValue() const;

    pid_t pid = -1;
};

/// How a process that the child left behind ended.
struct Orphan {
    pid_t pid;
    int waitStatus;
};

/// Forks and runs `body` there, with standard input from /dev/null and standard output and error
/// captured. What `body` returns comes back as `result`. The test framework's assertions do not
/// work in there. To be called while this process has one thread. With `left`, the processes that
/// the child leaves behind become children of this one, and it waits for them too; each is added.
/// Without, what they write after the child's end is not captured.
ChildOutcome runForResult(const std::function<std::string()>& body,
                          std::vector<Orphan>* left = nullptr);

/// The same for any body, whether it returns a text or nothing.
template<typename Body>
ChildOutcome runInChild(const Body& body, std::vector<Orphan>* left = nullptr) {
    if constexpr (std::is_void_v<std::invoke_result_t<Body>>) {
        return runForResult(
            [&body] {
                body();
                return std::string();
            },
            left);
    } else {
        return runForResult(body, left);
    }
}

/// Waits for the child process. Returns false, the process killed, when it does not end within a
/// minute.
bool waitForProcess(pid_t pid, int& waitStatus);
