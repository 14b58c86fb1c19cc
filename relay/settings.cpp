// What can be configured, and its defaults; the file that says it, in TOML, whose keys are
// documented in skarn-relay.toml(5).
#include "relay/settings.h"

#include "relay/messages.h"
#include "relay/run.h"
#include "shares/files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>

#include <grp.h>
#include <pwd.h>
#include <toml++/toml.h>
#include <unistd.h>

namespace relay {

namespace {

constexpr std::int64_t most = 1000000000000;
constexpr std::int64_t mega = 1024LL * 1024;

/// Takes over the value of a key. Returns what it must be if it is not that; else nothing.
using Reader = std::function<std::string(const toml::node&)>;

/// The keys that a table may have.
using Keys = std::map<std::string, Reader, std::less<>>;

const std::map<std::string_view, CommandSettings::Input> inputs = {
    {"arguments", CommandSettings::Input::arguments},
    {"nul", CommandSettings::Input::nul},
    {"json", CommandSettings::Input::json}};

const std::map<std::string_view, SubscriberType> types = {{"http", SubscriberType::http},
                                                          {"pipe", SubscriberType::pipe},
                                                          {"command", SubscriberType::command},
                                                          {"amqp", SubscriberType::amqp},
                                                          {"kafka", SubscriberType::kafka}};
constexpr const char* typeRule = "must be \"http\", \"pipe\", \"command\", \"amqp\" or \"kafka\"";

/// Message brokers can be left out when skarn-relay is built.
const std::set<SubscriberType> leftOut = {
#ifndef SKARN_RELAY_AMQP
    SubscriberType::amqp,
#endif
#ifndef SKARN_RELAY_KAFKA
    SubscriberType::kafka,
#endif
};

const std::map<std::string_view, Checksum> checksums = {{"xxh3", Checksum::xxh3},
                                                        {"sha256", Checksum::sha256}};

template<class Place>
std::uint32_t lineOf(const Place& place) {
    return place.source().begin.line;
}

Reader text(std::string& value, std::function<bool(const std::string&)> isRight,
            const char* otherwise) {
    return [&value, isRight = std::move(isRight), otherwise](const toml::node& node) {
        const auto found = node.value_exact<std::string>();
        value = found.value_or(value);
        return !found ? "must be a text" : !isRight(*found) ? otherwise : "";
    };
}

Reader path(std::string& value) {
    return text(
        value, [](const std::string& name) { return !name.empty() && name.front() == '/'; },
        "must be an absolute path");
}

/// A path, or an empty text for none.
Reader optionalPath(std::string& value) {
    return text(
        value, [](const std::string& name) { return name.empty() || name.front() == '/'; },
        "must be an absolute path");
}

Reader user(std::string& value) {
    return text(
        value,
        [](const std::string& name) { return name.empty() || ::getpwnam(name.c_str()) != nullptr; },
        "names no user of this host");
}

Reader group(std::string& value) {
    return text(
        value,
        [](const std::string& name) { return name.empty() || ::getgrnam(name.c_str()) != nullptr; },
        "names no group of this host");
}

template<class Choice>
Reader oneOf(const std::map<std::string_view, Choice>& choices, Choice& value,
             const char* otherwise) {
    return [&choices, &value, otherwise](const toml::node& node) {
        const auto found = choices.find(node.value_exact<std::string_view>().value_or(""));
        value = found == choices.end() ? value : found->second;
        return found == choices.end() ? otherwise : "";
    };
}

Reader number(std::int64_t& value, std::int64_t least, std::int64_t largest) {
    return [&value, least, largest](const toml::node& node) {
        const auto found = node.value_exact<std::int64_t>();
        if (!found || *found < least || *found > largest) {
            return "must be a number from " + std::to_string(least) + " to " +
                   std::to_string(largest);
        }
        value = *found;
        return std::string();
    };
}

/// A number of units of one, or a text: a number with a letter that stands for another unit.
Reader quantity(std::int64_t& value, const std::map<char, std::int64_t>& units, const char* what) {
    return [&value, units, what](const toml::node& node) {
        std::string digits = node.value_exact<std::string>().value_or("");
        if (const auto plain = node.value_exact<std::int64_t>()) {
            digits = std::to_string(*plain);
        }
        const auto unit = digits.empty() ? units.end() : units.find(digits.back());
        const std::int64_t factor = unit == units.end() ? 1 : unit->second;
        if (unit != units.end()) {
            digits.pop_back();
        }
        const auto amount = parseNumber(digits);
        if (!amount || *amount < 1 || *amount > most * 1000 / factor) {
            return std::string("must be ") + what;
        }
        value = *amount * factor;
        return std::string();
    };
}

Reader size(std::int64_t& value) {
    return quantity(value, {{'K', 1024}, {'M', mega}, {'G', 1024 * mega}},
                    "a number of bytes, or a text such as \"500M\" or \"10G\"");
}

Reader seconds(std::int64_t& value) {
    return quantity(value, {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}},
                    "a number of seconds, or a text such as \"90s\", \"10m\", \"2h\" or \"7d\"");
}

Reader flag(bool& value) {
    return [&value](const toml::node& node) {
        value = node.value_exact<bool>().value_or(value);
        return node.is_boolean() ? "" : "must be true or false";
    };
}

/// A pattern that finds runs.
Reader pattern(std::string& value) {
    return [&value](const toml::node& node) {
        const auto found = node.value_exact<std::string>();
        value = found.value_or(value);
        return !found ? "must be a text" : RunPattern(*found).problem();
    };
}

Reader mode(mode_t& value) {
    return [&value](const toml::node& node) {
        const std::string digits = node.value_exact<std::string>().value_or("");
        const char* const end = digits.data() + digits.size();
        mode_t found = 0;
        const auto [behind, error] = std::from_chars(digits.data(), end, found, 8);
        if (error != std::errc() || behind != end || found > 0777U) {
            return "must be a text such as \"0600\"";
        }
        value = found;
        return "";
    };
}

Reader texts(std::vector<std::string>& value) {
    return [&value](const toml::node& node) {
        const toml::array* const array = node.as_array();
        if (array == nullptr || (!array->empty() && !array->is_homogeneous<std::string>())) {
            return "must be a list of texts";
        }
        value.clear();
        for (const toml::node& each : *array) {
            value.push_back(each.value_or(std::string()));
        }
        return "";
    };
}

Reader options(BrokerSettings& broker) {
    return [&broker](const toml::node& node) -> std::string {
        const toml::table* const table = node.as_table();
        if (table == nullptr || (!table->empty() && !table->is_homogeneous<std::string>())) {
            return "must be a table of texts";
        }
        for (const auto& [key, each] : *table) {
            broker.options[std::string(key.str())] = each.value_or(std::string());
        }
#ifdef SKARN_RELAY_KAFKA
        return mistakeForKafka(broker);
#else
        return {};
#endif
    };
}

bool isMessageKey(const std::string& key) {
    return filledKey(key, {{"detector", ""}, {"host", ""}, {"kind", ""}, {"run", ""}})
               .find_first_of("{}") == std::string::npos;
}

bool isBrokerUrl(const std::string& url) {
    return (url.rfind("amqp://", 0) == 0 || url.rfind("amqps://", 0) == 0) &&
           url.find('@') == std::string::npos;
}

bool isGiven(const std::string& name) {
    return !name.empty();
}

std::string nameOfThisHost() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    ::gethostname(name.data(), name.size() - 1);
    return name.data();
}

