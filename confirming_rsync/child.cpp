// One stock rsync, as a child whose output and error output are read.
#include "confirming_rsync/child.h"

#include "confirming_rsync/descriptors.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace confirming {

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
    std::vector<std::string> words{call.path};
    words.insert(words.end(), call.arguments.begin(), call.arguments.end());
    std::vector<std::string> variables = call.environment;
    // Made by now: between fork and execve nothing may be allocated.
    const std::vector<char*> arguments = pointersTo(words);
    const std::vector<char*> environment = pointersTo(variables);
    Pipe out = makePipe();
    Pipe errors = makePipe();
    Pipe failure = makePipe(); // takes the errno value if the program can't be executed
    const pid_t parent = ::getpid();
    if (input && out.readEnd && errors.readEnd && failure.readEnd) {
        pid_ = ::fork();
    }
    int error = pid_ == -1 ? errno : 0; // of the fork, then of what follows in the child
    if (pid_ == 0) {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        // The parent may have ended before its death could be watched for. All three descriptors
        // are above 2, so each dup2 makes a new one that survives execve.
        if (::getppid() == parent && ::dup2(input.get(), 0) == 0 &&
            ::dup2(out.writeEnd.get(), 1) == 1 && ::dup2(errors.writeEnd.get(), 2) == 2) {
            signals.restore();
            ::execve(call.path.c_str(), arguments.data(), environment.data());
        }
        error = errno;
        (void)!::write(failure.writeEnd.get(), &error, sizeof error);
        ::_exit(notStarted);
    }
    failure.writeEnd.reset();
    if (pid_ > 0) {
        (void)TEMP_FAILURE_RETRY(::read(failure.readEnd.get(), &error, sizeof error));
    }
    if (pid_ == -1 || error != 0) {
        failure_ = "cannot start " + call.path + ": " + std::strerror(error);
        return;
    }
    output = std::move(out.readEnd);
    errorOutput = std::move(errors.readEnd);
}

Child::~Child() {
    if (pid_ > 0) {
        // Until it is waited for, its number is nobody else's, and neither is its group's.
        kill();
        (void)TEMP_FAILURE_RETRY(::waitpid(pid_, nullptr, 0));
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
    if (!ended_ &&
        ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        ended_ = true;
        exitStatus_ = 1;
    } else if (info.si_pid != 0) {
        ended_ = true;
        exitStatus_ = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
    }
    return ended_;
}

} // namespace confirming
