// What is told of the relay, as JSON and for Prometheus: both from one set of figures.
#include "relay/status.h"

#include "relay/messages.h"
#include "relay/record_json.h"

#include <cstdio>
#include <functional>

namespace relay {

namespace {

/// One figure: its name in the JSON and in the metrics, and what it is.
template<class Source>
struct Figure {
    const char* key;    // in the JSON object
    const char* metric; // of Prometheus
    const char* type;
    const char* help;
    std::function<double(const Source&)> value;
};

double number(std::int64_t integer) {
    return static_cast<double>(integer);
}

const std::vector<Figure<Status>>& relayFigures() {
    static const std::vector<Figure<Status>> figures = {
        {"records", "skarn_relay_records_total", "counter", "Records written into the log",
         [](const Status& s) { return number(s.records); }},
        {"repeats", "skarn_relay_repeats_total", "counter",
         "Announcements of a file that was in the log already",
         [](const Status& s) { return number(s.repeats); }},
        {"batches", "skarn_relay_batches_total", "counter", "Transactions that records came in",
         [](const Status& s) { return number(s.batches); }},
        {"odd_lines", "skarn_relay_odd_lines_total", "counter",
         "Lines of the pipe that were no record",
         [](const Status& s) { return number(s.oddLines); }},
        {"stalls", "skarn_relay_stalls_total", "counter", "Times that the log could not be written",
         [](const Status& s) { return number(s.stalls); }},
        {"stalled_seconds", "skarn_relay_stalled_seconds", "gauge",
         "For how long nothing is taken out of the pipe; 0 if it is not stalled",
         [](const Status& s) { return s.stalledSeconds; }},
        {"bytes_waiting", "skarn_relay_pipe_bytes", "gauge", "Bytes that wait in the daemon's pipe",
         [](const Status& s) { return number(s.bytesWaiting); }},
        {"first", "skarn_relay_first_record", "gauge",
         "Number of the oldest record in the log; 0 if there is none",
         [](const Status& s) { return number(s.log.first); }},
        {"last", "skarn_relay_last_record", "gauge", "Number of the newest record",
         [](const Status& s) { return number(s.log.last); }},
        {"log_bytes", "skarn_relay_log_bytes", "gauge", "Size of the log on disk",
         [](const Status& s) { return number(s.log.bytes); }},
        {"since", "skarn_relay_start_time_seconds", "gauge", "When the relay was started",
         [](const Status& s) { return s.since; }},
    };
    return figures;
}

const std::vector<Figure<SubscriberFigures>>& subscriberFigures() {
    using Subscriber = SubscriberFigures;
    static const std::vector<Figure<Subscriber>> figures = {
        {"acknowledged", "skarn_relay_subscriber_acknowledged", "gauge",
         "Number of the record up to which it has all",
         [](const Subscriber& s) { return number(s.acknowledged); }},
        {"lag", "skarn_relay_subscriber_lag_records", "gauge", "Records behind that one",
         [](const Subscriber& s) { return number(s.lag); }},
        {"lag_seconds", "skarn_relay_subscriber_lag_seconds", "gauge",
         "Age of the oldest record that it has yet to acknowledge",
         [](const Subscriber& s) { return s.lagSeconds; }},
        {"delivered", "skarn_relay_subscriber_delivered_total", "counter",
         "Records handed to it, each time counted",
         [](const Subscriber& s) { return number(s.delivered); }},
        {"attempts", "skarn_relay_subscriber_attempts_total", "counter", "Deliveries tried",
         [](const Subscriber& s) { return number(s.attempts); }},
        {"failures", "skarn_relay_subscriber_failures_total", "counter", "Deliveries that failed",
         [](const Subscriber& s) { return number(s.failures); }},
        {"dead_letters", "skarn_relay_subscriber_dead_letters", "gauge",
         "Records that it did not take, set aside",
         [](const Subscriber& s) { return number(s.deadLetters); }},
        {"dropped", "skarn_relay_subscriber_dropped_total", "counter",
         "Records removed before it had them, by its max_backlog",
         [](const Subscriber& s) { return number(s.dropped); }},
    };
    return figures;
}

/// Whole numbers without a fraction, up to 2^53.
std::string printed(double value) {
    constexpr double exact = 9007199254740992.0;
    if (value == static_cast<double>(static_cast<std::int64_t>(value)) && value < exact) {
        return std::to_string(static_cast<std::int64_t>(value));
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

template<class Source>
std::string jsonFields(const std::vector<Figure<Source>>& figures, const Source& source) {
    std::string text;
    for (const Figure<Source>& each : figures) {
        text += std::string(",\"") + each.key + "\":" + printed(each.value(source));
    }
    return text;
}

std::string printable(const std::string& text) {
    return isUtf8(text) ? text : percentEncoded(text);
}

std::string heading(const char* metric, const char* type, const char* help) {
    return std::string("# HELP ") + metric + " " + help + "\n# TYPE " + metric + " " + type + "\n";
}

} // namespace

std::string statusJson(const Status& status) {
    std::string text = "{\"version\":1,\"pipe\":" + jsonString(printable(status.pipe)) +
                       ",\"problem\":" + jsonString(printable(status.problem)) +
                       jsonFields(relayFigures(), status) + ",\"subscribers\":[";
    const char* separator = "";
    for (const SubscriberFigures& each : status.subscribers) {
        text += separator;
        text += "{\"name\":" + jsonString(each.name) + ",\"type\":" + jsonString(each.type) +
                ",\"problem\":" + jsonString(printable(each.problem)) +
                jsonFields(subscriberFigures(), each) + "}";
        separator = ",";
    }
    return text + "]}\n";
}

std::string metricsText(const Status& status) {
    std::string text;
    for (const auto& each : relayFigures()) {
        text += heading(each.metric, each.type, each.help) + each.metric + " " +
                printed(each.value(status)) + "\n";
    }
    for (const auto& each : subscriberFigures()) {
        if (!status.subscribers.empty()) {
            text += heading(each.metric, each.type, each.help);
        }
        for (const SubscriberFigures& one : status.subscribers) {
            // A subscriber's name has no character that would want an escape.
            text += std::string(each.metric) + "{subscriber=\"" + one.name + "\",type=\"" +
                    one.type + "\"} " + printed(each.value(one)) + "\n";
        }
    }
    return text;
}

std::string statusText(const Status& status) {
    std::string text = status.problem.empty() ? "taking records from " + shown(status.pipe) + "\n"
                                              : "STALLED for " + printed(status.stalledSeconds) +
                                                    " s: " + shown(status.problem) + "\n";
    text += std::to_string(status.records) + " records and " + std::to_string(status.repeats) +
            " repeats since the start, " + std::to_string(status.bytesWaiting) +
            " bytes wait in the pipe\nlog: records " + std::to_string(status.log.first) + " to " +
            std::to_string(status.log.last) + ", " + std::to_string(status.log.bytes) + " bytes\n";
    for (const SubscriberFigures& each : status.subscribers) {
        text += each.name + " (" + each.type + "): ";
        text += each.lag == 0 ? "has all"
                              : std::to_string(each.lag) + " records behind, the oldest " +
                                    printed(each.lagSeconds) + " s old";
        if (each.deadLetters > 0) {
            text += ", " + std::to_string(each.deadLetters) + " dead letters";
        }
        if (each.dropped > 0) {
            text += ", " + std::to_string(each.dropped) + " dropped";
        }
        text += (each.problem.empty() ? "" : "; " + shown(each.problem)) + "\n";
    }
    return text;
}

} // namespace relay