Reader kinds(std::vector<Kind>& value) {
    return [&value](const toml::node& node) -> std::string {
        std::vector<std::string> names;
        const std::string problem = texts(names)(node);
        if (!problem.empty() || names.empty()) {
            return names.empty() && problem.empty() ? "must not be empty" : problem;
        }
        value.clear();
        for (const std::string& name : names) {
            const auto kind = kindNamed(name);
            if (!kind) {
                return "has \"" + shown(name) + "\", but only file, usershift, run and other are";
            }
            value.push_back(*kind);
        }
        return {};
    };
}

Reader start(Start& value) {
    return [&value](const toml::node& node) {
        const auto plain = node.value_exact<std::int64_t>();
        const auto found = parseStart(plain ? std::to_string(*plain)
                                            : node.value_exact<std::string>().value_or(""));
        value = found.value_or(value);
        return found ? ""
                     : "must be \"oldest\", \"now\", a time such as \"2026-01-31T12:00:00Z\" or "
                       "\"2h\", or a sequence number";
    };
}

/// The port of ADDRESS:PORT; 0 if the text is none of that form.
std::int64_t portOf(const std::string& listen) {
    const std::size_t colon = listen.rfind(':');
    const bool isAddress = colon != std::string::npos && colon > 0;
    const auto port = isAddress ? parseNumber(listen.substr(colon + 1)) : std::nullopt;
    return port && *port < 65536 ? *port : 0;
}

