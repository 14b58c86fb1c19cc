// One run of a subscriber's program.
#include "relay/command_run.h"

#include "relay/messages.h"
#include "relay/record_json.h"
#include "utilities/descriptors.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace relay {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t longestComplaint = 400; // the end of what it said
constexpr int pollPause = 100;                // milliseconds
constexpr auto grace = 5s;                    // between SIGTERM and SIGKILL

/// All that the child needs, made before the fork: behind it nothing may be allocated.
struct Plan {
    std::vector<std::string> words;
    std::vector<std::string> environment;
    std::vector<char*> wordPointers;
    std::vector<char*> environmentPointers;
    Descriptor input;
    Descriptor complaintsIn; // what it writes as its standard error
    bool hasUser = false;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};

void setUser(const std::string& name, Plan& plan) {
    const passwd* const entry = ::getpwnam(name.c_str());
    if (entry == nullptr) {
        throw std::runtime_error("there is no user " + name);
    }
    plan.hasUser = true;
    plan.uid = entry->pw_uid;
    plan.gid = entry->pw_gid;
    int count = 64;
    plan.groups.resize(static_cast<std::size_t>(count));
    if (::getgrouplist(name.c_str(), plan.gid, plan.groups.data(), &count) < 0) {
        plan.groups.resize(static_cast<std::size_t>(count));
        ::getgrouplist(name.c_str(), plan.gid, plan.groups.data(), &count);
    }
    plan.groups.resize(static_cast<std::size_t>(count));
    plan.environment.push_back("HOME=" + std::string(entry->pw_dir));
    plan.environment.push_back("USER=" + name);
    plan.environment.push_back("LOGNAME=" + name);
}

/// A file in memory with the text, standing at its beginning.
Descriptor inputOf(const std::string& text) {
    Descriptor file(::memfd_create("records", MFD_CLOEXEC));
    if (!file || !writeAll(file.get(), text) || ::lseek(file.get(), 0, SEEK_SET) != 0) {
        throw std::runtime_error("cannot make the program's input: " + systemError(errno));
    }
    return file;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& each : texts) {
        pointers.push_back(each.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

Plan planFor(const CommandSettings& command, const std::vector<Record>& records) {
    Plan plan;
    plan.words = command.words;
    std::string input;
    for (const Record& each : records) {
        switch (command.input) {
        case CommandSettings::Input::arguments:
            plan.words.push_back(each.path);
            break;
        case CommandSettings::Input::nul:
            input += each.path + '\0';
            break;
        case CommandSettings::Input::json:
            appendJson(each, input);
            input += '\n';
            break;
        }
    }
    plan.input = inputOf(input);
    if (!command.user.empty()) {
        setUser(command.user, plan);
    }
    for (char** variable = environ; *variable != nullptr; ++variable) {
        // What the service manager tells the relay is nothing for it; what was set above goes
        // first.
        const std::string text = *variable;
        const std::string name = text.substr(0, text.find('=') + 1);
        const bool isOwn = name == "NOTIFY_SOCKET=" || name == "WATCHDOG_USEC=" ||
                           name == "WATCHDOG_PID=" || name.rfind("LISTEN_", 0) == 0;
        const bool isSet =
            plan.hasUser && (name == "HOME=" || name == "USER=" || name == "LOGNAME=");
        if (!isOwn && !isSet) {
            plan.environment.push_back(text);
        }
    }
    plan.wordPointers = pointersTo(plan.words);
    plan.environmentPointers = pointersTo(plan.environment);
    return plan;
}

/// In the child: only calls that are safe behind a fork.
[[noreturn]] void becomeProgram(const Plan& plan) {
    const int nothing = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(plan.input.get(), STDIN_FILENO);
    ::dup2(nothing, STDOUT_FILENO);
    ::dup2(plan.complaintsIn.get(), STDERR_FILENO);
    ::setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    if (plan.hasUser && (::setgroups(plan.groups.size(), plan.groups.data()) != 0 ||
                         ::setgid(plan.gid) != 0 || ::setuid(plan.uid) != 0)) {
        ::_exit(126);
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::syscall(SYS_close_range, 3U, ~0U, 0U);
    ::execve(plan.wordPointers.front(), plan.wordPointers.data(), plan.environmentPointers.data());
    const char* const why = ::strerrordesc_np(errno);
    static_cast<void>(::write(STDERR_FILENO, why, std::strlen(why)));
    ::_exit(127);
}

std::string endOf(int status, bool isTimedOut, const CommandSettings& command,
                  const std::string& complaints) {
    if (!isTimedOut && WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return {};
    }
    std::string sentence = command.words.front();
    if (isTimedOut) {
        sentence += " was ended after " + std::to_string(command.timeout) + " seconds";
    } else if (WIFSIGNALED(status)) {
        sentence += " was ended by signal " + std::to_string(WTERMSIG(status));
    } else {
        sentence += " ended with status " + std::to_string(WEXITSTATUS(status));
    }
    return complaints.empty() ? sentence : sentence + ": " + shown(complaints);
}

} // namespace

std::string runCommand(const CommandSettings& command, const std::vector<Record>& records,
                       const std::atomic<bool>& isEnding) {
    Plan plan = planFor(command, records);
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        return "cannot make a pipe: " + systemError(errno);
    }
    const Descriptor complaintsOut(ends[0]);
    plan.complaintsIn = Descriptor(ends[1]);
    const pid_t child = ::fork();
    if (child < 0) {
        return "cannot start a process: " + systemError(errno);
    }
    if (child == 0) {
        becomeProgram(plan);
    }
    ::setpgid(child, child); // here, too: whoever is first
    plan.complaintsIn.reset();
    const Descriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, child, 0U)));
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(command.timeout);
    int nextSignal = SIGTERM;
    bool isTimedOut = false;
    std::string complaints;
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        std::array<pollfd, 2> polled = {
            {{handle.get(), POLLIN, 0}, {complaintsOut.get(), POLLIN, 0}}};
        ::poll(polled.data(), polled.size(), pollPause);
        std::array<char, 4096> part{};
        const ssize_t count = ::read(complaintsOut.get(), part.data(), part.size());
        if (count > 0) {
            complaints.append(part.data(), static_cast<std::size_t>(count));
            complaints.erase(0, complaints.size() - std::min(complaints.size(), longestComplaint));
        } else if (count == 0) {
            ::poll(polled.data(), 1, pollPause); // it has closed its standard error
        }
        const auto time = std::chrono::steady_clock::now();
        if (time >= end || (isEnding && nextSignal == SIGTERM)) {
            isTimedOut = isTimedOut || time >= end;
            ::kill(-child, nextSignal);
            nextSignal = SIGKILL;
            end = time + grace;
        }
    }
    ::kill(-child, SIGKILL); // what it has left in the background
    return endOf(status, isTimedOut, command, complaints);
}

} // namespace relay
