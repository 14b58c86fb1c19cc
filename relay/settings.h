// What can be configured, and its defaults; the file that says it, in TOML, whose keys are
// documented in skarn-relay.toml(5).
#pragma once

#include "relay/filter.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace relay {

/// The pipe that the daemon writes into.
struct PipeSettings {
    std::string path = "/var/run/vantrel_orbelin_files";
    mode_t mode = 0600;     // of one that the relay makes
    int size = 1024 * 1024; // bytes that it holds
};

/// The log of announcements.
struct LogSettings {
    std::string folder = "/var/lib/skarn/relay";
    std::int64_t keepSeconds = 7LL * 86400;
    std::int64_t keepBytes = 10LL * 1024 * 1024 * 1024;
};

/// Where the relay serves its subscribers over HTTP.
struct HttpSettings {
    std::string socket = "/run/skarn-relay/socket";
    std::string group;     // whose members may connect, beside root; empty: root alone
    std::string listen;    // ADDRESS:PORT; empty: the socket alone
    std::string tokenFile; // what a client at ADDRESS:PORT must know; needed off the loopback
    std::string figures = "/run/skarn-look/figures"; // of the daemon, for the page
};

/// What a command is run with.
struct CommandSettings {
    enum class Input { arguments, nul, json };

    std::vector<std::string> words;
    Input input = Input::arguments;
    std::int64_t batch = 1;       // records that one run gets at most
    std::int64_t concurrency = 1; // runs at a time
    std::int64_t timeout = 60;    // seconds; then it is ended
    std::int64_t attempts = 5;    // for each record, before it is a dead letter
    std::int64_t backOff = 1;     // seconds before the second attempt, doubled before each one
    std::int64_t backOffLimit = 300;
    std::string user; // empty: the relay's own
};

/// A message broker, and what it gets.
struct BrokerSettings {
    std::string broker;   // a URL for AMQP, HOST:PORT,... for Kafka
    std::string exchange; // for AMQP: this or a queue
    std::string queue;
    bool declare = true; // make it, or make sure that it is durable
    std::string topic;   // for Kafka
    std::string key = "{detector}";
    std::string host;           // this one's name in the messages' IDs
    std::string user = "guest"; // for AMQP
    std::string passwordFile;   // empty: "guest" for AMQP, none for Kafka
    std::string caFile = "/etc/ssl/certs/ca-certificates.crt";
    std::string certificate; // of ours, for a broker that asks for one
    std::string privateKey;
    std::int64_t heartbeat = 10; // seconds
    std::int64_t backOff = 1;    // seconds before the second attempt, doubled before each one
    std::int64_t backOffLimit = 60;
    std::map<std::string, std::string> options; // of Kafka's library
};

enum class SubscriberType { http, pipe, command, amqp, kafka };

struct SubscriberSettings {
    std::string name;
    SubscriberType type = SubscriberType::http;
    Filter filter;
    Start start;
    std::int64_t maxBacklog = 0; // records that are kept for it; 0: as many as it takes

    std::string pipePath; // of a pipe
    mode_t pipeMode = 0600;
    std::string pipeOwner; // a user's name; empty: the relay's own
    CommandSettings command;
    BrokerSettings broker;
};

/// What a digest of a file's contents is made by.
enum class Checksum { none, xxh3, sha256 };

/// Which files belong together, and when they are all there.
struct RunSettings {
    std::string pattern;         // finds a path's run; empty: there are no runs
    std::string sentinel;        // finds the run whose end a path announces; empty: none does
    bool isEndedByNext = false;  // by the first file of another run
    std::int64_t quiet = 0;      // seconds without a file after which it ends; 0: as `forgotten`
    std::int64_t settle = 5;     // seconds without a file between an announced end and the end
    std::int64_t firstIndex = 1; // of each detector; one that has a lower one begins with that
    std::int64_t forgotten = 7LL * 86400; // seconds after which nobody will end it any more
    Checksum checksum = Checksum::none;
    std::int64_t checksumRate = 0; // bytes a second, of all threads; 0: as fast as it goes
    std::int64_t checksumThreads = 1;
};

struct Settings {
    PipeSettings pipe;
    LogSettings log;
    HttpSettings http;
    std::string daemonConfiguration; // empty: where the daemon looks for it
    std::vector<SubscriberSettings> subscribers;
    RunSettings runs;
};

std::string_view nameOf(SubscriberType type);

/// The key of a message: what stands for {NAME}; "-" for what is empty.
std::string filledKey(std::string key, const std::map<std::string, std::string>& values);

#ifdef SKARN_RELAY_KAFKA
/// What its library has against the options; empty if nothing.
std::string mistakeForKafka(const BrokerSettings& settings);
#endif

/// True if it can name a subscriber: letters, digits and ._- ; 1 to 64 of them, no dot in front.
bool isSubscriberName(const std::string& name);

/// What is wrong in a configuration file.
struct Mistake {
    std::uint32_t line = 0; // 0: it has none, for the file can't be read
    std::string sentence;
};

struct LoadedSettings {
    Settings settings;
    std::vector<Mistake> mistakes; // in the order of their lines
};

/// Where the configuration is looked for if no other file is named.
constexpr const char* usualSettingsFile = "/etc/skarn/relay.toml";

/// Reads the file. Every mistake is found, not only the first; a key that is not known is one.
LoadedSettings loadSettings(const std::string& path);

/// The same for a text.
LoadedSettings parseSettings(const std::string& text);

/// "FILE:LINE: SENTENCE", a line for each.
std::string mistakesText(const std::string& path, const std::vector<Mistake>& mistakes);

} // namespace relay
