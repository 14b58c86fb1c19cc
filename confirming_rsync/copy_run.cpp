// One copy: the files of a list are copied, made durable, removed at the source and reported.
#include "confirming_rsync/copy_run.h"

#include "confirming_rsync/left_names.h"
#include "shares/journal_folder.h"
#include "shares/process_identity.h"
#include "utilities/descriptors.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <sys/mman.h>
#include <unistd.h>

namespace confirming {

namespace {

constexpr const char* ownName = "rsync_orbelin: ";

/// No rsync is given more names. It compares each name that the share sends with those that it has
/// asked for, one after the other: with 10,000 of them, that takes longer than to copy the files if
/// they are small.
constexpr std::size_t largestPortion = 1000;

/// Far beyond any honest answer.
constexpr std::size_t longestAnswer = std::size_t{64} * 1024 * 1024;

/// What rsync itself ends with in such cases.
constexpr int badListStatus = 3;
constexpr int fileErrorStatus = 11;

/// The text as a file to be read from its beginning; empty if that can't be had.
Descriptor fileWith(const std::string& text) {
    Descriptor file(::memfd_create("names", MFD_CLOEXEC));
    if (file && (!writeAll(file.get(), text) || ::lseek(file.get(), 0, SEEK_SET) != 0)) {
        file.reset();
    }
    return file;
}

/// The daemon that has written the list, by the list's name; 0 if that does not tell.
pid_t writerOf(const std::string& list) {
    const std::string before = "/tmp/file_list_";
    if (list.compare(0, before.size(), before) != 0) {
        return 0;
    }
    return static_cast<pid_t>(std::strtol(list.c_str() + before.size(), nullptr, 10));
}

std::string count(std::size_t number, const std::string& noun, const std::string& plural) {
    return std::to_string(number) + " " + (number == 1 ? noun : plural);
}

std::string count(std::size_t number, const std::string& noun) {
    return count(number, noun, noun + "s");
}

std::string intendedLines(const std::vector<std::string>& names) {
    std::string lines;
    for (const std::string& name : names) {
        lines += intendedLine(name);
    }
    return lines;
}

} // namespace

CopyRun::CopyRun(Places places, Arguments arguments, std::vector<std::string> environment,
                 const Limits& limits)
    : places_(std::move(places)), arguments_(std::move(arguments)),
      share_(parseShare(arguments_.source).value_or(Share())),
      environment_(childEnvironment(std::move(environment))), limits_(limits), begin_(Clock::now()),
      destination_(arguments_.destination),
      isDurable_(places_.isFlushing && destination_.canBeDurable()),
      comparison_(destination_.keepsFractions() ? Comparison::nanoseconds : Comparison::seconds),
      boot_(isDurable_ ? secondOfBoot() : std::nullopt),
      filter_(share_.directory,
              [this](const std::string& name) { return destination_.sizeOf(name); }),
      figures_(places_.figuresFolder, arguments_.source, arguments_.destination) {
}

int CopyRun::run() {
    int status = badListStatus;
    const FileList list = readFileList(arguments_.fileList);
    if (takeList(list)) {
        beginJournal(list);
        announceLeftNames();
        status = copyAll();
    }
    finishReport();
    endJournal();
    figures_.leftUnconfirmed(static_cast<std::size_t>(
        std::count_if(listed_.begin(), listed_.end(),
                      [this](const std::string& name) { return !filter_.wasConfirmed(name); })));
    if (isStopping()) {
        endBySignal(relay_.endingSignal());
        return 128 + relay_.endingSignal();
    }
    return status;
}

/// False if nothing is to be copied: without the names in hand, nobody could say what became of
/// them.
bool CopyRun::takeList(const FileList& list) {
    if (share_.module.empty()) {
        say("nothing is copied: " + arguments_.source +
            " is no share of an rsync daemon, or not below its module");
        return false;
    }
    if (!list.failure.empty()) {
        say("the list " + arguments_.fileList + " is not used: " + list.failure);
        return false;
    }
    ListedNames listed = listedNames(list.text, arguments_.listEndsNamesWithNul);
    isReminded_ = listed.hasReminder;
    listed_ = std::move(listed.names);
    filter_.setListed(listed_);
    if (!listed.others.empty()) {
        say(count(listed.others.size(), "entry", "entries") +
            " of the list left out, no file below the source: " + listed.others.front() +
            (listed.others.size() > 1 ? " ..." : ""));
    }
    return true;
}

/// Before anything is removed, so that a later listing can say what became of it.
void CopyRun::beginJournal(const FileList& list) {
    if (places_.journalFolder.empty()) {
        return;
    }
    const pid_t parent = ::getppid();
    const pid_t writer = writerOf(arguments_.fileList);
    // Who takes over the orphans of a dead daemon may live for ever. What an orphan passes on
    // belongs to its own process instead: when that has ended, nobody knows who has got it.
    const bool isOrphan = writer > 0 && writer != parent;
    const auto daemon = identityOf(isOrphan ? ::getpid() : parent);
    // Only now: if the reader is still there, its process is the one that was just looked at, and
    // not one that has taken over the orphans of a dead daemon.
    step(Clock::now());
    if (relay_.readerIsGone()) {
        return;
    }
    std::string failure = "the system does not tell who started this program";
    Descriptor folder;
    if (daemon) {
        folder = openJournalFolder(places_.journalFolder, arguments_.source, arguments_.destination,
                                   failure);
    }
    if (folder) {
        journal_ = Journal(std::move(folder), {*daemon, nanosecondsSinceBoot(), list.identity,
                                               arguments_.source, arguments_.destination});
        failure = journal_.failure();
    }
    if (!failure.empty()) {
        say("cannot keep a journal in " + places_.journalFolder + ": " + failure);
        isJournalTold_ = true;
    }
}

/// Announces what earlier runs have received and nobody has announced.
void CopyRun::announceLeftNames() {
    if (!journal_.folder() || !journal_.failure().empty()) {
        return;
    }
    LeftToAnnounce left(journal_.folder(), arguments_.source, arguments_.destination);
    std::string lines;
    for (const std::string& name : left.names()) {
        lines += takenLine(name);
    }
    const bool isSomethingLeft = !lines.empty() || !left.remarks().empty();
    if ((isReminded_ || isSomethingLeft) && intend(lines) && left.forget()) {
        for (const std::string& remark : left.remarks()) {
            say(remark);
        }
        for (const std::string& name : left.names()) {
            filter_.confirmRecovered(name);
        }
    }
    if (isReminded_) {
        for (const std::string& line :
             putAsideOthers(places_.journalFolder, arguments_.source, arguments_.destination)) {
            say(line);
        }
    }
    send();
}

/// Writes down what the reader's pipe has taken: it is handed off as long as the reader lives.
void CopyRun::recordConfirmations() {
    std::string lines;
    while (!unrecorded_.empty() && unrecorded_.front().end <= relay_.report.written()) {
        lines += confirmedLine(unrecorded_.front().name);
        unrecorded_.pop_front();
    }
    journal_.write(lines);
    tellOfJournal();
}

/// Writes down what is going to be announced or removed at the source. False if that failed.
bool CopyRun::intend(const std::string& lines) {
    journal_.intend(lines);
    if (isDurable_ && !lines.empty()) {
        journal_.makeDurable();
    }
    tellOfJournal();
    return journal_.failure().empty();
}

/// Once, if there was a failure.
void CopyRun::tellOfJournal() {
    if (!journal_.failure().empty() && !std::exchange(isJournalTold_, true)) {
        say("cannot go on with the journal: " + journal_.failure());
    }
}

/// Says that all is accounted for, if it is: without that, every name without a confirmation is
/// looked for by the next listing.
void CopyRun::endJournal() {
    if (isAccountedFor_ && !isStopping() && relay_.report.pending() == 0) {
        journal_.write(doneLine());
    }
}

/// One portion of the list after the other, until one of them breaks off.
int CopyRun::copyAll() {
    const std::size_t portions = (listed_.size() + largestPortion - 1) / largestPortion;
    const auto begin = [this, portions](std::size_t portion) {
        return listed_.begin() + static_cast<std::ptrdiff_t>(listed_.size() * portion / portions);
    };
    int last = 0;
    for (std::size_t portion = 0; portion < portions && !isStopping(); ++portion) {
        const int status = copyPortion(Names(begin(portion), begin(portion + 1)));
        last = status != 0 ? status : last;
        if (!isAnswered(status)) {
            break;
        }
    }
    return last;
}

/// Returns the status of the last rsync that failed.
int CopyRun::copyPortion(const Names& names) {
    if (!isDurable_) {
        intend(intendedLines(names));
        const int status = runRsync(names, Pass::copyAndRemove, comparison_);
        conclude(unconfirmedNames(names, status), status);
        return status;
    }
    const OldFiles old = oldFiles(names);
    const int copying = runRsync(names, Pass::copy, old.empty() ? comparison_ : Comparison::none);
    // Whatever rsync has said: what is not at the target as it is at the source, the second one
    // leaves where it is.
    const Names received = namesInPlace(names, old);
    if (copying == notStarted || received.empty() || isStopping()) {
        return copying;
    }
    if (!makeDurable(received)) {
        return fileErrorStatus;
    }
    intend(intendedLines(received));
    const int removing = runRsync(received, Pass::remove, comparison_);
    if (filter_.receiverFailures() > 0) {
        say(count(filter_.receiverFailures(), "file") +
            " written anew while being copied, left for the next cycle");
    }
    conclude(received, removing);
    return isAnswered(removing) && copying != 0 ? copying : removing;
}

/// Returns the exit status of rsync. All that it printed is in the report.
int CopyRun::runRsync(const Names& names, Pass pass, Comparison comparison) {
    filter_.beginPass(pass);
    Child rsync(
        {places_.stockRsync, passArguments(arguments_, share_, pass, comparison), environment_},
        fileWith(listInput(share_, names)), relay_.signals);
    if (!rsync.failure().empty()) {
        say(rsync.failure());
        return notStarted;
    }
    const Sinks sinks{[this](std::string_view bytes) {
                          filter_.takeOutput(bytes);
                          send();
                      },
                      [this](std::string_view bytes) {
                          filter_.takeErrorOutput(bytes);
                          send();
                      }};
    attend(rsync, sinks);
    filter_.finish();
    send();
    return rsync.exitStatus();
}

/// False if that failed. Then nothing of it may be removed at the source.
bool CopyRun::makeDurable(const Names& names) {
    const auto before = Clock::now();
    const std::string failure = destination_.makeDurable(names);
    figures_.flushed(Clock::now() - before, !failure.empty());
    if (!failure.empty()) {
        say("nothing is removed at the source: what was copied did not reach the disk: " + failure);
    }
    return failure.empty();
}

/// The end of every rsync that removes, however it ended. Of `names` it may have removed each.
void CopyRun::conclude(const Names& names, int status) {
    Names unconfirmed;
    for (const std::string& name : names) {
        if (!filter_.wasConfirmed(name)) {
            const auto presence = destination_.presence(name);
            isAccountedFor_ = isAccountedFor_ && presence != Destination::Presence::unknown;
            if (presence == Destination::Presence::there) {
                unconfirmed.push_back(name);
            }
        }
    }
    if (status == notStarted || unconfirmed.empty()) {
        return;
    }
    // After a break its server may still be busy with what it was told last.
    if (!isAnswered(status) || isStopping() || !ask(unconfirmed)) {
        isAccountedFor_ = false; // the next listing will show
        for (const std::string& name : unconfirmed) {
            filter_.giveUp(name);
        }
    }
    send();
}

/// What is at the target under these names and may be what a cut of the power has left.
CopyRun::OldFiles CopyRun::oldFiles(const Names& names) const {
    OldFiles old;
    for (const std::string& name : names) {
        if (const auto inode = destination_.oldInode(name, boot_)) {
            old.emplace(name, *inode);
        }
    }
    return old;
}

/// Those of the names that may be removed at the source: not those whose `old` file still stands
/// there, which the second rsync would take for up to date.
CopyRun::Names CopyRun::namesInPlace(const Names& names, const OldFiles& old) {
    Names inPlace;
    std::size_t unknown = 0;
    std::size_t notReplaced = 0;
    int error = 0;
    for (const std::string& name : names) {
        const auto presence = destination_.presence(name);
        if (presence == Destination::Presence::unknown) {
            error = errno;
            ++unknown;
        } else if (presence == Destination::Presence::there && !filter_.wasDiscarded(name)) {
            const auto before = old.find(name);
            if (before != old.end() &&
                (before->second == 0 || destination_.oldInode(name, {}) == before->second)) {
                ++notReplaced;
            } else {
                inPlace.push_back(name);
            }
        }
    }
    if (unknown > 0) {
        say("cannot look at " + count(unknown, "file") + " at the target: " + std::strerror(error) +
            "; left for the next cycle");
    }
    if (notReplaced > 0) {
        say(count(notReplaced, "file") +
            " at the target from before the machine's start not replaced; left for the next cycle");
    }
    return inPlace;
}

void CopyRun::finishReport() {
    const auto end = begin_ + limits_.shortestIdleRun;
    const bool idle = !filter_.hasConfirmed();
    Clock::time_point patience = never;
    for (;;) {
        const auto now = Clock::now();
        if (relay_.readerIsGone()) {
            return;
        }
        if (isStopping() && patience == never) {
            patience = now + limits_.farewell;
        }
        const bool waiting = idle && !isStopping() && now < end;
        if ((relay_.report.pending() == 0 && !waiting) || now >= patience) {
            return;
        }
        step(waiting ? std::min(end, patience) : patience);
    }
}

/// The names with a file in place that rsync may have removed: they were sent, or rsync saw them at
/// the source and neither sent nor complained about them, so that the file was up to date.
CopyRun::Names CopyRun::unconfirmedNames(const Names& names, int status) const {
    const bool sawSource = isAnswered(status) || filter_.sawFileList();
    Names unconfirmed;
    for (const std::string& name : names) {
        const bool upToDate = sawSource && !filter_.wasComplainedAbout(name);
        if (!filter_.wasDiscarded(name) && (filter_.wasSent(name) || upToDate)) {
            unconfirmed.push_back(name);
        }
    }
    return unconfirmed;
}

/// Confirms those of the names whose source is gone. False if there was no answer.
bool CopyRun::ask(const Names& names) {
    std::string failure;
    const auto gone = namesGoneOf(names, failure);
    if (!gone) {
        say("cannot ask the source what is still there: " + failure + "; " +
            count(names.size(), "file") + " left unconfirmed");
        return false;
    }
    for (const std::string& name : *gone) {
        // If it can't be looked at now, the next listing tells.
        isAccountedFor_ = filter_.confirm(name) && isAccountedFor_;
    }
    return true;
}

/// Puts the question and takes in the answer. Nothing without one, `failure` says why.
std::optional<CopyRun::Names> CopyRun::namesGoneOf(const Names& names, std::string& failure) {
    Child rsync({places_.stockRsync, questionArguments(arguments_.access, share_), environment_},
                fileWith(listInput(share_, names)), relay_.signals);
    if (!rsync.failure().empty()) {
        failure = rsync.failure();
        return std::nullopt;
    }
    const auto keep = [](std::string& text) {
        return [&text](std::string_view bytes) {
            text += bytes.substr(0, longestAnswer - std::min(longestAnswer, text.size()));
        };
    };
    std::string output;
    std::string errorOutput;
    const Sinks sinks{keep(output), keep(errorOutput)};
    auto end = Clock::now() + limits_.question;
    bool hurried = false;
    while (rsync.output || rsync.errorOutput || !rsync.hasEnded()) {
        const auto now = Clock::now();
        if (isStopping() && !hurried) {
            hurried = true;
            end = std::min(end, now + limits_.hurriedQuestion);
        }
        if (now >= end || relay_.readerIsGone()) {
            failure = "no answer in time";
            return std::nullopt;
        }
        step(end, &rsync, sinks);
    }
    if (!isAnswered(rsync.exitStatus())) {
        failure = "rsync ended with status " + std::to_string(rsync.exitStatus());
        return std::nullopt;
    }
    if (relay_.hasMissedSomething()) {
        failure = "not all that rsync said could be read";
        return std::nullopt;
    }
    return namesGone(share_, names, output, errorOutput);
}

void CopyRun::attend(Child& child, const Sinks& sinks) {
    Clock::time_point end = never;
    bool told = false;
    bool killed = false;
    Standstill standstill(child.group());
    for (;;) {
        const bool ended = child.hasEnded();
        if ((ended && !child.output && !child.errorOutput)) {
            return;
        }
        const auto now = Clock::now();
        if (isStopping() && !told) {
            told = true;
            child.signal(relay_.readerIsGone() ? SIGTERM : relay_.endingSignal());
            end = now + limits_.farewell;
        }
        if (!ended && !told && hasComeToAStandstill(standstill)) {
            told = true;
            child.signal(SIGTERM);
            end = now + limits_.farewell;
        }
        if (ended && end == never) {
            end = now + limits_.leftovers;
        }
        if (now >= end) {
            if (killed) {
                return;
            }
            killed = true;
            child.kill();
            end = now + limits_.leftovers;
        }
        step(end, &child, sinks);
    }
}

/// Says so in the report, too.
bool CopyRun::hasComeToAStandstill(Standstill& standstill) {
    // So many files that could not be created or put in place, and no fewer, stop stock rsync.
    constexpr std::size_t failuresToWaitFor = 10;
    const bool failing = filter_.receiverFailures() >= failuresToWaitFor;
    const auto limit = failing ? limits_.standstillAfterFailures : limits_.standstill;
    if (!standstill.hasLasted(limit, relay_.lastLife())) {
        return false;
    }
    say("rsync has come to a standstill and is ended after " +
        count(static_cast<std::size_t>(limit.count() / 1000), "second"));
    return true;
}

void CopyRun::step(Clock::time_point until, Child* child, const Sinks& sinks) {
    relay_.step(until, child, sinks);
    recordConfirmations();
}

void CopyRun::say(const std::string& text) {
    filter_.remark(ownName + text);
    send();
}

/// All that goes to the reader passes here.
void CopyRun::send() {
    relay_.report.add(filter_.takeReport());
    for (ReportFilter::Confirmation& confirmation : filter_.takeConfirmations()) {
        if (confirmation.isRecovered) {
            figures_.recovered(confirmation.name, confirmation.bytes);
        } else {
            figures_.confirmed(confirmation.name, confirmation.bytes);
        }
        unrecorded_.push_back(std::move(confirmation));
    }
}

} // namespace confirming
