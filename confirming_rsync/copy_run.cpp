// One copy: stock rsync is run, its report goes out, and what it left open is asked of the share.
#include "confirming_rsync/copy_run.h"

#include "confirming_rsync/journal_folder.h"
#include "confirming_rsync/open_names.h"
#include "confirming_rsync/printed_name.h"
#include "confirming_rsync/reminder.h"
#include "confirming_rsync/text_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace confirming {

namespace {

constexpr const char* ownName = "rsync_orbelin: ";

/// No rsync is given more names. It compares each name that the share sends with those that it has
/// asked for, one after the other: with 10,000 of them, that takes longer than to copy the files if
/// they are small.
constexpr std::size_t largestPortion = 1500;

/// Far beyond any honest answer.
constexpr std::size_t longestAnswer = std::size_t{64} * 1024 * 1024;

/// The text as a file to be read from its beginning; empty if that can't be had.
Descriptor fileWith(const std::string& text) {
    Descriptor file(::memfd_create("names", MFD_CLOEXEC));
    if (file && (!writeText(file, text) || ::lseek(file.get(), 0, SEEK_SET) != 0)) {
        file.close();
    }
    return file;
}

std::string count(std::size_t number, const std::string& noun, const std::string& plural) {
    return std::to_string(number) + " " + (number == 1 ? noun : plural);
}

std::string count(std::size_t number, const std::string& noun) {
    return count(number, noun, noun + "s");
}

} // namespace

CopyRun::CopyRun(Places places, Arguments arguments, std::vector<std::string> environment,
                 const Limits& limits)
    : places_(std::move(places)), arguments_(std::move(arguments)),
      share_(parseShare(arguments_.source)), environment_(childEnvironment(std::move(environment))),
      limits_(limits), begin_(Clock::now()), destination_(arguments_.destination),
      writer_(STDOUT_FILENO), relay_(signals_, writer_),
      filter_([this](const std::string& name) { return destination_.sentLineMayFollow(name); },
              [this](const std::string& name) { return isListed(name); }) {
}

int CopyRun::run() {
    bool hasNames = true;
    if (!arguments_.fileList.empty()) {
        const FileList list = readFileList(arguments_.fileList);
        hasNames = takeList(list);
        beginJournal(list);
    }
    accountForEarlierRuns();
    const Outcome outcome = hasNames ? copyAll() : Outcome{0, conclude({}, 0)};
    finishReport();
    endJournal(outcome.open);
    if (relay_.stopSignal() != 0) {
        endBySignal(relay_.stopSignal());
        return 128 + relay_.stopSignal();
    }
    if (relay_.readerIsGone()) {
        endBySignal(SIGPIPE);
        return 128 + SIGPIPE;
    }
    return outcome.status;
}

/// False if the list names nothing to copy, or shall not be believed.
bool CopyRun::takeList(const FileList& list) {
    if (isReminder(list.text)) {
        return false;
    }
    if (list.isForeign) {
        // The daemon names its lists foreseeably, below /tmp.
        filter_.remark(ownName +
                       ("the list " + arguments_.fileList +
                        " is not used: it is a link, or others than its user may write to it"));
        send();
        return false;
    }
    ListedNames listed = listedNames(list.text, arguments_.fileListEndsNamesWithNul);
    listed_ = std::move(listed.names);
    listedSet_.insert(listed_.begin(), listed_.end());
    hasOthers_ = !listed.others.empty();
    if (hasOthers_) {
        filter_.remark(ownName + count(listed.others.size(), "entry", "entries") +
                       " of the list left out, no file below the source: " + listed.others.front() +
                       (listed.others.size() > 1 ? " ..." : ""));
        send();
    }
    return !listed_.empty() || !hasOthers_;
}

/// Writes down what is going to be copied, before anything is.
void CopyRun::beginJournal(const FileList& list) {
    if (places_.journalFolder.empty() || list.text.empty() || !share_) {
        return;
    }
    daemon_ = identityOf(::getppid());
    // Only now: if the reader is still there, its process is the one that was just looked at, and
    // not one that has taken over the orphans of a dead daemon.
    step(Clock::now());
    if (relay_.readerIsGone()) {
        return;
    }
    std::string failure = "the system does not tell who started this program";
    Descriptor folder;
    if (daemon_) {
        folder = openJournalFolder(places_.journalFolder, arguments_.source, arguments_.destination,
                                   failure);
    }
    if (folder) {
        begun_ = nanosecondsSinceBoot();
        const JournalHead head{*daemon_, begun_, list.identity, arguments_.source,
                               arguments_.destination};
        journal_ = Journal(std::move(folder), head, listed_);
        failure = journal_.failure();
    }
    if (!failure.empty()) {
        filter_.remark(ownName + ("cannot keep a journal in " + places_.journalFolder + ": ") +
                       failure);
        send();
    }
}

