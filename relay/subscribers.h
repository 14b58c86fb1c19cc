// Who gets the records, and how far each has got.
#pragma once

#include "relay/record_log.h"
#include "relay/settings.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace relay {

/// What is told of one subscriber.
struct SubscriberFigures {
    std::string name;
    std::string type;
    std::int64_t acknowledged = 0; // all records up to this one
    std::int64_t lag = 0;          // records behind it, those that the filter leaves out included
    double lagSeconds = 0;         // since the oldest of these that it wants came
    std::int64_t delivered = 0;    // since the relay's start, like the next two
    std::int64_t attempts = 0;
    std::int64_t failures = 0;
    std::int64_t deadLetters = 0;
    std::int64_t dropped = 0; // removed before it had them, by its max_backlog
    std::string problem;      // why its last delivery failed; empty if it did not
};

/// One subscriber's place in the log. All calls may be made by any thread.
class Subscription {
public:
    /// `position` is where it stands by the log.
    Subscription(RecordLog& inLog, SubscriberSettings itsSettings, const Position& position);

    const SubscriberSettings settings;

    /// The records that it wants behind that number, some of them. What it does not want right
    /// behind its own position needs no acknowledgement. Throws DatabaseError.
    Page next(std::int64_t after, std::size_t limit);

    std::int64_t acknowledged() const;

    /// It has all records up to this one. Never goes back. On the disk when it returns. Throws
    /// DatabaseError; then nothing was acknowledged. Nothing is done if it was reset since its
    /// generation was that one, or if it was removed.
    void acknowledge(std::int64_t sequence, std::int64_t ofGeneration);

    /// Puts it elsewhere, back or forward. Throws DatabaseError.
    void reset(const Start& start);

    /// Grows with each reset: what was read before is not to be acknowledged behind one.
    std::int64_t generation() const;

    /// It is no subscriber any more: nothing of it is written any more.
    void retire();

    /// Records up to this one are going to be removed: it can have them no more. Returns how many
    /// of its records that are, by their numbers.
    std::int64_t drop(std::int64_t upTo);

    /// Writes down what it did not want. Throws DatabaseError.
    void save();

    /// Asks for a dead letter to be tried again; and what was asked for, once each. Only a command
    /// does it.
    void requestRetry(std::int64_t sequence);
    std::optional<std::int64_t> takeRetry();

    void countDelivered(std::int64_t records);
    void countAttempt();
    void countFailure(const std::string& why); // tells it, unless it is the same as before
    void clearFailure();

    SubscriberFigures figures();

private:
    Position stored(std::int64_t acknowledgedTo) const;

    RecordLog& log;
    mutable std::mutex mutex;       // guards all below
    SubscriberFigures counts;       // but for the lag and the dead letters
    std::int64_t savedPosition = 0; // what the log has
    std::int64_t resets = 0;
    bool isRetired = false;
    std::set<std::int64_t> retries; // that were asked for
};

/// All subscribers, by name.
class Subscribers {
public:
    /// Those that are configured, and those of the log that were made over HTTP. Tells of others in
    /// the log: they hold back what the log removes until they are removed themselves.
    Subscribers(RecordLog& inLog, const std::vector<SubscriberSettings>& configured);

    using Shared = std::shared_ptr<Subscription>;

    /// Nothing if there is none of that name.
    Shared find(const std::string& name) const;
    std::vector<Shared> all() const;

    /// A new one over HTTP. If there is one of the name with these settings, that one. Nothing if
    /// there is one with others.
    Shared create(const SubscriberSettings& settings, bool& isNew);

    /// Removes one that was made over HTTP, or that is not configured any more, with its dead
    /// letters. What can't be removed is told in one sentence; else it is empty.
    std::string remove(const std::string& name);

    /// Removes from the log what is older than it is to keep, or too much, and was acknowledged by
    /// all. Who has a max_backlog may lose some by that: that is counted and told, before they are
    /// removed. Nothing behind `upTo`, and not all at once: a next call goes on. Throws
    /// DatabaseError.
    void removeOld(const LogSettings& limits, std::int64_t upTo);

private:
    std::int64_t removableTo(std::int64_t last) const;

    RecordLog& log;
    mutable std::mutex mutex; // guards the rest
    std::map<std::string, Shared> byName;
    std::map<std::string, bool> isConfigured;
};

} // namespace relay
