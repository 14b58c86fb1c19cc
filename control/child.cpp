// A program that this one runs, and what it prints.
#include "control/child.h"

#include "transfer/copy_command.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace control {

namespace {

/// More than that is read and dropped, so that whoever prints it need not wait.
constexpr std::size_t outputLimit = 65536;

} // namespace

Child::Child(const std::vector<std::string>& words) {
    // Whoever started this program may have it ignore the end of its children: then their status
    // would be lost.
    std::signal(SIGCHLD, SIG_DFL);
    std::array<int, 2> ends = {-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        error = errno;
        return;
    }
    output = Descriptor(moveAboveStandard(ends[0]));
    const Descriptor writeEnd(moveAboveStandard(ends[1]));

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

    // An ignored or blocked signal would stay so in the program and in all that it starts.
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK |
                                              POSIX_SPAWN_SETPGROUP);

    const ExecVector arguments(words);
    error = posix_spawn(&number, words[0].c_str(), &actions, &attributes, arguments.get(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

bool Child::finish(Clock::time_point end) {
    while (output) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        const int wait = static_cast<int>(std::max<long>(left.count(), 0));
        pollfd polled = {output.get(), POLLIN, 0};
        // What is there is read also when the time is over, but not without end.
        if (poll(&polled, 1, wait) == 0 || (wait == 0 && printed.size() == outputLimit)) {
            return false;
        }
        std::array<char, 4096> part{};
        const ssize_t got = polled.revents != 0 ? read(output.get(), part.data(), part.size()) : -1;
        if (got == 0) {
            output.reset();
        }
        printed.append(part.data(), std::min(outputLimit - printed.size(),
                                             static_cast<std::size_t>(std::max<ssize_t>(got, 0))));
    }
    // It has nothing more to say, and is on its way out.
    while (!waitFor(WNOHANG) && Clock::now() < end) {
        poll(nullptr, 0, 10);
    }
    return waited.has_value();
}

bool Child::waitFor(int options) {
    int status = 0;
    if (!waited && waitpid(number, &status, options) == number) {
        waited = status;
    }
    return waited.has_value();
}

void Child::kill() {
    if (!waited) {
        ::kill(-number, SIGKILL); // still ours: it was not waited for
        waitFor(0);
    }
}

std::string firstLine(const std::string& text) {
    constexpr const char* blanks = " \t\r\n";
    const std::size_t begin = std::min(text.find_first_not_of(blanks), text.size());
    const std::string line = text.substr(begin, text.find('\n', begin) - begin);
    return line.substr(0, line.find_last_not_of(blanks) + 1);
}

std::string howItEnded(int waitStatus) {
    if (WIFSIGNALED(waitStatus)) {
        return "was killed by signal " + std::to_string(WTERMSIG(waitStatus)) + " (" +
               strsignal(WTERMSIG(waitStatus)) + ")";
    }
    return "ended with status " + std::to_string(WEXITSTATUS(waitStatus));
}

} // namespace control
