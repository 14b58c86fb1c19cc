// The program's two ways: the listing, which stock rsync does alone, and the copy with its report.
#include "confirming_rsync/program.h"

#include "confirming_rsync/arguments.h"
#include "confirming_rsync/child.h"
#include "confirming_rsync/copy_run.h"
#include "confirming_rsync/descriptors.h"
#include "confirming_rsync/share_listing.h"

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include <unistd.h>

namespace confirming {

namespace {

std::vector<std::string> stringsFrom(char** pointers) {
    std::vector<std::string> strings;
    for (; pointers != nullptr && *pointers != nullptr; ++pointers) {
        strings.emplace_back(*pointers);
    }
    return strings;
}

std::string valueOf(const std::vector<std::string>& environment, const std::string& name) {
    const std::string beginning = name + "=";
    for (const std::string& entry : environment) {
        if (entry.compare(0, beginning.size(), beginning) == 0) {
            return entry.substr(beginning.size());
        }
    }
    return {};
}

/// Returns only if that fails: with the exit status, the reason said.
int becomeStockRsync(const std::string& stockRsync, const std::vector<std::string>& arguments,
                     char** environment) {
    std::vector<std::string> vector{stockRsync};
    vector.insert(vector.end(), arguments.begin(), arguments.end());
    ::execve(stockRsync.c_str(), pointersTo(vector).data(), environment);
    const std::string complaint =
        "rsync_orbelin: cannot start " + stockRsync + ": " + std::strerror(errno) + "\n";
    (void)!::write(STDERR_FILENO, complaint.data(), complaint.size());
    return notStarted;
}

} // namespace

int runProgram(const Places& places, const Limits& limits, int argc, char** argv,
               char** environment) {
    if (!fillStandardDescriptors()) {
        return notStarted;
    }
    const std::vector<std::string> variables = stringsFrom(environment);
    Arguments arguments =
        readArguments(stringsFrom(argc > 0 ? argv + 1 : nullptr), valueOf(variables, "RSYNC_UID"),
                      valueOf(variables, "RSYNC_GID"));
    if (!arguments.confirming) {
        if (!parseShare(arguments.listedSource)) {
            return becomeStockRsync(places.stockRsync, arguments.rsync, environment);
        }
        closeInheritedDescriptors();
        return ShareListing(places, std::move(arguments), variables, limits).run();
    }
    closeInheritedDescriptors();
    return CopyRun(places, std::move(arguments), variables, limits).run();
}

} // namespace confirming
