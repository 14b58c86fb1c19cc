// The listing of a share: stock rsync's, with a reminder if runs that are over have left names
// open.
#include "confirming_rsync/share_listing.h"

#include "confirming_rsync/left_names.h"
#include "confirming_rsync/line_assembly.h"
#include "confirming_rsync/relay.h"
#include "shares/share_figures.h"
#include "utilities/descriptors.h"

#include <cstdint>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace confirming {

namespace {

/// The complaints of a listing go to a file below /tmp, which all detectors share.
constexpr std::size_t longestComplaints = std::size_t{1024} * 1024;

/// Passes complaints on, up to that much, and keeps the first line, which mostly tells the cause.
class Complaints {
public:
    void take(std::string_view bytes) {
        assembly_.take(bytes, [this](const LinePiece& piece) { keep(piece); });
        bytes = bytes.substr(0, longestComplaints - passedOn_);
        passedOn_ += bytes.size();
        writeAll(errorOutput_.get(), bytes);
    }
    const std::string& first() const { return first_; }

private:
    void keep(const LinePiece& piece) {
        if (first_.empty()) {
            first_ = piece.text;
        }
    }

    const Descriptor errorOutput_{::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)};
    LineAssembly assembly_;
    std::size_t passedOn_ = 0;
    std::string first_;
};

} // namespace

ShareListing::ShareListing(Places places, Arguments arguments, std::vector<std::string> environment,
                           const Limits& limits)
    : places_(std::move(places)), arguments_(std::move(arguments)),
      environment_(std::move(environment)), limits_(limits) {
}

int ShareListing::run() {
    // Rsync fills the pipe with a long listing much faster than a copy does with its report.
    Relay relay(std::chrono::milliseconds(1));
    Complaints complaints;
    ListingFigures figures(places_.figuresFolder, arguments_.listedSource);
    figures.begin();
    Settlement settlement(places_.journalFolder, arguments_.listedSource, limits_.announceAgain);
    const Descriptor nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    Child rsync({places_.stockRsync, arguments_.rsync, environment_}, nothing, relay.signals);
    if (!rsync.failure().empty()) {
        const std::string complaint = "rsync_orbelin: " + rsync.failure();
        complaints.take(complaint + "\n");
        figures.end(notStarted, 0, complaint);
        return notStarted;
    }
    LineAssembly assembly;
    std::uint64_t entries = 0;
    const Sinks sinks{[&](std::string_view bytes) {
                          relay.report.add(bytes);
                          assembly.take(bytes, [&](const LinePiece& piece) {
                              entries += piece.ends ? 1 : 0;
                              settlement.takeListed(piece.text);
                          });
                      },
                      [&](std::string_view bytes) { complaints.take(bytes); }};
    const auto isStopping = [&relay] { return relay.endingSignal() != 0; };
    while (!isStopping() && (rsync.output || rsync.errorOutput || !rsync.hasEnded())) {
        relay.step(never, &rsync, sinks);
    }
    if (!isStopping()) {
        figures.end(rsync.exitStatus(), entries, complaints.first());
        if (rsync.exitStatus() == 0 && !relay.hasMissedSomething()) {
            settlement.settle();
        }
        if (rsync.exitStatus() == 0 && settlement.isReminderDue()) {
            relay.report.add(reminderLine());
        }
    }
    while (!isStopping() && relay.report.pending() > 0) {
        relay.step(never);
    }
    if (isStopping()) {
        rsync.kill();
        endBySignal(relay.endingSignal());
    }
    return rsync.exitStatus();
}

} // namespace confirming