/// Writes down what the reader's pipe has taken: it is handed off as long as the reader lives.
void CopyRun::recordConfirmations() {
    std::string lines;
    while (!unrecorded_.empty() && unrecorded_.front().end <= writer_.written()) {
        lines += confirmedLine(unrecorded_.front().name);
        unrecorded_.pop_front();
    }
    writeJournal(lines);
}

/// False if it can't be written; says so once.
bool CopyRun::writeJournal(std::string_view lines) {
    if (!journal_.failure().empty()) {
        return false;
    }
    journal_.write(lines);
    if (journal_.failure().empty()) {
        return true;
    }
    filter_.remark(ownName + ("cannot go on with the journal: " + journal_.failure()));
    send();
    return false;
}

/// Announces what earlier runs have received and nobody has announced.
void CopyRun::accountForEarlierRuns() {
    if (!journal_.folder() || !journal_.failure().empty()) {
        return;
    }
    EarlierRuns earlier(journal_.folder(), {&*daemon_, &arguments_.source, &arguments_.destination},
                        journal_.name());
    if (!earlier.leaveNamesOpen() || decideAboutEarlierRuns(earlier)) {
        earlier.remove();
        forgetReminders(journal_.folder());
    }
    for (const std::string& remark : earlier.remarks()) {
        filter_.remark(ownName + remark);
    }
    send();
}

/// False if nothing could be decided: it is for a later run to do.
bool CopyRun::decideAboutEarlierRuns(EarlierRuns& earlier) {
    const std::vector<ReadJournal> journals = earlier.read();
    std::vector<JournalEntry> open = openNames(journals, earlier.readGoingOn(*daemon_), *daemon_);
    // What is not in place was not received, or is no longer there to be handed off.
    open.erase(std::remove_if(
                   open.begin(), open.end(),
                   [this](const JournalEntry& entry) { return !destination_.hasFile(entry.name); }),
               open.end());
    if (open.empty()) {
        return true;
    }
    Names names;
    names.reserve(open.size());
    for (const JournalEntry& entry : open) {
        names.push_back(entry.name);
    }
    pause(limits_.settling);
    const Answer answer = askWhichAreGone(names, 1);
    if (isStopping()) {
        return false;
    }
    if (!answer.failure.empty()) {
        filter_.remark(ownName + ("cannot ask the source about " + count(names.size(), "file")) +
                       " of an earlier run: " + answer.failure + "; a later run will");
        return false;
    }
    const Decision decision =
        decide(open, answer.gone, earlier.readGoingOn(*daemon_), listed_, *daemon_);
    // In this run's journal before they leave the others.
    std::string lines;
    for (const auto* entries : {&decision.announced, &decision.inherited}) {
        for (const JournalEntry& entry : *entries) {
            lines += inheritedLine(entry);
        }
    }
    if (!writeJournal(lines)) {
        return false;
    }
    inheritsOpenNames_ = !decision.inherited.empty();
    for (const JournalEntry& entry : decision.announced) {
        filter_.confirmRecovered(entry.name);
    }
    return true;
}

/// The last lines of the journal: what a later run has to take care of. Without `open`, that is
/// every name without a confirmation.
void CopyRun::endJournal(const std::optional<Names>& open) {
    if (!open || writer_.pending() > 0 || relay_.readerIsGone()) {
        return;
    }
    std::string lines;
    for (const std::string& name : *open) {
        lines += inheritedLine({name, begun_, 0});
    }
    const bool allDone = !inheritsOpenNames_ && open->empty();
    journal_.write(lines.append(allDone ? allDoneLine() : ownDoneLine()));
    if (!journal_.failure().empty() && allDone) {
        // Half a journal would have names announced twice.
        journal_.remove();
    }
}

/// One rsync after the other, each for a portion of the list, until one of them breaks off.
CopyRun::Outcome CopyRun::copyAll() {
    // Without names there is one, too: rsync itself is to say what it makes of that.
    const std::size_t portions =
        std::max<std::size_t>((listed_.size() + largestPortion - 1) / largestPortion, 1);
    const auto begin = [this, portions](std::size_t portion) {
        return listed_.begin() + static_cast<std::ptrdiff_t>(listed_.size() * portion / portions);
    };
    Outcome all{0, Names()};
    for (std::size_t portion = 0; portion < portions; ++portion) {
        const Names names(begin(portion), begin(portion + 1));
        const int status = copy(names, hasOthers_ || portions > 1);
        const auto open = conclude(names, status);
        if (status != 0) {
            all.status = status;
        }
        if (!open) {
            all.open.reset();
            break;
        }
        all.open->insert(all.open->end(), open->begin(), open->end());
        if (!isAnswered(status)) {
            break;
        }
    }
    return all;
}

