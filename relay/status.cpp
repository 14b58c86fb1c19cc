// What is told of the relay, as JSON, for Prometheus and for people: all from one set of figures.
#include "relay/status.h"

#include "relay/json.h"
#include "relay/messages.h"

#include <cmath>
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>

namespace relay {

namespace {

/// One figure: its name in the JSON and in the metrics, and what it is. A metric whose name ends in
/// "_total" counts, another one may fall.
template<class Source>
struct Figure {
    const char* key;    // in the JSON object
    const char* metric; // of Prometheus, without the beginning that all have in common
    const char* help;
    std::function<Json(const Source&)> value;
};

const std::vector<Figure<Status>> relayFigures = {
    {"records", "records_total", "Records written into the log",
     [](const Status& s) { return s.intake.records; }},
    {"bytes", "bytes_total", "Bytes of the files of these records",
     [](const Status& s) { return s.intake.bytes; }},
    {"repeats", "repeats_total", "Announcements of a file that was in the log already",
     [](const Status& s) { return s.intake.repeats; }},
    {"batches", "batches_total", "Transactions that records came in",
     [](const Status& s) { return s.intake.batches; }},
    {"odd_lines", "odd_lines_total", "Lines of the pipe that were no record",
     [](const Status& s) { return s.intake.oddLines; }},
    {"stalls", "stalls_total", "Times that the log could not be written",
     [](const Status& s) { return s.intake.stalls; }},
    {"stalled_seconds", "stalled_seconds",
     "For how long nothing is taken out of the pipe; 0 if it is not stalled",
     [](const Status& s) { return s.stalledSeconds; }},
    {"bytes_waiting", "pipe_bytes", "Bytes that wait in the daemon's pipe",
     [](const Status& s) { return s.intake.bytesWaiting; }},
    {"first", "first_record", "Number of the oldest record in the log; 0 if there is none",
     [](const Status& s) { return s.log.first; }},
    {"last", "last_record", "Number of the newest record",
     [](const Status& s) { return s.log.last; }},
    {"log_bytes", "log_bytes", "Size of the log on disk",
     [](const Status& s) { return s.log.bytes; }},
    {"since", "start_time_seconds", "When the relay was started",
     [](const Status& s) { return s.since; }},
};

using Subscriber = SubscriberFigures;

const std::vector<Figure<Subscriber>> subscriberFigures = {
    {"acknowledged", "subscriber_acknowledged", "Number of the record up to which it has all",
     [](const Subscriber& s) { return s.acknowledged; }},
    {"lag", "subscriber_lag_records", "Records behind that one",
     [](const Subscriber& s) { return s.lag; }},
    {"lag_seconds", "subscriber_lag_seconds",
     "Age of the oldest record that it has yet to acknowledge",
     [](const Subscriber& s) { return s.lagSeconds; }},
    {"delivered", "subscriber_delivered_total", "Records handed to it, each time counted",
     [](const Subscriber& s) { return s.delivered; }},
    {"attempts", "subscriber_attempts_total", "Deliveries tried",
     [](const Subscriber& s) { return s.attempts; }},
    {"failures", "subscriber_failures_total", "Deliveries that failed",
     [](const Subscriber& s) { return s.failures; }},
    {"dead_letters", "subscriber_dead_letters", "Records that it did not take, set aside",
     [](const Subscriber& s) { return s.deadLetters; }},
    {"dropped", "subscriber_dropped_total",
     "Records removed before it had them, by its max_backlog",
     [](const Subscriber& s) { return s.dropped; }},
};

/// A number for people and Prometheus: whole ones without a fraction.
std::string printed(const Json& value) {
    if (const double number = value; number != std::floor(number)) {
        char text[64];
        std::snprintf(text, sizeof text, "%.3f", number);
        return text;
    }
    return std::to_string(value.get<std::int64_t>());
}

template<class Source>
void addFigures(const std::vector<Figure<Source>>& figures, const Source& source, Json& object) {
    for (const Figure<Source>& each : figures) {
        object[each.key] = each.value(source);
    }
}

template<class Source>
std::string heading(const Figure<Source>& figure) {
    const std::string name = std::string("skarn_relay_") + figure.metric;
    const bool isCounter = name.size() > 6 && name.substr(name.size() - 6) == "_total";
    return "# HELP " + name + " " + figure.help + "\n# TYPE " + name +
           (isCounter ? " counter\n" : " gauge\n");
}

template<class Source>
std::string sample(const Figure<Source>& figure, const Source& source, const std::string& labels) {
    return std::string("skarn_relay_") + figure.metric + labels + " " +
           printed(figure.value(source)) + "\n";
}

} // namespace

Json jsonOf(const Status& status) {
    Json object = {{"version", 1}, {"pipe", status.pipe}, {"problem", status.intake.problem}};
    addFigures(relayFigures, status, object);
    object["subscribers"] = Json::array();
    for (const Subscriber& each : status.subscribers) {
        Json one = {{"name", each.name}, {"type", each.type}, {"problem", each.problem}};
        addFigures(subscriberFigures, each, one);
        object["subscribers"].push_back(std::move(one));
    }
    return object;
}

std::string metricsText(const Status& status) {
    std::string text;
    for (const auto& figure : relayFigures) {
        text += heading(figure) + sample(figure, status, "");
    }
    for (const auto& figure : subscriberFigures) {
        if (!status.subscribers.empty()) {
            text += heading(figure);
        }
        for (const Subscriber& each : status.subscribers) {
            // A subscriber's name has no character that would want an escape.
            text += sample(figure, each,
                           "{subscriber=\"" + each.name + "\",type=\"" + each.type + "\"}");
        }
    }
    return text;
}

std::string statusText(const Status& status) {
    std::string text = status.intake.problem.empty()
                           ? "taking records from " + shown(status.pipe) + "\n"
                           : "STALLED for " + printed(status.stalledSeconds) +
                                 " s: " + shown(status.intake.problem) + "\n";
    text += printed(status.intake.records) + " records and " + printed(status.intake.repeats) +
            " repeats since the start, " + printed(status.intake.bytesWaiting) +
            " bytes wait in the pipe\nlog: records " + printed(status.log.first) + " to " +
            printed(status.log.last) + ", " + printed(status.log.bytes) + " bytes\n";
    for (const Subscriber& each : status.subscribers) {
        text += each.name + " (" + each.type + "): ";
        text += each.lag == 0 ? "has all"
                              : printed(each.lag) + " records behind, the oldest " +
                                    printed(each.lagSeconds) + " s old";
        text += each.deadLetters == 0 ? "" : ", " + printed(each.deadLetters) + " dead letters";
        text += each.dropped == 0 ? "" : ", " + printed(each.dropped) + " dropped";
        text += (each.problem.empty() ? "" : "; " + shown(each.problem)) + "\n";
    }
    return text;
}

} // namespace relay
