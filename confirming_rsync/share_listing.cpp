// The listing of a share when earlier runs have left names open: stock rsync's, with a reminder.
#include "confirming_rsync/share_listing.h"

#include "confirming_rsync/line_assembly.h"
#include "confirming_rsync/relay.h"
#include "confirming_rsync/reminder.h"
#include "confirming_rsync/report_writer.h"
#include "confirming_rsync/signals.h"
#include "confirming_rsync/text_files.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace confirming {

ShareListing::ShareListing(Places places, Arguments arguments, std::vector<std::string> environment)
    : places_(std::move(places)), arguments_(std::move(arguments)),
      environment_(std::move(environment)) {
}

int ShareListing::run() {
    Signals signals;
    ReportWriter writer(STDOUT_FILENO);
    Relay relay(signals, writer);
    const Descriptor nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    Child rsync({places_.stockRsync, arguments_.rsync, environment_}, nothing, signals);
    const Descriptor errorOutput(::dup(STDERR_FILENO));
    if (!rsync.hasStarted()) {
        writeText(errorOutput, "rsync_orbelin: cannot start " + places_.stockRsync + ": " +
                                   std::strerror(rsync.startError()) + "\n");
        return notStarted;
    }
    LineAssembly assembly;
    bool listsSomething = false;
    const Sinks sinks{[&](std::string_view bytes) {
                          writer.add(bytes);
                          assembly.take(bytes, [&](const LinePiece& piece) {
                              listsSomething = listsSomething || namesSomething(piece.text);
                          });
                      },
                      [&](std::string_view bytes) { writeText(errorOutput, bytes); }};
    const auto isStopping = [&relay] { return relay.stopSignal() != 0 || relay.readerIsGone(); };
    while (!isStopping() && (rsync.output || rsync.errorOutput || !rsync.hasEnded())) {
        relay.step(rsync, sinks, never);
    }
    if (!isStopping() && rsync.exitStatus() == 0 && !listsSomething) {
        countReminder(places_.journalFolder, arguments_.listedSource);
        writer.add(reminderLine());
    }
    while (!isStopping() && writer.pending() > 0) {
        relay.step(never);
    }
    if (isStopping()) {
        rsync.kill();
        endBySignal(relay.stopSignal() != 0 ? relay.stopSignal() : SIGPIPE);
    }
    return rsync.exitStatus();
}

bool namesSomething(std::string_view line) {
    for (int field = 0; field < 4; ++field) {
        line.remove_prefix(std::min(line.size(), line.find_first_not_of(' ')));
        line.remove_prefix(std::min(line.size(), line.find(' ')));
    }
    line.remove_prefix(std::min(line.size(), line.find_first_not_of(' ')));
    return !line.empty() && line.front() != '.';
}

} // namespace confirming
