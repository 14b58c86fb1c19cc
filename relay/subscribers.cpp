// Who gets the records, and how far each has got.
#include "relay/subscribers.h"

#include "relay/messages.h"

#include <algorithm>
#include <utility>

namespace relay {

namespace {

constexpr double nanosecond = 1e-9;
constexpr int mostRounds = 100;

/// What the log is told: of one that is configured, the settings stand elsewhere.
Position positionOf(const SubscriberSettings& settings, std::int64_t acknowledged,
                    std::int64_t dropped) {
    const bool isHttp = settings.type == SubscriberType::http;
    return {settings.name, acknowledged, dropped,
            isHttp ? filterText(settings.filter) : std::string(), settings.maxBacklog};
}

} // namespace

Subscription::Subscription(RecordLog& inLog, SubscriberSettings itsSettings,
                           const Position& position)
    : settings(std::move(itsSettings)), log(inLog), savedPosition(position.acknowledged) {
    counts.name = settings.name;
    counts.type = nameOf(settings.type);
    counts.acknowledged = position.acknowledged;
    counts.dropped = position.dropped;
}

Page Subscription::next(std::int64_t after, std::size_t limit) {
    Page page = log.read(after, settings.filter, limit);
    const std::lock_guard<std::mutex> guard(mutex);
    const std::int64_t unwantedTo =
        page.records.empty() ? page.seenTo : page.records.front().sequence - 1;
    if (after == counts.acknowledged) {
        counts.acknowledged = std::max(after, unwantedTo);
    }
    return page;
}

std::int64_t Subscription::acknowledged() const {
    const std::lock_guard<std::mutex> guard(mutex);
    return counts.acknowledged;
}

Position Subscription::stored(std::int64_t acknowledgedTo) const {
    return positionOf(settings, acknowledgedTo, counts.dropped);
}

void Subscription::acknowledge(std::int64_t sequence, std::int64_t ofGeneration) {
    const std::lock_guard<std::mutex> guard(mutex);
    if (sequence <= counts.acknowledged || ofGeneration != resets || isRetired) {
        return;
    }
    log.setPosition(stored(sequence));
    counts.acknowledged = savedPosition = sequence;
}

void Subscription::reset(const Start& start) {
    const std::int64_t position = log.positionOf(start);
    const std::lock_guard<std::mutex> guard(mutex);
    log.setPosition(stored(position));
    counts.acknowledged = savedPosition = position;
    ++resets;
}

std::int64_t Subscription::generation() const {
    const std::lock_guard<std::mutex> guard(mutex);
    return resets;
}

void Subscription::retire() {
    const std::lock_guard<std::mutex> guard(mutex);
    isRetired = true;
}

std::int64_t Subscription::drop(std::int64_t upTo) {
    const std::lock_guard<std::mutex> guard(mutex);
    if (upTo <= counts.acknowledged || isRetired) {
        return 0;
    }
    const std::int64_t lost = upTo - counts.acknowledged;
    counts.dropped += lost;
    log.setPosition(stored(upTo));
    counts.acknowledged = savedPosition = upTo;
    return lost;
}

void Subscription::save() {
    const std::lock_guard<std::mutex> guard(mutex);
    if (savedPosition != counts.acknowledged && !isRetired) {
        log.setPosition(stored(counts.acknowledged));
        savedPosition = counts.acknowledged;
    }
}

void Subscription::requestRetry(std::int64_t sequence) {
    const std::lock_guard<std::mutex> guard(mutex);
    retries.insert(sequence);
}

std::optional<std::int64_t> Subscription::takeRetry() {
    const std::lock_guard<std::mutex> guard(mutex);
    const auto first = retries.begin();
    return first == retries.end() ? std::nullopt : std::optional(retries.extract(first).value());
}

void Subscription::countDelivered(std::int64_t records) {
    const std::lock_guard<std::mutex> guard(mutex);
    counts.delivered += records;
}

void Subscription::countAttempt() {
    const std::lock_guard<std::mutex> guard(mutex);
    ++counts.attempts;
}

void Subscription::countFailure(const std::string& why) {
    const std::lock_guard<std::mutex> guard(mutex);
    ++counts.failures;
    if (counts.problem != why) {
        warn("subscriber " + settings.name + ": " + why);
    }
    counts.problem = why;
}

void Subscription::clearFailure() {
    const std::lock_guard<std::mutex> guard(mutex);
    if (!counts.problem.empty()) {
        inform("subscriber " + settings.name + " takes records again");
        counts.problem.clear();
    }
}

SubscriberFigures Subscription::figures() {
    const Page oldest = next(acknowledged(), 1);
    const std::int64_t last = log.figures().last;
    const std::int64_t letters = log.countDeadLetters(settings.name);
    const std::lock_guard<std::mutex> guard(mutex);
    SubscriberFigures figures = counts;
    figures.lag = std::max<std::int64_t>(0, last - counts.acknowledged);
    if (!oldest.records.empty() && oldest.records.front().sequence > counts.acknowledged) {
        const std::int64_t age = now() - oldest.records.front().arrival;
        figures.lagSeconds = std::max(0.0, static_cast<double>(age) * nanosecond);
    }
    figures.deadLetters = letters;
    return figures;
}

Subscribers::Subscribers(RecordLog& inLog, const std::vector<SubscriberSettings>& configured)
    : log(inLog) {
    std::map<std::string, Position> known;
    for (Position& each : log.positions()) {
        known[each.name] = std::move(each);
    }
    for (const SubscriberSettings& each : configured) {
        auto position = known.find(each.name);
        if (position == known.end()) {
            const Position fresh = positionOf(each, log.positionOf(each.start), 0);
            log.setPosition(fresh);
            position = known.emplace(each.name, fresh).first;
        }
        byName[each.name] = std::make_shared<Subscription>(log, each, position->second);
        isConfigured[each.name] = true;
        known.erase(position);
    }
    for (const auto& [name, position] : known) {
        SubscriberSettings settings;
        settings.name = name;
        if (position.filter.empty()) {
            std::string sentence = "subscriber " + name + " is not configured any more: the log ";
            sentence += "keeps what it has not acknowledged until it is removed (skarn-relay ";
            sentence += "subscribers remove " + name + ")";
            warn(sentence);
        }
        settings.filter = parseFilterText(position.filter);
        settings.maxBacklog = position.maxBacklog;
        byName[name] = std::make_shared<Subscription>(log, settings, position);
    }
}

Subscribers::Shared Subscribers::find(const std::string& name) const {
    const std::lock_guard<std::mutex> guard(mutex);
    const auto found = byName.find(name);
    return found == byName.end() ? nullptr : found->second;
}

std::vector<Subscribers::Shared> Subscribers::all() const {
    const std::lock_guard<std::mutex> guard(mutex);
    std::vector<Shared> found;
    found.reserve(byName.size());
    for (const auto& each : byName) {
        found.push_back(each.second);
    }
    return found;
}

Subscribers::Shared Subscribers::create(const SubscriberSettings& settings, bool& isNew) {
    const std::lock_guard<std::mutex> guard(mutex);
    const auto found = byName.find(settings.name);
    isNew = found == byName.end();
    if (!isNew) {
        const SubscriberSettings& old = found->second->settings;
        const bool isSame = old.type == settings.type && old.filter == settings.filter &&
                            old.maxBacklog == settings.maxBacklog;
        return isSame ? found->second : nullptr;
    }
    const Position position = positionOf(settings, log.positionOf(settings.start), 0);
    log.setPosition(position);
    return byName[settings.name] = std::make_shared<Subscription>(log, settings, position);
}

std::string Subscribers::remove(const std::string& name) {
    const std::lock_guard<std::mutex> guard(mutex);
    if (byName.count(name) == 0) {
        return "there is no subscriber " + name;
    }
    if (isConfigured.count(name) != 0) {
        return "subscriber " + name + " stands in the configuration: take it out there first";
    }
    byName[name]->retire();
    log.removeSubscriber(name);
    byName.erase(name);
    return {};
}

void Subscribers::removeOld(const LogSettings& limits, std::int64_t upTo) {
    const std::int64_t removable = std::min(upTo, removableTo(log.figures().last));
    const std::int64_t before = now() - limits.keepSeconds * billion;
    std::map<Shared, std::int64_t> lost;
    // Between two rounds the intake has its turn.
    for (int rounds = 0; rounds < mostRounds; ++rounds) {
        const std::int64_t last = log.oldTo(removable, before, limits.keepBytes);
        if (last == 0) {
            break;
        }
        // First, since a subscriber that finds them gone takes them for records it did not want.
        for (const Shared& each : all()) {
            lost[each] += each->drop(last);
        }
        log.removeTo(last);
    }
    for (const auto& [each, count] : lost) {
        if (count > 0) {
            warn("subscriber " + each->settings.name + " lags by more than its max_backlog: " +
                 std::to_string(count) + " records were removed before it had them");
        }
    }
}

/// The last record that all have acknowledged, or are not to have because of their max_backlog;
/// with no subscribers, `last`.
std::int64_t Subscribers::removableTo(std::int64_t last) const {
    std::int64_t lowest = last;
    for (const Shared& each : all()) {
        std::int64_t own = each->acknowledged();
        if (each->settings.maxBacklog > 0) {
            own = std::max(own, last - each->settings.maxBacklog);
        }
        lowest = std::min(lowest, own);
    }
    return lowest;
}

} // namespace relay
