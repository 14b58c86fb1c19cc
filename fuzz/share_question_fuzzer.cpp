// Fuzzes the question to a share which files it still has, above all the reading of its answer.
//
// An input is four texts with a byte 0xFF between them: the source, the names asked for (a line
// each), what the share listed, what it complained about.
#include "confirming_rsync/share_question.h"
#include "fuzz/input.h"
#include "shares/printed_name.h"

#include <algorithm>

using fuzz::require;

namespace {

/// True if a listing line is about this very name: four fields, one blank, the name.
bool lists(const std::string& line, const std::string& name) {
    const char* at = line.c_str();
    const char* const end = at + line.size();
    for (int field = 0; field < 4; ++field) {
        while (at != end && *at == ' ') {
            ++at;
        }
        if (at == end) {
            return false;
        }
        while (at != end && *at != ' ') {
            ++at;
        }
    }
    return at != end && std::string(at + 1, end) == name;
}

void checkShare(const confirming::Share& share, const std::string& source) {
    require(!share.module.empty() && share.module.find('/') == std::string::npos,
            "a module is one folder");
    require(source.find(share.module) != std::string::npos, "the module stands in the source");
    require(share.directory.front() == '/' && share.directory.back() == '/',
            "a directory has slashes around it");
    require(share.directory.find("//") == std::string::npos, "a directory has no empty parts");
    require(share.directory.find("/../") == std::string::npos, "a directory does not lead up");
    require(source.rfind(share.root.substr(0, share.root.size() - 1), 0) == 0,
            "the source begins with the module's root");
    const auto root = confirming::parseShare(share.root);
    require(root && root->root == share.root && root->module == share.module &&
                root->directory == "/",
            "the module's root is a share");
    const auto again =
        confirming::parseShare(share.root + confirming::unprintedName(share.directory.substr(1)));
    require(again && again->root == share.root && again->directory == share.directory,
            "root and directory are the whole source");
}

void checkAnswer(const confirming::Share& share, const std::vector<std::string>& names,
                 const std::string& output, const std::string& errorOutput) {
    const std::vector<std::string> gone = confirming::namesGone(share, names, output, errorOutput);
    const std::vector<std::string> listed = fuzz::split(output, '\n');
    const std::vector<std::string> complaints = fuzz::split(errorOutput, '\n');
    auto next = names.begin();
    for (const std::string& name : gone) {
        next = std::find(next, names.end(), name);
        require(next != names.end(), "only what was asked for is gone, in that order");
        ++next;
        const std::string complaint = "link_stat \"" + share.directory + name + "\" (in " +
                                      share.module + ") failed: No such file or directory (2)";
        require(std::count(complaints.begin(), complaints.end(), "rsync: [sender] " + complaint) +
                        std::count(complaints.begin(), complaints.end(), "rsync: " + complaint) >
                    0,
                "of what is gone the share said so");
        require(std::none_of(listed.begin(), listed.end(),
                             [&](const std::string& line) { return lists(line, name); }),
                "what is listed is not gone");
    }
    require(confirming::namesGone(share, names, output, "").empty(),
            "without complaints nothing is gone");
    require(confirming::namesGone(share, {}, output, errorOutput).empty(),
            "without a question nothing is gone");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> parts = fuzz::split(fuzz::text(data, size), '\xff');
    parts.resize(4);
    // The names come from a file list, as rsync would print them.
    std::vector<std::string> names;
    for (const std::string& name : fuzz::split(parts[1], '\n')) {
        names.push_back(confirming::printedName(name.substr(0, name.find('\0'))));
    }
    const auto parsed = confirming::parseShare(parts[0].substr(0, parts[0].find('\0')));
    if (parsed) {
        checkShare(*parsed, parts[0]);
    }
    const confirming::Share share =
        parsed.value_or(confirming::Share{"rsync://h/ramdisk/", "ramdisk", "/"});
    const std::string folder =
        share.directory == "/" ? "" : confirming::unprintedName(share.directory.substr(1)) + "./";
    std::vector<std::string> asked;
    for (const std::string& entry : fuzz::split(confirming::listInput(share, names), '\0')) {
        require(entry.rfind(folder, 0) == 0, "an entry begins with the directory");
        asked.push_back(confirming::printedName(entry.substr(folder.size())));
    }
    require(asked == names, "the question holds each name once, in order");

    checkAnswer(share, names, parts[2], parts[3]);
    return 0;
}