Reader address(std::string& value) {
    return text(
        value, [](const std::string& listen) { return listen.empty() || portOf(listen) > 0; },
        "must be ADDRESS:PORT, such as \"127.0.0.1:9752\" or \"[::1]:9752\"");
}

/// True if only programs of this host can reach the address.
bool isLoopback(const std::string& listen) {
    return listen.rfind("127.", 0) == 0 || listen.rfind("[::1]:", 0) == 0;
}

/// Reads a file, and remembers what is wrong in it.
class FileReader {
public:
    explicit FileReader(LoadedSettings& into) : settings(into.settings), mistakes(into.mistakes) {}

    void read(const toml::table& file) {
        std::int64_t pipeSize = settings.pipe.size;
        RunSettings& runs = settings.runs;
        const std::map<std::string_view, Keys> tables = {
            {"pipe",
             {{"path", path(settings.pipe.path)},
              {"mode", mode(settings.pipe.mode)},
              {"size", size(pipeSize)}}},
            {"log",
             {{"folder", path(settings.log.folder)},
              {"keep", seconds(settings.log.keepSeconds)},
              {"keep_size", size(settings.log.keepBytes)}}},
            {"http",
             {{"socket", path(settings.http.socket)},
              {"group", group(settings.http.group)},
              {"listen", address(settings.http.listen)},
              {"token_file", optionalPath(settings.http.tokenFile)},
              {"figures", optionalPath(settings.http.figures)}}},
            {"runs",
             {{"pattern", pattern(runs.pattern)},
              {"end_sentinel", pattern(runs.sentinel)},
              {"end_next", flag(runs.isEndedByNext)},
              {"end_quiet", seconds(runs.quiet)},
              {"settle", seconds(runs.settle)},
              {"first_index", number(runs.firstIndex, 0, 1)},
              {"checksum", oneOf(checksums, runs.checksum, "must be \"xxh3\" or \"sha256\"")},
              {"checksum_rate", size(runs.checksumRate)},
              {"checksum_threads", number(runs.checksumThreads, 1, 16)}}},
            {"daemon", {{"configuration", optionalPath(settings.daemonConfiguration)}}}};
        Keys keys = {{"subscriber", [this](const toml::node& node) { return subscribers(node); }}};
        for (const auto& each : tables) {
            const std::string name(each.first);
            keys[name] = [this, &inTable = each.second,
                          where = " in [" + name + "]"](const toml::node& node) {
                const toml::table* const table = node.as_table();
                if (table != nullptr) {
                    readTable(*table, inTable, where);
                }
                return table != nullptr ? "" : "must be a table";
            };
        }
        readTable(file, keys, "");
        check(file["pipe"]["size"].node(), pipeSize >= 4096 && pipeSize <= 1024 * mega,
              "\"size\" must be from 4096 to 1G");
        settings.pipe.size =
            static_cast<int>(std::clamp<std::int64_t>(pipeSize, 4096, 1024 * mega));
        check(file["runs"].node(), !runs.pattern.empty(), "[runs] needs a \"pattern\"");
        runs.forgotten = settings.log.keepSeconds;
        const std::string& listen = settings.http.listen;
        check(file["http"]["listen"].node(),
              portOf(listen) == 0 || isLoopback(listen) || !settings.http.tokenFile.empty(),
              "\"listen\" is an address that other hosts can reach: that needs a \"token_file\"");
    }

private:
    void readTable(const toml::table& table, const Keys& keys, const std::string& where) {
        for (const auto& [key, node] : table) {
            const auto known = keys.find(key.str());
            const std::string name = "\"" + shown(std::string(key.str())) + "\" ";
            if (known == keys.end()) {
                mistakes.push_back(
                    {lineOf(key), std::string(name).append("is not known").append(where)});
                continue;
            }
            const std::string problem = known->second(node);
            check(&node, problem.empty(), std::string(name).append(problem));
        }
    }