/// Returns the exit status of rsync, which gets the names on its standard input or takes them from
/// the list itself.
int CopyRun::copy(const Names& names, bool onInput) {
    if (isStopping()) {
        return 128 + SIGTERM;
    }
    filter_.beginRun();
    const Descriptor input = onInput ? fileWith(questionInput(names))
                                     : Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    Child rsync({places_.stockRsync, onInput ? withListOnInput(arguments_) : arguments_.rsync,
                 environment_},
                input, signals_);
    if (!rsync.hasStarted()) {
        filter_.remark(ownName + ("cannot start " + places_.stockRsync + ": ") +
                       std::strerror(rsync.startError()));
        send();
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
    return rsync.exitStatus();
}

/// The end of every rsync, however it ended. Returns those of its names that may yet turn out to be
/// received and removed at the source; nothing if that may be any name of the list.
std::optional<CopyRun::Names> CopyRun::conclude(const Names& names, int status) {
    filter_.finish([this](const std::string& name) { return destination_.hasFile(name); });
    send();
    if (relay_.readerIsGone()) {
        return std::nullopt;
    }
    const bool complete = isAnswered(status) && !isStopping();
    const Names unconfirmed = unconfirmedNames(names, status);
    bool answered = true;
    if (!unconfirmed.empty()) {
        if (!complete) {
            pause(limits_.settling);
        }
        answered = ask(unconfirmed);
        send();
    }
    if (isStopping()) {
        return std::nullopt;
    }
    const bool decided = (complete && answered) || status == notStarted;
    return decided ? Names() : receivedAndUnconfirmed(names);
}

/// A file that is not in place by now was not received by this run. Another one may still be
/// removed by a server that has not noticed yet that its connection broke.
CopyRun::Names CopyRun::receivedAndUnconfirmed(const Names& names) const {
    Names received;
    for (const std::string& name : names) {
        if (!filter_.wasConfirmed(name) && staysBelow(name) && destination_.hasFile(name)) {
            received.push_back(name);
        }
    }
    return received;
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
        if ((writer_.pending() == 0 && !waiting) || now >= patience) {
            return;
        }
        step(waiting ? std::min(end, patience) : patience);
    }
}

/// The names with a file in place whose removal was not reported: they were sent, or rsync saw them
/// at the source and neither sent nor complained about them, so that the file was up to date. Only
/// names of the list, since only these are known to be relative to the source.
CopyRun::Names CopyRun::unconfirmedNames(const Names& names, int status) const {
    const bool sawSource = isAnswered(status) || filter_.sawFileList();
    Names unconfirmed;
    for (const std::string& name : names) {
        if (filter_.wasConfirmed(name) || filter_.wasDiscarded(name) || !staysBelow(name)) {
            continue;
        }
        const bool complained = share_ && filter_.wasComplainedAbout(share_->pathOf(name));
        const bool upToDate = sawSource && !complained;
        if ((filter_.wasSent(name) || upToDate) && destination_.hasFile(name)) {
            unconfirmed.push_back(name);
        }
    }
    return unconfirmed;
}

/// Confirms those of the names whose source is gone. False if there was no answer.
bool CopyRun::ask(const Names& names) {
    // Nobody asks again soon, so that a break just now is given a chance to pass.
    const Answer answer = askWhichAreGone(names, 3);
    if (!answer.failure.empty()) {
        filter_.remark(ownName +
                       ("cannot ask the source what is still there: " + answer.failure + "; ") +
                       count(names.size(), "file") + " left unconfirmed");
        return false;
    }
    for (const std::string& name : names) {
        // Received files stay where they are until they are announced. One that is not there now
        // was not received, whoever deleted its source.
        if (answer.gone.count(name) != 0 && destination_.hasFile(name)) {
            filter_.confirm(name);
        }
    }
    return true;
}

