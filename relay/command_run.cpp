// One run of a subscriber's program.
#include "relay/command_run.h"

#include "relay/json.h"
#include "relay/messages.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <stdexcept>

#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace relay {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t longestComplaint = 400; // the end of what it said
constexpr auto grace = 5s;                    // between SIGTERM and SIGKILL
constexpr int pollPause = 100;                // milliseconds

/// What the program is started through: it sets the user, and sees to it that it dies with us.
constexpr const char* starter = "/usr/bin/setpriv";

/// What of a run's words and input comes from the records.
void addRecords(const std::vector<Record>& records, CommandSettings::Input form,
                std::vector<std::string>& words, std::string& input) {
    for (const Record& each : records) {
        switch (form) {
        case CommandSettings::Input::arguments:
            words.push_back(each.path);
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
}

/// The relay's own, without what the service manager tells it, and with what is the user's.
std::vector<std::string> environmentOf(const passwd* user) {
    std::vector<std::string> left = {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID",
                                     "LISTEN_FDS",    "LISTEN_PID",    "LISTEN_FDNAMES"};
    std::vector<std::string> made;
    if (user != nullptr) {
        left.insert(left.end(), {"HOME", "USER", "LOGNAME"});
        made = {"HOME=" + std::string(user->pw_dir), "USER=" + std::string(user->pw_name),
                "LOGNAME=" + std::string(user->pw_name)};
    }
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (std::find(left.begin(), left.end(), text.substr(0, text.find('='))) == left.end()) {
            made.push_back(text);
        }
    }
    return made;
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

/// Starts it as the leader of a group of its own, with these for its first three descriptors.
pid_t spawn(std::vector<std::string>& words, std::vector<std::string>& environment,
            const Descriptor& input, const Descriptor& errors) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    sigset_t none;
    sigset_t usual;
    sigemptyset(&none);
    sigemptyset(&usual);
    sigaddset(&usual, SIGPIPE);
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, input.get(), STDIN_FILENO);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&files, errors.get(), STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK |
                                              POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &usual);
    pid_t process = -1;
    const int error = posix_spawn(&process, starter, &files, &attributes, pointersTo(words).data(),
                                  pointersTo(environment).data());
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        throw std::runtime_error("cannot start a process: " + systemError(error));
    }
    return process;
}

} // namespace

CommandRun::CommandRun(const CommandSettings& ofCommand, const std::vector<Record>& records)
    : command(ofCommand), nextSignal(SIGTERM),
      signalTime(std::chrono::steady_clock::now() + std::chrono::seconds(command.timeout)) {
    try {
        start(records);
    } catch (const std::runtime_error& error) {
        sentence = error.what();
    }
}

CommandRun::~CommandRun() {
    end();
    while (!hasEnded()) {
        std::vector<pollfd> polled;
        addTo(polled);
        ::poll(polled.data(), polled.size(), pollPause);
    }
}

void CommandRun::start(const std::vector<Record>& records) {
    std::vector<std::string> words = {starter, "--pdeathsig=KILL"};
    const passwd* user = nullptr;
    if (!command.user.empty()) {
        user = ::getpwnam(command.user.c_str());
        if (user == nullptr) {
            throw std::runtime_error("there is no user " + command.user);
        }
        words.insert(words.end(), {"--reuid=" + std::to_string(user->pw_uid),
                                   "--regid=" + std::to_string(user->pw_gid), "--init-groups"});
    }
    words.emplace_back("--");
    words.insert(words.end(), command.words.begin(), command.words.end());
    std::string input;
    addRecords(records, command.input, words, input);
    std::vector<std::string> environment = environmentOf(user);
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::runtime_error("cannot make a pipe: " + systemError(errno));
    }
    complaintsOut = Descriptor(ends[0]);
    const Descriptor complaintsIn(ends[1]);
    process = spawn(words, environment, inputOf(input), complaintsIn);
    handle = Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0U)));
}

void CommandRun::end() {
    if (process >= 0 && nextSignal == SIGTERM) {
        signal();
    }
}

/// Sends the next signal to all that it has started.
void CommandRun::signal() {
    ::kill(-process, nextSignal);
    nextSignal = SIGKILL;
    signalTime = std::chrono::steady_clock::now() + grace;
}

void CommandRun::addTo(std::vector<pollfd>& polled) const {
    for (const Descriptor* const each : {&handle, &complaintsOut}) {
        polled.push_back({each->get(), POLLIN, 0}); // poll leaves out what is closed
    }
}

void CommandRun::readComplaints() {
    std::array<char, 4096> part{};
    const ssize_t count = ::read(complaintsOut.get(), part.data(), part.size());
    if (count > 0) {
        complaints.append(part.data(), static_cast<std::size_t>(count));
        complaints.erase(0, complaints.size() - std::min(complaints.size(), longestComplaint));
    } else if (count == 0) {
        complaintsOut.reset(); // it has closed its standard error
    }
}

bool CommandRun::hasEnded() {
    if (process < 0) {
        return true;
    }
    readComplaints();
    int status = 0;
    if (::waitpid(process, &status, WNOHANG) == process) {
        ::kill(-process, SIGKILL); // what it has left in the background
        process = -1;
        readComplaints();
        sentence = outcome(status);
        return true;
    }
    if (std::chrono::steady_clock::now() >= signalTime) {
        isTimedOut = true;
        signal();
    }
    return false;
}

std::string CommandRun::outcome(int status) const {
    if (!isTimedOut && WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return {};
    }
    std::string text = command.words.front();
    if (isTimedOut) {
        text += " was ended after " + std::to_string(command.timeout) + " seconds";
    } else if (WIFSIGNALED(status)) {
        text += " was ended by signal " + std::to_string(WTERMSIG(status));
    } else {
        text += " ended with status " + std::to_string(WEXITSTATUS(status));
    }
    return complaints.empty() ? text : text + ": " + shown(complaints);
}

} // namespace relay
