// What the caller asked for, and the argument vectors and environment that stock rsync gets for it.
#include "confirming_rsync/arguments.h"

#include "confirming_rsync/share_question.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace confirming {

namespace {

bool beginsWith(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

/// If arguments[at] is `option`, with its value behind "=" or as the next argument, stores the
/// value and returns true.
bool readOption(const std::vector<std::string>& arguments, std::size_t at, std::string_view option,
                std::string& value) {
    const std::string_view argument = arguments[at];
    if (!beginsWith(argument, option)) {
        return false;
    }
    if (argument.size() > option.size() && argument[option.size()] == '=') {
        value = argument.substr(option.size() + 1);
        return true;
    }
    if (argument.size() == option.size() && at + 1 < arguments.size()) {
        value = arguments[at + 1];
        return true;
    }
    return false;
}

/// A share's host that went away without a word would be waited for as long as the kernel does.
/// Without TCP_NODELAY small messages wait for the peer's delayed acknowledgement: once in a
/// listing, and for each removal in a copy.
std::vector<std::string> optionsForAnyCall(bool ofAShare) {
    std::vector<std::string> options{"--8-bit-output"};
    if (ofAShare) {
        options.emplace_back("--contimeout=30");
        options.emplace_back("--sockopts=TCP_NODELAY");
    }
    return options;
}

void addOptionsForReport(const std::string& uid, const std::string& gid,
                         std::vector<std::string>& options) {
    options.emplace_back("--info=remove1");
    if (!uid.empty() || !gid.empty()) {
        options.emplace_back("-og");
        options.push_back("--chown=" + uid + (gid.empty() ? "" : ":" + gid));
    }
}

} // namespace

Arguments readArguments(const std::vector<std::string>& arguments, const std::string& uid,
                        const std::string& gid) {
    Arguments result;
    bool options = true;
    bool listing = false;
    std::vector<std::string> kept;
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        const std::string& argument = arguments[at];
        std::string value;
        if (argument == "--") {
            options = false;
        } else if (options && argument == "--confirm-files") {
            result.confirming = true;
            continue;
        } else if (options && argument == "--list-only") {
            listing = true;
        } else if (options && readOption(arguments, at, "--files-from", value)) {
            result.fileList = value;
        } else if (options && (argument == "--from0" || argument == "-0")) {
            result.fileListEndsNamesWithNul = true;
        } else if (options && readOption(arguments, at, "--password-file", value)) {
            result.access = {"--password-file=" + value};
        }
        kept.push_back(argument);
    }
    if (kept.size() >= 2) {
        result.source = kept[kept.size() - 2];
        result.destination = kept.back();
    }
    if (listing) {
        result.listedSource = kept.back();
    }
    const std::string& source = result.confirming ? result.source : result.listedSource;
    const bool ofAShare = parseShare(source).has_value();
    result.rsync = optionsForAnyCall(ofAShare);
    if (result.confirming) {
        addOptionsForReport(uid, gid, result.rsync);
    } else if (ofAShare) {
        result.rsync.emplace_back("--timeout=60");
    }
    result.rsync.insert(result.rsync.end(), kept.begin(), kept.end());
    return result;
}

std::vector<std::string> withListOnInput(const Arguments& arguments) {
    std::vector<std::string> rsync{"--from0"};
    bool options = true;
    for (std::size_t at = 0; at < arguments.rsync.size(); ++at) {
        std::string value;
        options = options && arguments.rsync[at] != "--";
        if (options && readOption(arguments.rsync, at, "--files-from", value)) {
            rsync.emplace_back("--files-from=-");
            at += arguments.rsync[at] == "--files-from" ? 1 : 0;
        } else {
            rsync.push_back(arguments.rsync[at]);
        }
    }
    return rsync;
}

std::vector<std::string> childEnvironment(std::vector<std::string> environment) {
    const auto isSet = [&environment](std::string_view name) {
        return std::any_of(environment.begin(), environment.end(),
                           [name](const std::string& entry) { return beginsWith(entry, name); });
    };
    if (!isSet("PATH=")) {
        environment.emplace_back(
            "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin");
    }
    environment.erase(
        std::remove_if(environment.begin(), environment.end(),
                       [](const std::string& entry) { return beginsWith(entry, "LC_ALL="); }),
        environment.end());
    environment.emplace_back("LC_ALL=C");
    return environment;
}

} // namespace confirming