CopyRun::Answer CopyRun::askWhichAreGone(const Names& names, int attempts) {
    if (!share_) {
        return {{}, "it is not a share of an rsync daemon"};
    }
    const auto end = Clock::now() + limits_.question;
    Answer answer = readAnswer(names, end);
    for (int again = 1;
         again < attempts && !answer.failure.empty() && !isStopping() && Clock::now() < end;
         ++again) {
        pause(limits_.betweenQuestions);
        answer = readAnswer(names, end);
    }
    return answer;
}

/// Puts the question once and takes in the answer.
CopyRun::Answer CopyRun::readAnswer(const Names& names, Clock::time_point end) {
    Child rsync(
        {places_.stockRsync, questionArguments(arguments_.access, arguments_.source), environment_},
        fileWith(questionInput(names)), signals_);
    if (!rsync.hasStarted()) {
        return {{},
                "cannot start " + places_.stockRsync + ": " + std::strerror(rsync.startError())};
    }
    const auto keep = [](std::string& text) {
        return [&text](std::string_view bytes) {
            text += bytes.substr(0, longestAnswer - std::min(longestAnswer, text.size()));
        };
    };
    std::string output;
    std::string errorOutput;
    const Sinks sinks{keep(output), keep(errorOutput)};
    bool hurried = false;
    while (rsync.output || rsync.errorOutput || !rsync.hasEnded()) {
        const auto now = Clock::now();
        if (isStopping() && !hurried) {
            hurried = true;
            end = std::min(end, now + limits_.hurriedQuestion);
        }
        if (now >= end || relay_.readerIsGone()) {
            return {{}, "no answer in time"};
        }
        step(rsync, sinks, end);
    }
    if (!isAnswered(rsync.exitStatus())) {
        return {{}, "rsync ended with status " + std::to_string(rsync.exitStatus())};
    }
    const Names gone = namesGone(*share_, names, output, errorOutput);
    return {{gone.begin(), gone.end()}, {}};
}

/// Lets time pass, the report flow and signals come.
void CopyRun::pause(std::chrono::milliseconds duration) {
    const auto end = Clock::now() + duration;
    while (Clock::now() < end && !relay_.readerIsGone()) {
        step(end);
    }
}

void CopyRun::attend(Child& child, const Sinks& sinks) {
    Clock::time_point end = never;
    bool told = false;
    bool killed = false;
    Standstill standstill(child.group());
    const Sinks watched{[&](std::string_view bytes) {
                            standstill.noteLife();
                            sinks.output(bytes);
                        },
                        [&](std::string_view bytes) {
                            standstill.noteLife();
                            sinks.errorOutput(bytes);
                        }};
    for (;;) {
        const bool ended = child.hasEnded();
        if ((ended && !child.output && !child.errorOutput)) {
            return;
        }
        const auto now = Clock::now();
        if (isStopping() && !told) {
            told = true;
            child.signal(relay_.readerIsGone() ? SIGTERM : relay_.stopSignal());
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
        step(child, watched, end);
    }
}

/// Says so in the report, too.
bool CopyRun::hasComeToAStandstill(Standstill& standstill) {
    if (!relay_.isReading()) {
        // It waits for us, as we do for our reader.
        standstill.noteLife();
    }
    // So many files that could not be created, and no fewer, can bring stock rsync there.
    constexpr std::size_t failuresToWaitFor = 10;
    const bool failing = filter_.receiverFailures() >= failuresToWaitFor;
    const auto limit = failing ? limits_.standstillAfterFailures : limits_.standstill;
    if (!standstill.hasLasted(limit)) {
        return false;
    }
    filter_.remark(ownName + ("rsync has come to a standstill and is ended after " +
                              count(static_cast<std::size_t>(limit.count() / 1000), "second")));
    send();
    return true;
}

/// True for what is in the list, or below something that is.
bool CopyRun::isListed(std::string_view name) const {
    if (listedSet_.empty() || listedSet_.count(name) != 0 || listedSet_.count(".") != 0) {
        return true;
    }
    for (std::size_t end = name.find('/'); end != std::string_view::npos;
         end = name.find('/', end + 1)) {
        if (listedSet_.count(name.substr(0, end)) != 0) {
            return true;
        }
    }
    return false;
}

void CopyRun::step(Clock::time_point until) {
    relay_.step(until);
    recordConfirmations();
}

void CopyRun::step(Child& child, const Sinks& sinks, Clock::time_point until) {
    relay_.step(child, sinks, until);
    recordConfirmations();
}

/// All that goes to the reader passes here.
void CopyRun::send() {
    writer_.add(filter_.takeReport());
    for (ReportFilter::Confirmation& confirmation : filter_.takeConfirmations()) {
        unrecorded_.push_back(std::move(confirmation));
    }
}

} // namespace confirming
