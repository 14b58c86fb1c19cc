// A copy program that records how it was called and then does what the test scripted.
//
// It is installed where the daemon looks for its copy program, and works from one folder:
//
//   calls/TIME-PID.json     one record for each call, put in place by a rename
//   listings/KEY/NNN        scripts for the listings of one share, used once each, in this order;
//   listings/any/NNN        the same for every share, after those
//   listings/default        the script of every further listing; without it a listing is empty
//   copies/KEY/slot-I/NNN   scripts for copy process I of one share; then
//   copies/KEY/any/NNN      for its other copy processes; then
//   copies/any/NNN          for every copy process
//   copies/default          the script of every further copy; without it all names are confirmed
//
// KEY is the share's URL without what stands in front of the address, each byte that is neither a
// letter, a digit, a dot nor a hyphen replaced by "_". A script has one step in each line:
//
//   out TEXT, err TEXT      write TEXT to the output or the error output (\n \t \\ \xHH)
//   file PATH               write a file's content to the output
//   confirm-all             for each name of the file list a SENT: and a CONFIRMED: line
//   confirm-from N          the same for the names from the N-th (from 0) on
//   sent-all                for each name of the file list a SENT: line
//   confirmed-all           for each name of the file list a CONFIRMED: line
//   touch PATH              create a file
//   wait PATH               go on when the file exists
//   sleep MILLISECONDS
//   close                   close the output and the error output
//   linger PATH             leave a process behind that holds both open until the file exists
//   kill SIGNAL             end by this signal
//   exit STATUS             end with this status; the end of a script is "exit 0"
//
// Under another name than rsync_orbelin it stands in for the program of that name: it records the
// call, complains on its output and error output, and becomes the program of that name in /bin.
//
// A wait that takes longer than a minute ends the call with status 97, an unknown step with 98 and
// a call that can't be recorded with 99.

#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::string folder = "/usr/local/orbelin/scripted/";

constexpr int waitedTooLong = 97;
constexpr int unknownStep = 98;
constexpr int notRecorded = 99;

// What a regular file holds; nothing for whatever else may stand under that name.
std::optional<std::string> contentOf(const std::string& path) {
    struct stat status = {};
    std::ifstream file(path, std::ios::binary);
    if (!file || stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// What links in /proc refer to; such a link has no size to go by.
std::string linkTarget(const std::string& path) {
    std::string target(4096, '\0');
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    target.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return target;
}

// Any bytes as a JSON string: one code point for each byte, so that the reader gets the bytes back.
std::string quoted(std::string_view bytes) {
    std::string text = "\"";
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte > 0x7e || character == '"' || character == '\\') {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(byte));
            text += escape;
        } else {
            text += character;
        }
    }
    return text + "\"";
}

std::string quotedList(const std::vector<std::string>& list) {
    std::string text = "[";
    for (std::size_t i = 0; i < list.size(); ++i) {
        text += (i == 0 ? "" : ", ") + quoted(list[i]);
    }
    return text + "]";
}

// One field of /proc/self/status, without the blanks around it.
std::string statusField(std::string_view name) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, name.size(), name) == 0 && line.size() > name.size() &&
            line[name.size()] == ':') {
            const std::size_t start = line.find_first_not_of(" \t", name.size() + 1);
            return start == std::string::npos ? "" : line.substr(start);
        }
    }
    return "";
}

// The open descriptors as a JSON object: number -> [what it refers to, its status flags].
std::string openDescriptors() {
    std::string text = "{";
    DIR* directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        return "{}";
    }
    for (const dirent* entry = readdir(directory); entry != nullptr; entry = readdir(directory)) {
        const std::string name = static_cast<const char*>(entry->d_name);
        if (name == "." || name == ".." || name == std::to_string(dirfd(directory))) {
            continue;
        }
        const int flags = fcntl(static_cast<int>(std::strtol(name.c_str(), nullptr, 10)), F_GETFL);
        text += (text.size() == 1 ? "" : ", ") + quoted(name) + ": [" +
                quoted(linkTarget("/proc/self/fd/" + name)) + ", " + std::to_string(flags) + "]";
    }
    closedir(directory);
    return text + "}";
}

// The value behind an option's name among the arguments, or an empty string.
std::string optionValue(const std::vector<std::string>& arguments, const std::string& option) {
    for (const std::string& argument : arguments) {
        if (argument.compare(0, option.size(), option) == 0) {
            return argument.substr(option.size());
        }
    }
    return "";
}

