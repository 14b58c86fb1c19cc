// One copy: stock rsync is run, its report goes out, and what it left open is asked of the share.
#include "confirming_rsync/copy_run.h"

#include "confirming_rsync/file_list.h"
#include "confirming_rsync/share_question.h"

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
constexpr int notStarted = 127;

/// Far beyond any honest answer.
constexpr std::size_t longestAnswer = std::size_t{64} * 1024 * 1024;

/// The text as a file to be read from its beginning; empty if that can't be had.
Descriptor fileWith(const std::string& text) {
    Descriptor file(::memfd_create("names", MFD_CLOEXEC));
    std::size_t written = 0;
    while (file && written < text.size()) {
        const ssize_t count = ::write(file.get(), text.data() + written, text.size() - written);
        if (count > 0) {
            written += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            file.close();
        }
    }
    if (file && ::lseek(file.get(), 0, SEEK_SET) != 0) {
        file.close();
    }
    return file;
}

std::string count(std::size_t number, const char* noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

} // namespace

CopyRun::CopyRun(std::string stockRsync, Arguments arguments, std::vector<std::string> environment,
                 const Limits& limits)
    : stockRsync_(std::move(stockRsync)), arguments_(std::move(arguments)),
      environment_(childEnvironment(std::move(environment))), limits_(limits), begin_(Clock::now()),
      destination_(arguments_.destination), writer_(STDOUT_FILENO), relay_(signals_, writer_),
      filter_([this](const std::string& name) { return destination_.sentLineMayFollow(name); }) {
}

int CopyRun::run() {
    if (!arguments_.fileList.empty()) {
        listed_ =
            listedNames(readFileList(arguments_.fileList), arguments_.fileListEndsNamesWithNul);
    }
    const int status = copy();
    conclude(status);
    finishReport();
    if (relay_.stopSignal() != 0) {
        endBySignal(relay_.stopSignal());
        return 128 + relay_.stopSignal();
    }
    if (relay_.readerIsGone()) {
        endBySignal(SIGPIPE);
        return 128 + SIGPIPE;
    }
    return status;
}

int CopyRun::copy() {
    const Descriptor nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    Child rsync({stockRsync_, arguments_.rsync, environment_}, nothing, signals_);
    if (!rsync.hasStarted()) {
        filter_.remark(ownName + ("cannot start " + stockRsync_ + ": ") +
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

/// The end of every run, however rsync ended.
void CopyRun::conclude(int status) {
    filter_.finish();
    send();
    if (relay_.readerIsGone()) {
        return;
    }
    std::vector<std::string> names = openNames(status);
    if (names.empty()) {
        return;
    }
    if (!isAnswered(status) || isStopping()) {
        pause(limits_.settling);
    }
    ask(names);
    send();
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
        relay_.step(waiting ? std::min(end, patience) : patience);
    }
}

/// The names with a file in place whose removal was not reported: they were sent, or rsync saw them
/// at the source and neither sent nor complained about them, so that the file was up to date. Only
/// names of the list, since only these are known to be relative to the source.
std::vector<std::string> CopyRun::openNames(int status) const {
    const bool sawSource = isAnswered(status) || filter_.sawFileList();
    const auto share = parseShare(arguments_.source);
    std::vector<std::string> names;
    for (const std::string& name : listed_) {
        if (filter_.wasConfirmed(name) || filter_.wasDiscarded(name)) {
            continue;
        }
        const bool complained = share && filter_.wasComplainedAbout(share->pathOf(name));
        const bool upToDate = sawSource && !complained;
        if ((filter_.wasSent(name) || upToDate) && destination_.hasFile(name)) {
            names.push_back(name);
        }
    }
    return names;
}

void CopyRun::ask(const std::vector<std::string>& names) {
    const auto share = parseShare(arguments_.source);
    std::string failure = "it is not a share of an rsync daemon";
    Answer answer;
    if (share) {
        const auto end = Clock::now() + limits_.question;
        failure = readAnswer(names, end, answer);
        // Nobody asks again later, so that a break just now is given a chance to pass.
        for (int again = 0; again < 2 && !failure.empty() && !isStopping() && Clock::now() < end;
             ++again) {
            pause(limits_.betweenQuestions);
            failure = readAnswer(names, end, answer);
        }
    }
    if (!failure.empty()) {
        filter_.remark(ownName + ("cannot ask the source what is still there: " + failure + "; ") +
                       count(names.size(), "file") + " left unconfirmed");
        return;
    }
    for (const std::string& name : namesGone(*share, names, answer.output, answer.errorOutput)) {
        // Received files stay where they are until they are announced. One that is not there now
        // was not received, whoever deleted its source.
        if (destination_.hasFile(name)) {
            filter_.confirm(name);
        }
    }
}

/// Puts the question once and takes in the answer. Returns why there is none, or nothing.
std::string CopyRun::readAnswer(const std::vector<std::string>& names, Clock::time_point end,
                                Answer& answer) {
    answer = Answer();
    Child rsync(
        {stockRsync_, questionArguments(arguments_.access, arguments_.source), environment_},
        fileWith(questionInput(names)), signals_);
    if (!rsync.hasStarted()) {
        return "cannot start " + stockRsync_ + ": " + std::strerror(rsync.startError());
    }
    const auto keep = [](std::string& text) {
        return [&text](std::string_view bytes) {
            text += bytes.substr(0, longestAnswer - std::min(longestAnswer, text.size()));
        };
    };
    const Sinks sinks{keep(answer.output), keep(answer.errorOutput)};
    bool hurried = false;
    while (rsync.output || rsync.errorOutput || !rsync.hasEnded()) {
        const auto now = Clock::now();
        if (isStopping() && !hurried) {
            hurried = true;
            end = std::min(end, now + limits_.hurriedQuestion);
        }
        if (now >= end || relay_.readerIsGone()) {
            return "no answer in time";
        }
        relay_.step(rsync, sinks, end);
    }
    if (!isAnswered(rsync.exitStatus())) {
        return "rsync ended with status " + std::to_string(rsync.exitStatus());
    }
    return {};
}

/// Lets time pass, the report flow and signals come.
void CopyRun::pause(std::chrono::milliseconds duration) {
    const auto end = Clock::now() + duration;
    while (Clock::now() < end && !relay_.readerIsGone()) {
        relay_.step(end);
    }
}

void CopyRun::attend(Child& child, const Sinks& sinks) {
    Clock::time_point end = never;
    bool told = false;
    bool killed = false;
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
        relay_.step(child, sinks, end);
    }
}

/// All that goes to the reader passes here.
void CopyRun::send() {
    writer_.add(filter_.takeReport());
}

} // namespace confirming
