// Delivering to a program that reads a named pipe, in the daemon's own lines.
#include "relay/pipe_delivery.h"

#include "relay/messages.h"

#include <cerrno>
#include <stdexcept>
#include <utility>

#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace relay {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t recordsAtOnce = 500;
constexpr auto lookPause = 1s;
// How far behind the acknowledged position the pipe's contents are looked for after a start.
constexpr std::size_t searched = 8UL * 1024 * 1024;

} // namespace

PipeDelivery::PipeDelivery(std::shared_ptr<Subscription> toSubscription)
    : subscription(std::move(toSubscription)) {
}

std::size_t PipeDelivery::pageSize() const {
    return recordsAtOnce;
}

std::int64_t PipeDelivery::begin(std::int64_t acknowledged) {
    sent.clear();
    taken = 0;
    if (pipe) {
        return acknowledged; // what is in the pipe stays there, and says nothing of the new place
    }
    open();
    pending.clear();
    std::string waiting;
    if (!PipeCopy(pipe.get()).take(pipe.get(), SIZE_MAX / 2, waiting)) {
        fail("cannot look into");
    }
    written = waiting.size();
    try {
        return waiting.empty() ? acknowledged : findWhatWaits(waiting, acknowledged);
    } catch (const DatabaseError&) {
        pipe.reset(); // what is in it is still not known: next time from the beginning
        throw;
    }
}

void PipeDelivery::open() {
    const SubscriberSettings& settings = subscription->settings;
    pipe = openPipe(settings.pipePath, settings.pipeMode);
    if (!settings.pipeOwner.empty()) {
        const passwd* const owner = ::getpwnam(settings.pipeOwner.c_str());
        if (owner == nullptr || ::fchown(pipe.get(), owner->pw_uid, owner->pw_gid) != 0) {
            fail("cannot give " + settings.pipeOwner + " the pipe");
        }
    }
    lastLook = std::chrono::steady_clock::now();
}

/// Closes the pipe; it is opened again when everything begins anew.
void PipeDelivery::fail(const std::string& what) {
    const std::string why = systemError(errno);
    pipe.reset();
    throw std::runtime_error(what + " " + subscription->settings.pipePath + ": " + why);
}

std::int64_t PipeDelivery::findWhatWaits(const std::string& waiting, std::int64_t acknowledged) {
    // An earlier relay wrote it. What stands before it in the log was taken by the reader, and what
    // stands behind it is to be written; it may begin and end in the middle of a line.
    std::string lines;
    std::int64_t after = acknowledged;
    for (bool isMore = true; isMore && lines.size() < searched;) {
        const Page page = subscription->next(after, recordsAtOnce);
        for (const Record& each : page.records) {
            lines += lineOf(each);
            sent.push_back({each.sequence, lines.size()});
        }
        if (const std::size_t begin = lines.find(waiting); begin != std::string::npos) {
            written = begin + waiting.size();
            while (sent.size() > 1 && sent[sent.size() - 2].end >= written) {
                sent.pop_back();
            }
            pending = lines.substr(written, sent.back().end - written);
            return sent.back().sequence;
        }
        isMore = page.seenTo > after;
        after = page.seenTo;
    }
    sent.clear();
    inform("subscriber " + subscription->settings.name + ": what waits in its pipe is not known, " +
           "and stays before its next record");
    return acknowledged;
}

bool PipeDelivery::isInItsPlace() const {
    struct stat place {};
    struct stat own {};
    return ::stat(subscription->settings.pipePath.c_str(), &place) == 0 &&
           ::fstat(pipe.get(), &own) == 0 && place.st_dev == own.st_dev &&
           place.st_ino == own.st_ino;
}

std::int64_t PipeDelivery::arrived() {
    const auto waiting = bytesIn(pipe);
    if (!waiting) {
        return taken; // what is still in it is not known
    }
    const std::size_t out = written > *waiting ? written - *waiting : 0;
    std::int64_t count = 0;
    for (; !sent.empty() && sent.front().end <= out; sent.pop_front()) {
        taken = sent.front().sequence;
        ++count;
    }
    subscription->countDelivered(count);
    return taken;
}

std::size_t PipeDelivery::send(const std::vector<Record>& records) {
    const auto time = std::chrono::steady_clock::now();
    if (time - lastLook >= lookPause) {
        lastLook = time;
        if (!isInItsPlace()) {
            pipe.reset(); // the reader of another one has nothing of what was sent
            throw std::runtime_error(subscription->settings.pipePath + " was taken away");
        }
    }
    std::size_t count = 0;
    while (writePending() && count < records.size()) {
        pending = lineOf(records[count]);
        sent.push_back({records[count].sequence, written + pending.size()});
        ++count;
    }
    return count;
}

bool PipeDelivery::writePending() {
    while (!pending.empty()) {
        // Up to PIPE_BUF it is written whole or not at all, like the daemon's own.
        const ssize_t count =
            TEMP_FAILURE_RETRY(::write(pipe.get(), pending.data(), pending.size()));
        if (count < 0 && errno == EAGAIN) {
            return false;
        }
        if (count < 0) {
            fail("cannot write into");
        }
        written += static_cast<std::size_t>(count);
        pending.erase(0, static_cast<std::size_t>(count));
    }
    return true;
}

void PipeDelivery::waitForRoom(std::chrono::milliseconds limit) {
    pollfd polled{pipe.get(), POLLOUT, 0};
    ::poll(&polled, 1, static_cast<int>(limit.count()));
}

} // namespace relay
