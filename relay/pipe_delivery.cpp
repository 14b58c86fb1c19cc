// Delivering to a program that reads a named pipe, in the daemon's own lines.
#include "relay/pipe_delivery.h"

#include "relay/messages.h"

#include <cerrno>
#include <stdexcept>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace relay {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t pageSize = 500;
constexpr auto acknowledgementPause = 100ms; // each one is a flush of the disk
constexpr auto lookPause = 1s;
constexpr auto readerPause = 20ms;
// How far behind the acknowledged position the pipe's contents are looked for after a start.
constexpr std::size_t searched = 8UL * 1024 * 1024;

} // namespace

PipeDelivery::PipeDelivery(RecordLog& fromLog, std::shared_ptr<Subscription> toSubscription)
    : log(fromLog), subscription(std::move(toSubscription)) {
}

void PipeDelivery::run(const std::atomic<bool>& isEnding) {
    while (!isEnding) {
        try {
            turn();
            subscription->clearFailure();
        } catch (const std::runtime_error& error) {
            subscription->countFailure(error.what());
            std::this_thread::sleep_for(1s);
        }
    }
    try {
        lastAcknowledgement = {};
        acknowledgeWhatIsTaken();
    } catch (const std::runtime_error&) {
        // What was taken since the last time comes again.
    }
}

void PipeDelivery::turn() {
    const auto time = std::chrono::steady_clock::now();
    if (pipe && time - lastLook >= lookPause) {
        lastLook = time;
        if (!isInItsPlace()) {
            pipe.reset(); // another one stands there, and its reader has nothing of what was sent
        }
    }
    if (!pipe) {
        open();
    }
    acknowledgeWhatIsTaken();
    if (generation != subscription->generation()) {
        // What is in the pipe stays there; it is not acknowledged at the new place.
        generation = subscription->generation();
        cursor = subscription->acknowledged();
        sent.clear();
    }
    send();
}

void PipeDelivery::open() {
    const SubscriberSettings& settings = subscription->settings;
    pipe = openPipe(settings.pipePath, settings.pipeMode);
    if (!settings.pipeOwner.empty()) {
        const passwd* const owner = ::getpwnam(settings.pipeOwner.c_str());
        if (owner == nullptr || ::fchown(pipe.get(), owner->pw_uid, owner->pw_gid) != 0) {
            pipe.reset();
            throw std::runtime_error("cannot give " + settings.pipePath + " to " +
                                     settings.pipeOwner);
        }
    }
    generation = subscription->generation();
    cursor = subscription->acknowledged();
    sent.clear();
    pending.clear();
    std::string waiting;
    if (!PipeCopy(pipe.get()).take(pipe.get(), SIZE_MAX / 2, waiting)) {
        throw std::runtime_error("cannot look into " + settings.pipePath + ": " +
                                 systemError(errno));
    }
    written = waiting.size();
    if (!waiting.empty()) {
        findWhatWaits(waiting);
    }
}

void PipeDelivery::findWhatWaits(const std::string& waiting) {
    // An earlier relay wrote it. What stands before it in the log was taken by the reader, and what
    // stands behind it is to be written; it may begin and end in the middle of a line.
    std::string lines;
    std::deque<Sent> candidates;
    std::int64_t after = cursor;
    while (lines.size() < searched) {
        const Page page = subscription->next(after, pageSize);
        for (const Record& each : page.records) {
            lines += lineOf(each);
            candidates.push_back({each.sequence, lines.size()});
        }
        const std::size_t begin = lines.find(waiting);
        if (begin != std::string::npos) {
            const std::size_t end = begin + waiting.size();
            for (const Sent& each : candidates) {
                sent.push_back(each);
                cursor = each.sequence;
                if (each.end >= end) {
                    pending = lines.substr(end, each.end - end);
                    break;
                }
            }
            written = end;
            return;
        }
        if (page.seenTo == after) {
            break;
        }
        after = page.seenTo;
    }
    inform("subscriber " + subscription->settings.name + ": what waits in its pipe is not known, " +
           "and stays before its next record");
}

bool PipeDelivery::isInItsPlace() const {
    struct stat place {};
    struct stat own {};
    return ::stat(subscription->settings.pipePath.c_str(), &place) == 0 &&
           ::fstat(pipe.get(), &own) == 0 && place.st_dev == own.st_dev &&
           place.st_ino == own.st_ino;
}

void PipeDelivery::acknowledgeWhatIsTaken() {
    const auto time = std::chrono::steady_clock::now();
    if (!pipe || sent.empty()) {
        return;
    }
    const std::size_t waiting = bytesIn(pipe);
    const std::size_t taken = written > waiting ? written - waiting : 0;
    // All taken at once, part of them every now and then.
    if (sent.front().end > taken ||
        (sent.back().end > taken && time - lastAcknowledgement < acknowledgementPause)) {
        return;
    }
    std::int64_t last = 0;
    std::int64_t count = 0;
    for (const Sent& each : sent) {
        if (each.end > taken) {
            break;
        }
        last = each.sequence;
        ++count;
    }
    subscription->acknowledge(last, generation);
    subscription->countDelivered(count);
    sent.erase(sent.begin(), sent.begin() + count);
    lastAcknowledgement = time;
}

void PipeDelivery::send() {
    bool isFull = !writePending();
    const Page page = isFull ? Page() : subscription->next(cursor, pageSize);
    for (const Record& each : page.records) {
        pending = lineOf(each);
        cursor = each.sequence;
        sent.push_back({each.sequence, written + pending.size()});
        isFull = !writePending();
        if (isFull) {
            break;
        }
    }
    if (isFull) {
        pollfd polled{pipe.get(), POLLOUT, 0};
        ::poll(&polled, 1,
               static_cast<int>(std::chrono::milliseconds(acknowledgementPause).count()));
    } else if (page.records.empty()) {
        const bool isMore = page.seenTo > cursor;
        cursor = page.seenTo;
        if (!isMore) {
            log.waitBehind(cursor, sent.empty() ? std::chrono::milliseconds(lookPause)
                                                : std::chrono::milliseconds(readerPause));
        }
    }
}

bool PipeDelivery::writePending() {
    while (!pending.empty()) {
        // Up to PIPE_BUF it is written whole or not at all, like the daemon's own.
        const ssize_t count =
            TEMP_FAILURE_RETRY(::write(pipe.get(), pending.data(), pending.size()));
        if (count < 0) {
            if (errno == EAGAIN) {
                return false;
            }
            throw std::runtime_error("cannot write into " + subscription->settings.pipePath + ": " +
                                     systemError(errno));
        }
        written += static_cast<std::size_t>(count);
        pending.erase(0, static_cast<std::size_t>(count));
    }
    return true;
}

} // namespace relay
