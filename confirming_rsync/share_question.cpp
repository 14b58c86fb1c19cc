// A share, as a URL names it; and the question which of some files it still has.
#include "confirming_rsync/share_question.h"

#include "shares/printed_name.h"

#include <cstddef>
#include <set>

namespace confirming {

namespace {

constexpr std::string_view urlScheme = "rsync://";

/// Takes off and returns what comes before the separator, or all.
std::string_view takePart(std::string_view& text, char separator) {
    const std::size_t end = text.find(separator);
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return part;
}

/// MODULE[/PATH] of the source; empty if it is none of an rsync daemon.
std::string_view moduleAndPath(std::string_view source) {
    if (source.substr(0, urlScheme.size()) == urlScheme) {
        source.remove_prefix(urlScheme.size());
        takePart(source, '/');
        return source;
    }
    std::size_t separator = source.find("::");
    if (source.find('[') < separator) {
        // The colons of an address in brackets are not the separator.
        separator = source.find("::", source.find(']'));
    }
    if (separator == std::string_view::npos || source.find('/') < separator) {
        return {};
    }
    return source.substr(separator + 2);
}

/// The name of a listing line: what follows permissions, size, date and time.
std::string_view listedName(std::string_view line) {
    for (int field = 0; field < 4; ++field) {
        const std::size_t begin = line.find_first_not_of(' ');
        const std::size_t end = line.find(' ', begin);
        if (begin == std::string_view::npos || end == std::string_view::npos) {
            return {};
        }
        line.remove_prefix(end);
    }
    line.remove_prefix(1);
    return line;
}

} // namespace

std::optional<Share> parseShare(std::string_view source) {
    std::string_view rest = moduleAndPath(source);
    Share share;
    share.root = source.substr(0, source.size() - rest.size());
    share.module = takePart(rest, '/');
    share.root += share.module + "/";
    if (share.module.empty()) {
        return std::nullopt;
    }
    share.directory = "/";
    while (!rest.empty()) {
        const std::string_view part = takePart(rest, '/');
        if (part == "..") {
            return std::nullopt;
        }
        if (!part.empty() && part != ".") {
            share.directory += printedName(part) + "/";
        }
    }
    return share;
}

std::string Share::entry(const std::string& name) const {
    // The part in front of "/./" is where the name begins.
    return (directory == "/" ? "" : unprintedName(directory.substr(1)) + "./") +
           unprintedName(name);
}

std::string listInput(const Share& share, const std::vector<std::string>& names) {
    std::string input;
    for (const std::string& name : names) {
        input += share.entry(name);
        input += '\0';
    }
    return input;
}

std::vector<std::string> questionArguments(const std::vector<std::string>& access,
                                           const Share& share) {
    std::vector<std::string> arguments{"--list-only",    "--files-from=-", "--from0",
                                       "--8-bit-output", "--no-motd",      "--contimeout=10",
                                       "--timeout=20"};
    arguments.insert(arguments.end(), access.begin(), access.end());
    arguments.push_back(share.root);
    // Without a destination rsync takes the source for one.
    arguments.emplace_back(".");
    return arguments;
}

void forListedNames(std::string_view line, const std::function<void(std::string_view)>& take) {
    const std::string_view name = listedName(line);
    if (name.empty()) {
        return;
    }
    take(name);
    constexpr std::string_view arrow = " -> ";
    for (std::size_t at = name.find(arrow); at != std::string_view::npos;
         at = name.find(arrow, at + 1)) {
        take(name.substr(0, at));
    }
}

bool isAnswered(int exitStatus) {
    // 23 and 24: some of the files can't be had, which is what was asked.
    return exitStatus == 0 || exitStatus == 23 || exitStatus == 24;
}

std::vector<std::string> namesGone(const Share& share, const std::vector<std::string>& names,
                                   std::string_view output, std::string_view errorOutput) {
    std::set<std::string, std::less<>> listed;
    while (!output.empty()) {
        forListedNames(takePart(output, '\n'),
                       [&listed](std::string_view name) { listed.emplace(name); });
    }
    std::set<std::string, std::less<>> complaints;
    while (!errorOutput.empty()) {
        complaints.emplace(takePart(errorOutput, '\n'));
    }
    std::vector<std::string> gone;
    for (const std::string& name : names) {
        const std::string complaint = "link_stat \"" + share.pathOf(name) + "\" (in " +
                                      share.module + ") failed: No such file or directory (2)";
        // Versions before 3.2 don't say which side complains.
        const bool missing = complaints.count("rsync: [sender] " + complaint) != 0 ||
                             complaints.count("rsync: " + complaint) != 0;
        if (missing && listed.count(name) == 0) {
            gone.push_back(name);
        }
    }
    return gone;
}

} // namespace confirming
