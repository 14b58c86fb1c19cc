// The program's two ways: the listing, which stock rsync does alone, and the copy with its report.
#include "confirming_rsync/arguments.h"
#include "confirming_rsync/child.h"
#include "confirming_rsync/copy_run.h"
#include "confirming_rsync/descriptors.h"
#include "confirming_rsync/share_listing.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace confirming {

namespace {

std::vector<std::string> stringsFrom(char** pointers) {
    std::vector<std::string> strings;
    for (; *pointers != nullptr; ++pointers) {
        strings.emplace_back(*pointers);
    }
    return strings;
}

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

/// Returns only if that fails: with the exit status, the reason said.
int becomeStockRsync(const std::string& stockRsync, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), stockRsync);
    ::execve(stockRsync.c_str(), pointersTo(arguments).data(), environ);
    writeUnchecked(STDERR_FILENO, "rsync_orbelin: cannot start " + stockRsync + ": " +
                                      std::strerror(errno) + "\n");
    return notStarted;
}

/// Does what the command line asks, with what was set when the program was built. Returns the exit
/// status; does not return where stock rsync takes the program's place, or where a signal ends it.
int run(char** argv) {
    if (!fillStandardDescriptors()) {
        return notStarted;
    }
    const Places places{STOCK_RSYNC, JOURNAL_FOLDER, FIGURES_FOLDER, FLUSHING != 0};
    Limits limits;
    limits.standstill = std::chrono::seconds(STANDSTILL_SECONDS);
    limits.announceAgain = std::chrono::seconds(ANNOUNCE_AGAIN_SECONDS);
    const std::vector<std::string> variables = stringsFrom(environ);
    Arguments arguments =
        readArguments(stringsFrom(argv + 1), variable("RSYNC_UID"), variable("RSYNC_GID"));
    if (!arguments.confirming && !parseShare(arguments.listedSource)) {
        return becomeStockRsync(places.stockRsync, std::move(arguments.rsync));
    }
    closeInheritedDescriptors();
    if (arguments.confirming) {
        return CopyRun(places, std::move(arguments), variables, limits).run();
    }
    return ShareListing(places, std::move(arguments), variables, limits).run();
}

} // namespace

} // namespace confirming

int main(int /*count*/, char** argv) {
    return confirming::run(argv);
}