// The first argument that is a share's URL, as the name of a folder.
std::string shareKey(const std::vector<std::string>& arguments) {
    const std::string scheme = "rsync://";
    for (const std::string& argument : arguments) {
        if (argument.compare(0, scheme.size(), scheme) != 0) {
            continue;
        }
        const std::size_t at = argument.find('@');
        std::string key = argument.substr(at == std::string::npos ? scheme.size() : at + 1);
        for (char& character : key) {
            const auto byte = static_cast<unsigned char>(character);
            if (std::isalnum(byte) == 0 && character != '.' && character != '-') {
                character = '_';
            }
        }
        return key;
    }
    return "none";
}

bool writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(descriptor, bytes.data(), bytes.size());
        if (written < 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// When the kernel made this process, in nanoseconds since the machine's start: to a tick (10 ms),
// but not later on a busy machine, as the time of any call would be.
std::int64_t startOfProcess() {
    const std::string all = contentOf("/proc/self/stat").value_or("");
    std::istringstream words(all.substr(all.rfind(')') + 1));
    std::string skipped;
    for (int field = 3; field < 22; ++field) {
        words >> skipped;
    }
    std::int64_t ticks = 0;
    words >> ticks;
    return ticks * (1000000000 / sysconf(_SC_CLK_TCK));
}

// Records this call. Comes before anything that opens a file for longer than it takes to read it.
void record(const std::string& kind, const std::vector<std::string>& arguments, char** environment,
            const std::string& listName) {
    const std::string descriptors = openDescriptors();
    std::vector<std::string> variables;
    for (char** variable = environment; *variable != nullptr; ++variable) {
        variables.emplace_back(*variable);
    }
    const std::int64_t now =
        std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
    struct stat list = {};
    const bool hasList = !listName.empty() && lstat(listName.c_str(), &list) == 0;

    std::ostringstream text;
    text << "{\"kind\": " << quoted(kind) << ",\n \"argv\": " << quotedList(arguments)
         << ",\n \"environment\": " << quotedList(variables)
         << ",\n \"directory\": " << quoted(linkTarget("/proc/self/cwd"))
         << ",\n \"pid\": " << getpid() << ", \"parent\": " << getppid()
         << ", \"session\": " << getsid(0) << ", \"group\": " << getpgrp()
         << ", \"uid\": " << getuid() << ", \"umask\": " << quoted(statusField("Umask"))
         << ",\n \"blocked\": " << quoted(statusField("SigBlk"))
         << ", \"ignored\": " << quoted(statusField("SigIgn"))
         << ",\n \"descriptors\": " << descriptors
         << ",\n \"list\": " << (hasList ? quoted(contentOf(listName).value_or("")) : "null")
         << ", \"list_mode\": " << (hasList ? static_cast<int>(list.st_mode) : 0)
         << ",\n \"time\": " << now << ", \"started\": " << startOfProcess() << "}\n";

    char number[32];
    std::snprintf(number, sizeof number, "%020lld", static_cast<long long>(now));
    const std::string name = folder + "calls/" + number + "-" + std::to_string(getpid());
    const std::string unfinished = name + ".new";
    const int file =
        open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    const bool written = file >= 0 && writeAll(file, text.str());
    if (file >= 0) {
        close(file);
    }
    if (!written || std::rename(unfinished.c_str(), (name + ".json").c_str()) != 0) {
        _exit(notRecorded);
    }
}

// Takes the next script of a series. Calls that run at the same time never get the same one.
std::optional<std::string> nextOf(const std::string& series) {
    for (int number = 0;; ++number) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "/%03d", number);
        const std::string script = series + digits;
        const std::string taken = script + ".taken";
        if (std::rename(script.c_str(), taken.c_str()) == 0) {
            return contentOf(taken);
        }
        if (!exists(taken)) {
            return std::nullopt;
        }
    }
}

// Goes on as the program of that name in /bin.
[[noreturn]] void standInFor(const std::string& program, char** argv) {
    writeAll(STDOUT_FILENO, "remark of " + program + "\n");
    writeAll(STDERR_FILENO, "complaint of " + program + "\n");
    execv(("/bin/" + program).c_str(), argv);
    _exit(unknownStep);
}