    /// Complains of the node, if there is one.
    void check(const toml::node* node, bool isRight, const std::string& sentence) {
        if (node != nullptr && !isRight) {
            mistakes.push_back({lineOf(*node), sentence});
        }
    }

    std::string subscribers(const toml::node& node) {
        const toml::array* const array = node.as_array();
        if (array == nullptr || !array->is_array_of_tables()) {
            return "is written as [[subscriber]]";
        }
        for (const toml::node& each : *array) {
            readSubscriber(*each.as_table());
        }
        return {};
    }

    void readSubscriber(const toml::table& table) {
        SubscriberSettings subscriber;
        CommandSettings& command = subscriber.command;
        const toml::node* const typeNode = table.get("type");
        const Reader type = oneOf(types, subscriber.type, typeRule);
        check(&table, typeNode != nullptr, std::string("\"type\" ") + typeRule);
        if (typeNode != nullptr) {
            type(*typeNode);
        }
        check(typeNode, leftOut.count(subscriber.type) == 0,
              std::string("this skarn-relay was built without \"")
                  .append(nameOf(subscriber.type))
                  .append("\""));
        Keys keys = {{"name", text(subscriber.name, isSubscriberName, nameRule)},
                     {"type", type},
                     {"detectors", texts(subscriber.filter.detectors)},
                     {"paths", texts(subscriber.filter.paths)},
                     {"kinds", kinds(subscriber.filter.kinds)},
                     {"start", start(subscriber.start)},
                     {"max_backlog", number(subscriber.maxBacklog, 0, most)}};
        if (subscriber.type == SubscriberType::pipe) {
            // The lines as the daemon writes them, its first one included.
            subscriber.filter.kinds = {Kind::file, Kind::usershift, Kind::run};
            keys.insert({{"path", path(subscriber.pipePath)},
                         {"mode", mode(subscriber.pipeMode)},
                         {"owner", user(subscriber.pipeOwner)}});
        }
        if (subscriber.type == SubscriberType::command) {
            keys.insert({{"command", texts(command.words)},
                         {"input", oneOf(inputs, command.input,
                                         "must be \"arguments\", \"nul\" or \"json\"")},
                         {"batch", number(command.batch, 1, 10000)},
                         {"concurrency", number(command.concurrency, 1, 64)},
                         {"timeout", seconds(command.timeout)},
                         {"attempts", number(command.attempts, 1, 1000000)},
                         {"back_off", seconds(command.backOff)},
                         {"back_off_limit", seconds(command.backOffLimit)},
                         {"user", user(command.user)}});
        }
        BrokerSettings& broker = subscriber.broker;
        const bool isAmqp = subscriber.type == SubscriberType::amqp;
        const bool isKafka = subscriber.type == SubscriberType::kafka;
        if (isAmqp || isKafka) {
            broker.host = nameOfThisHost();
            keys.insert(
                {{"host", text(broker.host, isSubscriberName, nameRule)},
                 {"key", text(broker.key, isMessageKey,
                              "may have {detector}, {run}, {kind} and {host}, no other braces")},
                 {"password_file", path(broker.passwordFile)},
                 {"back_off", seconds(broker.backOff)},
                 {"back_off_limit", seconds(broker.backOffLimit)}});
        }
        if (isAmqp) {
            keys.insert({{"broker",
                          text(broker.broker, isBrokerUrl,
                               "must be a URL such as \"amqps://HOST/VHOST\", without a password")},
                         {"exchange", text(broker.exchange, isGiven, "must not be empty")},
                         {"queue", text(broker.queue, isGiven, "must not be empty")},
                         {"declare", flag(broker.declare)},
                         {"user", text(broker.user, isGiven, "must not be empty")},
                         {"ca_file", path(broker.caFile)},
                         {"certificate", path(broker.certificate)},
                         {"private_key", path(broker.privateKey)},
                         {"heartbeat", number(broker.heartbeat, 1, 3600)}});
        }
        if (isKafka) {
            keys.insert({{"broker", text(broker.broker, isGiven, "must not be empty")},
                         {"topic", text(broker.topic, isGiven, "must not be empty")},
                         {"options", options(broker)}});
        }
        readTable(table, keys, " in [[subscriber]]");
        checkSubscriber(table, subscriber);
        settings.subscribers.push_back(std::move(subscriber));
    }

