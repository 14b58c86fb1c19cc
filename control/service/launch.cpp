// One run of the command that starts the daemon, up to the moment at which it has detached or not.
#include "control/service/launch.h"

#include "control/service/process_handle.h"
#include "utilities/descriptors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace control {

namespace {

using Clock = std::chrono::steady_clock;

/// More than that is read and dropped, so that whoever prints it need not wait.
constexpr std::size_t outputLimit = 65536;

struct Pipe {
    Descriptor readEnd;
    Descriptor writeEnd;
};

/// Both ends are 3 or above. Empty if the system gave none.
Pipe openPipe() {
    std::array<int, 2> ends = {-1, -1};
    Pipe pipe;
    if (pipe2(ends.data(), O_CLOEXEC) == 0) {
        pipe.readEnd = Descriptor(moveAboveStandard(ends[0]));
        pipe.writeEnd = Descriptor(moveAboveStandard(ends[1]));
    }
    return pipe;
}

/// Closes all descriptors from 3 on, but `kept`. Async-signal-safe.
void closeAllBut(int kept) {
    const auto first = static_cast<unsigned>(kept);
    if (kept > 3) {
        syscall(SYS_close_range, 3U, first - 1, 0U);
    }
    syscall(SYS_close_range, first + 1, ~0U, 0U);
}

/// In the child. Only async-signal-safe calls up to the exec.
[[noreturn]] void becomeStartCommand(char* const* arguments, int input, int output, int errors,
                                     int failure) {
    // An ignored signal would stay ignored in the daemon and in all that it starts.
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        sigaction(signal, &standard, nullptr);
    }
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    closeAllBut(failure);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(arguments[0], arguments);
    const int error = errno;
    const ssize_t written = write(failure, &error, sizeof error);
    _exit(written == sizeof error ? 126 : 127);
}

/// Reads what is there; closes the descriptor at its end.
void readSome(Descriptor& descriptor, std::string& text) {
    std::array<char, 4096> buffer{};
    const ssize_t count = read(descriptor.get(), buffer.data(), buffer.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
        return;
    }
    if (count <= 0) {
        descriptor.reset();
        return;
    }
    const std::size_t room = outputLimit - std::min(outputLimit, text.size());
    text.append(buffer.data(), std::min(room, static_cast<std::size_t>(count)));
}

/// Reads both until their ends; false if the time runs out before.
bool readBoth(Descriptor& output, Descriptor& errors, Launch& launch, Clock::time_point end) {
    while (output.get() >= 0 || errors.get() >= 0) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        std::array<pollfd, 2> polled = {pollfd{output.get(), POLLIN, 0},
                                        pollfd{errors.get(), POLLIN, 0}};
        if (poll(polled.data(), polled.size(), static_cast<int>(left)) <= 0) {
            continue;
        }
        if (polled[0].revents != 0) {
            readSome(output, launch.output);
        }
        if (polled[1].revents != 0) {
            readSome(errors, launch.errors);
        }
    }
    return true;
}

/// The oldest child that was not there before: the start command's own, whose parent this process
/// has become. (A daemon that has ended already may have left copy processes here, too.)
std::optional<Process> adoptedSince(const std::vector<pid_t>& before, const Process& starter) {
    std::optional<Process> oldest;
    for (const pid_t pid : childrenOf(getpid())) {
        const std::optional<Process> process = readProcess(pid);
        if (process && pid != starter.pid && process->startTicks >= starter.startTicks &&
            !std::binary_search(before.begin(), before.end(), pid) &&
            (!oldest || process->startTicks < oldest->startTicks)) {
            oldest = process;
        }
    }
    return oldest;
}

} // namespace

Launch launchDaemon(const std::string& path, const std::vector<std::string>& words,
                    std::chrono::milliseconds limit) {
    Launch launch;
    const Clock::time_point end = Clock::now() + limit;
    std::vector<std::string> strings = {path};
    strings.insert(strings.end(), words.begin(), words.end());
    std::vector<char*> arguments;
    arguments.reserve(strings.size() + 1);
    for (std::string& each : strings) {
        arguments.push_back(each.data());
    }
    arguments.push_back(nullptr);

    const Descriptor input(moveAboveStandard(open("/dev/null", O_RDONLY | O_CLOEXEC)));
    Pipe output = openPipe();
    Pipe errors = openPipe();
    Pipe failure = openPipe();
    const std::vector<pid_t> before = childrenOf(getpid());
    if (input.get() < 0 || output.writeEnd.get() < 0 || errors.writeEnd.get() < 0 ||
        failure.writeEnd.get() < 0 || prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
        launch.startError = errno;
        return launch;
    }

    // Whoever started this program may have it ignore the end of its children: then their status
    // would be lost.
    std::signal(SIGCHLD, SIG_DFL);
    // No handler of this process may run in the child.
    sigset_t all;
    sigset_t mask;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &mask);
    const pid_t child = fork();
    if (child == 0) {
        becomeStartCommand(arguments.data(), input.get(), output.writeEnd.get(),
                           errors.writeEnd.get(), failure.writeEnd.get());
    }
    const int forkError = errno;
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    if (child < 0) {
        launch.startError = forkError;
        return launch;
    }
    output.writeEnd.reset();
    errors.writeEnd.reset();
    failure.writeEnd.reset();
    // Read before it is waited for, so that the number is still its own.
    const std::optional<Process> starter = readProcess(child);
    int error = 0;
    if (read(failure.readEnd.get(), &error, sizeof error) == sizeof error) {
        launch.startError = error;
    }

    launch.letGo = readBoth(output.readEnd, errors.readEnd, launch, end) &&
                   waitFor([&] { return waitpid(child, &launch.status, WNOHANG) == child; },
                           std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::max(end - Clock::now(), Clock::duration::zero())));
    if (starter) {
        launch.daemon = adoptedSince(before, *starter);
    }
    if (!launch.letGo && waitpid(child, &launch.status, WNOHANG) == 0) {
        kill(child, SIGKILL); // still ours: it was not waited for
        waitpid(child, &launch.status, 0);
    }
    return launch;
}

} // namespace control
