// The one place where the program waits: for its child, its reader, signals and the clock.
#include "confirming_rsync/relay.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>

#include <poll.h>
#include <unistd.h>

namespace confirming {

namespace {

/// While more than this waits for the reader, the child is not read from.
constexpr std::size_t fullReport = 65536;

/// How long a child is left alone after it was read from, unless there was more. Rsync writes each
/// line on its own; waking up for each, here and at the reader's, would cost more than the line.
/// After a portion of some lines it goes on copying, and more of them are waited for.
constexpr std::chrono::milliseconds rest{5};
constexpr std::chrono::milliseconds longRest{20};
constexpr std::size_t longPortion = 256;

/// No wait is longer, so that an event that came unnoticed is noticed.
constexpr std::chrono::milliseconds longestWait{1000};

int millisecondsUntil(Clock::time_point time) {
    const auto now = Clock::now();
    if (time <= now) {
        return 0;
    }
    if (time - now >= longestWait) {
        return static_cast<int>(longestWait.count());
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(time - now);
    return static_cast<int>(left.count()) + 1;
}

constexpr std::size_t mostAtOnce = 8192;

} // namespace

/// Hands on what is there to read, and returns how much that was; closes the descriptor at the end
/// of the stream.
std::size_t Relay::readSome(Descriptor& from, const std::function<void(std::string_view)>& sink) {
    std::array<char, mostAtOnce> buffer{};
    const ssize_t count = ::read(from.get(), buffer.data(), buffer.size());
    if (count > 0) {
        sink(std::string_view(buffer.data(), static_cast<std::size_t>(count)));
    } else if (count == 0 || errno != EINTR) {
        missedSomething_ = missedSomething_ || count != 0;
        from.reset();
    }
    return static_cast<std::size_t>(std::max<ssize_t>(count, 0));
}

void Relay::step(Child& child, const Sinks& sinks, Clock::time_point until) {
    step(&child, &sinks, until);
}

void Relay::step(Clock::time_point until) {
    step(nullptr, nullptr, until);
}

bool Relay::isReading() const {
    return writer_.pending() < fullReport;
}

void Relay::step(Child* child, const Sinks* sinks, Clock::time_point until) {
    const bool resting = child != nullptr && Clock::now() < restsUntil_;
    const bool reading = child != nullptr && !resting && isReading();
    const bool writing = writer_.pending() > 0;
    // poll passes over a negative descriptor; without events asked for, it still tells of errors.
    std::array<struct pollfd, 4> polled{{
        {signals_.descriptor(), POLLIN, 0},
        {writer_.hasGivenUp() ? -1 : writer_.descriptor(),
         static_cast<short>(writing ? POLLOUT : 0), 0},
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
        writer_.giveUp();
    } else if (polled[1].revents != 0) {
        writer_.write();
    }
    if (!reading || (polled[2].revents == 0 && polled[3].revents == 0)) {
        return;
    }
    std::size_t portion = 0;
    if (polled[2].revents != 0) {
        portion = readSome(child->output, sinks->output);
    }
    if (polled[3].revents != 0) {
        portion = std::max(portion, readSome(child->errorOutput, sinks->errorOutput));
    }
    if (portion < mostAtOnce) {
        restsUntil_ = Clock::now() + (portion < longPortion ? rest : longRest);
    }
}

void Relay::takeSignals() {
    for (int signal = signals_.take(); signal != 0; signal = signals_.take()) {
        if (signal == SIGCHLD) {
            restsUntil_ = {}; // nothing more is going to come
            continue;
        }
        if (stopSignal_ == 0) {
            stopSignal_ = signal;
        } else {
            endBySignal(signal);
        }
    }
}

} // namespace confirming
