// One stock rsync, as a child whose output and error output are read.
#include "confirming_rsync/child.h"

#include "confirming_rsync/descriptors.h"

#include <cerrno>
#include <utility>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace confirming {

namespace {

/// All that the new process needs between fork and execve, where nothing may be allocated.
struct Launch {
    const char* path;
    char* const* arguments;
    char* const* environment;
    int input;
    int output;
    int errorOutput;
    int failure; // takes the errno value if the program can't be executed
    pid_t parent;
};

[[noreturn]] void becomeProgram(const Launch& launch, const Signals& signals) {
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != launch.parent) {
        // The parent ended before its death could be watched for.
        ::_exit(128 + SIGTERM);
    }
    // All three are above 2, so each dup2 makes a new descriptor that survives execve.
    if (::dup2(launch.input, 0) == 0 && ::dup2(launch.output, 1) == 1 &&
        ::dup2(launch.errorOutput, 2) == 2) {
        signals.restore();
        ::execve(launch.path, launch.arguments, launch.environment);
    }
    const int error = errno;
    (void)!::write(launch.failure, &error, sizeof error);
    ::_exit(127);
}

/// The errno value that the child reported, or 0 if its execve has closed the pipe.
int readFailure(int descriptor) {
    int error = 0;
    ssize_t count = 0;
    do {
        count = ::read(descriptor, &error, sizeof error);
    } while (count == -1 && errno == EINTR);
    return count == static_cast<ssize_t>(sizeof error) ? error : 0;
}

} // namespace

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 1);
    for (std::string& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

Child::Child(const ProgramCall& call, const Descriptor& input, const Signals& signals) {
    start(call, input, signals);
    if (!hasStarted()) {
        output.reset();
        errorOutput.reset();
    }
}

void Child::start(const ProgramCall& call, const Descriptor& input, const Signals& signals) {
    std::vector<std::string> arguments{call.path};
    arguments.insert(arguments.end(), call.arguments.begin(), call.arguments.end());
    std::vector<std::string> environment = call.environment;
    const std::vector<char*> argumentPointers = pointersTo(arguments);
    const std::vector<char*> environmentPointers = pointersTo(environment);

    Pipe out = makePipe();
    Pipe error = makePipe();
    Pipe failure = makePipe();
    if (!input || !out.readEnd || !error.readEnd || !failure.readEnd) {
        startError_ = errno != 0 ? errno : EBADF;
        return;
    }
    const Launch launch{
        call.path.c_str(),  argumentPointers.data(), environmentPointers.data(), input.get(),
        out.writeEnd.get(), error.writeEnd.get(),    failure.writeEnd.get(),     ::getpid()};
    pid_ = ::fork();
    if (pid_ == 0) {
        becomeProgram(launch, signals);
    }
    if (pid_ == -1) {
        startError_ = errno;
        return;
    }
    failure.writeEnd.reset();
    output = std::move(out.readEnd);
    errorOutput = std::move(error.readEnd);
    startError_ = readFailure(failure.readEnd.get());
}

Child::~Child() {
    if (pid_ > 0) {
        // Until it is waited for, its number is nobody else's, and neither is its group's.
        kill();
        while (::waitpid(pid_, nullptr, 0) == -1 && errno == EINTR) {
        }
    }
}

void Child::signal(int number) const {
    if (pid_ > 0) {
        ::kill(pid_, number);
    }
}

void Child::kill() const {
    if (pid_ > 0) {
        ::kill(-pid_, SIGKILL);
    }
    signal(SIGKILL);
}

bool Child::hasEnded() {
    siginfo_t info{};
    if (ended_ || pid_ <= 0) {
        return true;
    }
    if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        ended_ = errno != EINTR;
        exitStatus_ = 1;
        return ended_;
    }
    if (info.si_pid == 0) {
        return false;
    }
    ended_ = true;
    exitStatus_ = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
    return true;
}

} // namespace confirming