std::string scriptFor(bool isCopy, const std::string& key, const std::string& listName) {
    const std::string kind = folder + (isCopy ? "copies/" : "listings/");
    std::vector<std::string> series;
    if (isCopy) {
        const std::string slot = listName.substr(listName.rfind('_') + 1);
        series = {kind + key + "/slot-" + slot, kind + key + "/any", kind + "any"};
    } else {
        series = {kind + key, kind + "any"};
    }
    for (const std::string& each : series) {
        if (const std::optional<std::string> script = nextOf(each)) {
            return *script;
        }
    }
    return contentOf(kind + "default").value_or(isCopy ? "confirm-all\n" : "");
}

int hexDigit(char character) {
    const std::string_view digits = "0123456789abcdef";
    const std::size_t found = digits.find(character);
    return found == std::string_view::npos ? 0 : static_cast<int>(found);
}

std::string unescaped(std::string_view text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            bytes += text[i];
            continue;
        }
        const char kind = text[++i];
        if (kind == 'n') {
            bytes += '\n';
        } else if (kind == 't') {
            bytes += '\t';
        } else if (kind == 'x' && i + 2 < text.size()) {
            bytes += static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
            i += 2;
        } else {
            bytes += kind;
        }
    }
    return bytes;
}

void waitFor(const std::string& path) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!exists(path)) {
        if (std::chrono::steady_clock::now() > limit) {
            _exit(waitedTooLong);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void touch(const std::string& path) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file >= 0) {
        close(file);
    }
}

void confirm(const std::string& listName, long from) {
    std::istringstream list(contentOf(listName).value_or(""));
    std::string report;
    std::string name;
    for (long number = 0; std::getline(list, name); ++number) {
        if (number >= from) {
            report.append("SENT: ").append(name).append("\n");
            report.append("CONFIRMED: removed ").append(name).append("\n");
        }
    }
    writeAll(STDOUT_FILENO, report);
}

// One line for each name: `beginning` and the name.
void printNames(const std::string& listName, const std::string& beginning) {
    std::istringstream list(contentOf(listName).value_or(""));
    std::string report;
    std::string name;
    while (std::getline(list, name)) {
        report.append(beginning).append(name).append("\n");
    }
    writeAll(STDOUT_FILENO, report);
}

void linger(const std::string& path) {
    if (fork() == 0) {
        waitFor(path);
        _exit(0);
    }
}

// Does one step of a script; ends the program where the step says so.
void perform(const std::string& step, const std::string& listName) {
    const std::size_t blank = step.find(' ');
    const std::string verb = step.substr(0, blank);
    const std::string argument = blank == std::string::npos ? "" : step.substr(blank + 1);
    const long number = std::strtol(argument.c_str(), nullptr, 10);
    if (verb == "out") {
        writeAll(STDOUT_FILENO, unescaped(argument));
    } else if (verb == "err") {
        writeAll(STDERR_FILENO, unescaped(argument));
    } else if (verb == "file") {
        writeAll(STDOUT_FILENO, contentOf(argument).value_or(""));
    } else if (verb == "confirm-all") {
        confirm(listName, 0);
    } else if (verb == "confirm-from") {
        confirm(listName, number);
    } else if (verb == "sent-all") {
        printNames(listName, "SENT: ");
    } else if (verb == "confirmed-all") {
        printNames(listName, "CONFIRMED: removed ");
    } else if (verb == "touch") {
        touch(argument);
    } else if (verb == "wait") {
        waitFor(argument);
    } else if (verb == "sleep") {
        std::this_thread::sleep_for(std::chrono::milliseconds(number));
    } else if (verb == "close") {
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
    } else if (verb == "linger") {
        linger(argument);
    } else if (verb == "kill") {
        std::raise(static_cast<int>(number));
    } else if (verb == "exit") {
        _exit(static_cast<int>(number));
    } else if (!verb.empty()) {
        _exit(unknownStep);
    }
}

} // namespace

int main(int argc, char** argv, char** environment) {
    const std::vector<std::string> arguments(argv, argv + argc);
    const std::string program = arguments.at(0).substr(arguments.at(0).rfind('/') + 1);
    if (program != "rsync_orbelin") {
        record(program, arguments, environment, "");
        standInFor(program, argv);
    }
    bool isCopy = false;
    for (const std::string& argument : arguments) {
        isCopy = isCopy || argument == "--confirm-files";
    }
    const std::string listName = optionValue(arguments, "--files-from=");
    record(isCopy ? "copy" : "listing", arguments, environment, listName);
    std::istringstream script(scriptFor(isCopy, shareKey(arguments), listName));
    std::string step;
    while (std::getline(script, step)) {
        perform(step, listName);
    }
    return 0;
}
