// What the caller asked for, and the argument vectors and environment that stock rsync gets for it.
#include "confirming_rsync/arguments.h"

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
        // A message of the day would be the share's own text among rsync's.
        options.emplace_back("--no-motd");
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
    // Whether that option comes before those about the list or after them is all the same.
    const auto lastOption = std::find(arguments.begin(), arguments.end(), "--");
    result.confirming = std::find(arguments.begin(), lastOption, "--confirm-files") != lastOption;
    bool options = true;
    bool listing = false;
    std::vector<std::string> kept;
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        const std::string& argument = arguments[at];
        std::string value;
        if (argument == "--") {
            options = false;
            if (result.confirming) {
                continue; // more options follow
            }
        } else if (options && argument == "--confirm-files") {
            continue;
        } else if (options && argument == "--list-only") {
            listing = true;
        } else if (options && readOption(arguments, at, "--files-from", value)) {
            result.fileList = value;
            if (result.confirming) {
                at += argument == "--files-from" ? 1 : 0;
                continue;
            }
        } else if (options && (argument == "--from0" || argument == "-0")) {
            result.listEndsNamesWithNul = true;
            if (result.confirming) {
                continue;
            }
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

std::vector<std::string> passArguments(const Arguments& arguments, const Share& share, Pass pass,
                                       Comparison comparison) {
    std::vector<std::string> rsync{"--from0", "--files-from=-"};
    if (comparison == Comparison::none) {
        rsync.emplace_back("--ignore-times");
    } else if (comparison == Comparison::nanoseconds) {
        // Else a file that was written anew within the second, with the same size, would be taken
        // for the one that is there, and removed.
        rsync.emplace_back("--modify-window=-1");
    }
    const std::size_t places = std::min<std::size_t>(arguments.rsync.size(), 2);
    for (std::size_t at = 0; at + places < arguments.rsync.size(); ++at) {
        if (pass != Pass::copy || arguments.rsync[at] != "--remove-source-files") {
            rsync.push_back(arguments.rsync[at]);
        }
    }
    if (pass == Pass::remove) {
        // Last, to win. What is not at the target as it is at the source is left where it is; and
        // what the first pass has said of the whole need not be said again.
        rsync.push_back("--temp-dir=" + std::string(noPlace));
        rsync.emplace_back("--no-verbose");
    }
    rsync.push_back(share.root);
    rsync.push_back(arguments.destination);
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
