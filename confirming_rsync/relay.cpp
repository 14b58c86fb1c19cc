// The one place where the program waits: for its child, its reader, signals and the clock.
#include "confirming_rsync/relay.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include <poll.h>

namespace confirming {

namespace {

/// While more than this waits for the reader, the child is not read from.
constexpr std::size_t fullReport = 65536;

/// How long a child is left alone after it was read from, unless there was more. Rsync writes each
/// line on its own; waking up for each, here and at the reader's, would cost more than the line.
/// After a portion of some lines it goes on copying, and more of them are waited for.
constexpr std::chrono::milliseconds shortRest{5};
constexpr std::size_t longPortion = 256;

constexpr std::size_t mostAtOnce = 8192;

/// No wait is longer, so that an event that came unnoticed is noticed.
constexpr std::chrono::milliseconds longestWait{1000};

int millisecondsUntil(Clock::time_point time) {
    const auto now = Clock::now();
    const auto left = std::clamp(time, now, now + longestWait) - now;
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}

} // namespace

void ReportWriter::add(std::string_view text) {
    if (!givenUp_) {
        text_ += text;
    }
}

void ReportWriter::write() {
    // A pipe that is ready takes this much at once.
    const std::string_view waiting =
        std::string_view(text_).substr(written_, std::size_t{PIPE_BUF});
    const std::size_t lineEnd = waiting.rfind('\n');
    const std::size_t portion = lineEnd == std::string_view::npos ? waiting.size() : lineEnd + 1;
    const ssize_t count = ::write(descriptor_, waiting.data(), portion);
    if (count < 0) {
        if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            giveUp();
        }
        return;
    }
    written_ += static_cast<std::size_t>(count);
    total_ += static_cast<std::uint64_t>(count);
    if (2 * written_ >= text_.size()) {
        // Not only when all is written: a reader may always be behind.
        text_.erase(0, written_);
        written_ = 0;
    }
}

void ReportWriter::giveUp() {
    givenUp_ = true;
    text_.clear();
    written_ = 0;
}

void Relay::step(Clock::time_point until, Child* child, const Sinks& sinks) {
    const auto now = Clock::now();
    const bool resting = child != nullptr && now < restsUntil_;
    const bool isFull = report.pending() >= fullReport;
    const bool reading = child != nullptr && !resting && !isFull;
    lastLife_ = isFull ? now : lastLife_;
    const auto writing = static_cast<short>(report.pending() > 0 ? POLLOUT : 0);
    // poll passes over a negative descriptor; without events asked for, it still tells of errors.
    std::array<struct pollfd, 4> polled{{
        {signals.descriptor(), POLLIN, 0},
        {readerIsGone() ? -1 : report.descriptor(), writing, 0},
        {reading ? child->output.get() : -1, POLLIN, 0},
        {reading ? child->errorOutput.get() : -1, POLLIN, 0},
    }};
    const auto wakeUp = resting ? std::min(until, restsUntil_) : until;
    if (::poll(polled.data(), polled.size(), millisecondsUntil(wakeUp)) <= 0) {
        return;
    }
    if (polled[0].revents != 0) {
        takeSignals();
    }
    if ((polled[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
        report.giveUp();
    } else if (polled[1].revents != 0) {
        report.write();
    }
    if (polled[2].revents != 0) {
        readSome(child->output, sinks.output);
    }
    if (polled[3].revents != 0) {
        readSome(child->errorOutput, sinks.errorOutput);
    }
}

/// Hands on what is there to read; closes the descriptor at the end of the stream.
void Relay::readSome(Descriptor& from, const std::function<void(std::string_view)>& sink) {
    std::array<char, mostAtOnce> buffer{};
    const ssize_t count = ::read(from.get(), buffer.data(), buffer.size());
    const auto portion = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    if (portion > 0) {
        lastLife_ = Clock::now();
        sink(std::string_view(buffer.data(), portion));
    } else if (count == 0 || errno != EINTR) {
        missedSomething_ = missedSomething_ || count != 0;
        from.reset();
    }
    if (portion < mostAtOnce) {
        restsUntil_ = Clock::now() +
                      (portion < longPortion ? std::min(shortRest, longestRest_) : longestRest_);
    }
}

void Relay::takeSignals() {
    for (int signal = signals.take(); signal != 0; signal = signals.take()) {
        if (signal == SIGCHLD) {
            restsUntil_ = {}; // nothing more is going to come
        } else if (stopSignal_ == 0) {
            stopSignal_ = signal;
        } else {
            endBySignal(signal);
        }
    }
}

} // namespace confirming