    void checkSubscriber(const toml::table& table, const SubscriberSettings& subscriber) {
        check(&table, table.contains("name"), std::string("\"name\" ") + nameRule);
        check(table.get("name"), names.insert(subscriber.name).second,
              "\"name\" is that of another subscriber");
        if (subscriber.type == SubscriberType::pipe) {
            check(&table, table.contains("path"), "\"path\" must be given for a pipe");
            check(table.get("path"),
                  subscriber.pipePath != settings.pipe.path &&
                      pipePaths.insert(subscriber.pipePath).second,
                  "\"path\" is that of the daemon's pipe, or of another subscriber");
        }
        if (subscriber.type == SubscriberType::command) {
            const std::vector<std::string>& words = subscriber.command.words;
            const toml::node* const node = table.get("command");
            check(node == nullptr ? &table : node,
                  !words.empty() && words.front().rfind('/', 0) == 0,
                  "\"command\" must be a list that begins with the program's absolute path");
        }
        const bool isAmqp = subscriber.type == SubscriberType::amqp;
        const bool isKafka = subscriber.type == SubscriberType::kafka;
        check(&table, !(isAmqp || isKafka) || table.contains("broker"), "\"broker\" must be given");
        check(&table, !isAmqp || table.contains("exchange") != table.contains("queue"),
              "either an \"exchange\" or a \"queue\" must be given");
        check(&table, !isKafka || table.contains("topic"), "\"topic\" must be given");
    }

    static constexpr const char* nameRule =
        "must be given: up to 64 of A-Z a-z 0-9 . _ - and no dot in front";

    Settings& settings;
    std::vector<Mistake>& mistakes;
    std::set<std::string> names;
    std::set<std::string> pipePaths;
};

} // namespace

std::string_view nameOf(SubscriberType type) {
    const auto found = std::find_if(types.begin(), types.end(),
                                    [type](const auto& each) { return each.second == type; });
    return found->first;
}

std::string filledKey(std::string key, const std::map<std::string, std::string>& values) {
    for (const auto& [name, value] : values) {
        const std::string place = "{" + name + "}";
        const std::string filling = value.empty() ? "-" : value;
        for (std::size_t at = 0; (at = key.find(place, at)) != std::string::npos;) {
            key.replace(at, place.size(), filling);
            at += filling.size(); // whatever stands in it stays
        }
    }
    return key;
}

bool isSubscriberName(const std::string& name) {
    constexpr std::size_t longest = 64;
    constexpr std::string_view allowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    return !name.empty() && name.size() <= longest && name.front() != '.' &&
           name.find_first_not_of(allowed) == std::string::npos;
}

LoadedSettings parseSettings(const std::string& text) {
    LoadedSettings loaded;
    try {
        FileReader(loaded).read(toml::parse(text));
    } catch (const toml::parse_error& error) {
        loaded.mistakes.push_back(
            {error.source().begin.line, shown(std::string(error.description()))});
    }
    std::stable_sort(
        loaded.mistakes.begin(), loaded.mistakes.end(),
        [](const Mistake& one, const Mistake& other) { return one.line < other.line; });
    return loaded;
}

LoadedSettings loadSettings(const std::string& path) {
    if (const auto text = confirming::readTextFile(path)) {
        return parseSettings(*text);
    }
    return {{}, {{0, "cannot be read: " + systemError(errno)}}};
}

std::string mistakesText(const std::string& path, const std::vector<Mistake>& mistakes) {
    std::string text;
    for (const Mistake& each : mistakes) {
        text += path + (each.line > 0 ? ":" + std::to_string(each.line) : "") + ": " +
                each.sentence + "\n";
    }
    return text;
}

} // namespace relay
