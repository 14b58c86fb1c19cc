// The configuration file, in TOML; its keys are documented in skarn-relay.toml(5).
#include "relay/settings_file.h"

#include "relay/messages.h"
#include "shares/files.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include <grp.h>
#include <pwd.h>
#include <toml++/toml.h>

namespace relay {

namespace {

constexpr std::int64_t day = 86400; // seconds
constexpr std::int64_t most = 1000000000000;

/// Reads one table; whatever is not asked for in it is a mistake.
class TableReader {
public:
    TableReader(const toml::table& fromTable, std::string itsName, std::vector<Mistake>& into)
        : table(fromTable), name(std::move(itsName)), mistakes(into) {}

    ~TableReader() {
        for (const auto& [key, node] : table) {
            if (asked.count(std::string(key.str())) == 0) {
                complain(line(key),
                         "\"" + shown(std::string(key.str())) + "\" is not known" + place());
            }
        }
    }
    TableReader(const TableReader&) = delete;
    TableReader& operator=(const TableReader&) = delete;

    void text(const char* key, std::string& value) {
        if (const toml::node* const node = find(key)) {
            if (const auto found = node->value_exact<std::string>()) {
                value = *found;
            } else {
                complain(line(*node), "\"" + std::string(key) + "\" must be a text");
            }
        }
    }

    void path(const char* key, std::string& value) {
        text(key, value);
        check(key, value.empty() || value.front() == '/', "must be an absolute path");
    }

    void number(const char* key, std::int64_t& value, std::int64_t least, std::int64_t largest) {
        if (const toml::node* const node = find(key)) {
            const auto found = node->value_exact<std::int64_t>();
            if (found && *found >= least && *found <= largest) {
                value = *found;
            } else {
                complain(line(*node), "\"" + std::string(key) + "\" must be a number from " +
                                          std::to_string(least) + " to " + std::to_string(largest));
            }
        }
    }

    /// A number of bytes: one, or a text such as "10G".
    void size(const char* key, std::int64_t& value) {
        withUnits(key, value, {{'K', 1024LL}, {'M', 1024LL * 1024}, {'G', 1024LL * 1024 * 1024}},
                  "a number of bytes, or a text such as \"500M\" or \"10G\"");
    }

    /// A time in seconds: a number of these, or a text such as "7d".
    void seconds(const char* key, std::int64_t& value) {
        withUnits(key, value, {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', day}},
                  "a number of seconds, or a text such as \"90s\", \"10m\", \"2h\" or \"7d\"");
    }

    void mode(const char* key, mode_t& value) {
        std::string digits;
        text(key, digits);
        if (digits.empty()) {
            return;
        }
        unsigned found = 0;
        const char* const end = digits.data() + digits.size();
        const auto [behind, error] = std::from_chars(digits.data(), end, found, 8);
        const bool isMode = error == std::errc() && behind == end && found <= 0777U;
        check(key, isMode, "must be a text such as \"0600\"");
        value = isMode ? static_cast<mode_t>(found) : value;
    }

    std::vector<std::string> texts(const char* key) {
        std::vector<std::string> found;
        const toml::node* const node = find(key);
        const toml::array* const array = node == nullptr ? nullptr : node->as_array();
        if (node != nullptr && array == nullptr) {
            complain(line(*node), "\"" + std::string(key) + "\" must be a list of texts");
        }
        for (std::size_t n = 0; array != nullptr && n < array->size(); ++n) {
            if (const auto each = array->get(n)->value_exact<std::string>()) {
                found.push_back(*each);
            } else {
                complain(line(*array->get(n)),
                         "\"" + std::string(key) + "\" must be a list of texts");
            }
        }
        return found;
    }

    /// Complains of what stands under the key, or of its absence.
    void check(const char* key, bool isRight, const std::string& otherwise) {
        if (!isRight) {
            const toml::node* const node = table.get(key);
            complain(line(node == nullptr ? static_cast<const toml::node&>(table) : *node),
                     "\"" + std::string(key) + "\" " + otherwise);
        }
    }

    bool has(const char* key) const { return table.get(key) != nullptr; }

    const toml::node* find(const char* key) {
        asked.insert(key);
        return table.get(key);
    }

    void complain(std::uint32_t atLine, const std::string& sentence) {
        mistakes.push_back({atLine, sentence});
    }

    template<class Place>
    static std::uint32_t line(const Place& node) {
        return node.source().begin.line;
    }

private:
    std::string place() const { return name.empty() ? "" : " in [" + name + "]"; }

    void withUnits(const char* key, std::int64_t& value, const std::map<char, std::int64_t>& units,
                   const std::string& what) {
        const toml::node* const node = find(key);
        if (node == nullptr) {
            return;
        }
        std::string digits;
        std::int64_t unit = 1;
        if (const auto plain = node->value_exact<std::int64_t>()) {
            digits = std::to_string(*plain);
        } else if (const auto found = node->value_exact<std::string>(); found && !found->empty()) {
            const auto known = units.find(found->back());
            unit = known == units.end() ? 1 : known->second;
            digits = known == units.end() ? *found : found->substr(0, found->size() - 1);
        }
        std::int64_t amount = 0;
        const char* const end = digits.data() + digits.size();
        const auto [behind, error] = std::from_chars(digits.data(), end, amount);
        const bool isRight = !digits.empty() && error == std::errc() && behind == end &&
                             amount >= 1 && amount <= most * 1000 / unit;
        check(key, isRight, "must be " + what);
        value = isRight ? amount * unit : value;
    }

    const toml::table& table;
    const std::string name;
    std::vector<Mistake>& mistakes;
    std::set<std::string, std::less<>> asked;
};

/// Reads a table of the file, if it is there.
void readTable(TableReader& file, const char* key, std::vector<Mistake>& mistakes,
               const std::function<void(TableReader&)>& read) {
    const toml::node* const node = file.find(key);
    if (node == nullptr) {
        return;
    }
    if (const toml::table* const table = node->as_table()) {
        TableReader reader(*table, key, mistakes);
        read(reader);
    } else {
        file.complain(TableReader::line(*node), std::string("[") + key + "] must be a table");
    }
}

bool isUser(const std::string& name) {
    return name.empty() || ::getpwnam(name.c_str()) != nullptr;
}

/// True if only programs of this host can reach the address.
bool isLoopback(const std::string& listen) {
    return listen.rfind("127.", 0) == 0 || listen.rfind("[::1]:", 0) == 0;
}

void readHttp(TableReader& http, HttpSettings& settings) {
    http.path("socket", settings.socket);
    http.check("socket", !settings.socket.empty(), "must not be empty");
    http.text("group", settings.group);
    http.check("group", settings.group.empty() || ::getgrnam(settings.group.c_str()) != nullptr,
               "names no group of this host");
    http.text("listen", settings.listen);
    const std::size_t colon = settings.listen.rfind(':');
    std::int64_t port = 0;
    if (colon != std::string::npos) {
        std::from_chars(settings.listen.data() + colon + 1,
                        settings.listen.data() + settings.listen.size(), port);
    }
    http.check("listen", settings.listen.empty() || (colon > 0 && port > 0 && port < 65536),
               "must be ADDRESS:PORT, such as \"127.0.0.1:9752\" or \"[::1]:9752\"");
    http.path("token_file", settings.tokenFile);
    http.check("listen", port == 0 || isLoopback(settings.listen) || !settings.tokenFile.empty(),
               "is an address that other hosts can reach: that needs a \"token_file\"");
}

void readFilter(TableReader& table, Filter& filter) {
    filter.detectors = table.texts("detectors");
    filter.paths = table.texts("paths");
    if (table.has("kinds")) {
        filter.kinds.clear();
        for (const std::string& name : table.texts("kinds")) {
            const auto kind = kindNamed(name);
            table.check("kinds", kind.has_value(),
                        "has \"" + shown(name) + "\", but only file, usershift, run and other");
            filter.kinds.push_back(kind.value_or(Kind::file));
        }
        table.check("kinds", !filter.kinds.empty(), "must not be empty");
    }
}

void readCommand(TableReader& table, CommandSettings& command) {
    command.words = table.texts("command");
    table.check("command", !command.words.empty() && command.words.front().rfind('/', 0) == 0,
                "must be a list that begins with the program's absolute path");
    std::string input = "arguments";
    table.text("input", input);
    const std::map<std::string, CommandSettings::Input> inputs = {
        {"arguments", CommandSettings::Input::arguments},
        {"nul", CommandSettings::Input::nul},
        {"json", CommandSettings::Input::json}};
    const auto found = inputs.find(input);
    table.check("input", found != inputs.end(), "must be \"arguments\", \"nul\" or \"json\"");
    command.input = found == inputs.end() ? command.input : found->second;
    table.number("batch", command.batch, 1, 10000);
    table.number("concurrency", command.concurrency, 1, 64);
    table.seconds("timeout", command.timeout);
    table.number("attempts", command.attempts, 1, 1000000);
    table.seconds("back_off", command.backOff);
    table.seconds("back_off_limit", command.backOffLimit);
    table.text("user", command.user);
    table.check("user", isUser(command.user), "names no user of this host");
}

void readSubscriber(TableReader& table, SubscriberSettings& settings) {
    table.text("name", settings.name);
    table.check("name", isSubscriberName(settings.name),
                "must be given: up to 64 of A-Z a-z 0-9 . _ - and no dot in front");
    std::string type;
    table.text("type", type);
    const std::map<std::string, SubscriberType> types = {{"http", SubscriberType::http},
                                                         {"pipe", SubscriberType::pipe},
                                                         {"command", SubscriberType::command}};
    const auto found = types.find(type);
    table.check("type", found != types.end(), "must be \"pipe\", \"command\" or \"http\"");
    settings.type = found == types.end() ? settings.type : found->second;
    if (settings.type == SubscriberType::pipe) {
        // The lines as the daemon writes them, its first one included.
        settings.filter.kinds = {Kind::file, Kind::usershift, Kind::run};
    }
    readFilter(table, settings.filter);
    std::string start = "oldest";
    if (const toml::node* const node = table.find("start"); node != nullptr && node->is_integer()) {
        start = std::to_string(node->value_or(std::int64_t{-1}));
    } else {
        table.text("start", start);
    }
    const auto parsed = parseStart(start);
    table.check(
        "start", parsed.has_value(),
        "must be \"oldest\", \"now\", a time such as \"2026-01-31T12:00:00Z\" or \"2h\", or a "
        "sequence number");
    settings.start = parsed.value_or(Start());
    table.number("max_backlog", settings.maxBacklog, 0, most);
    if (settings.type == SubscriberType::pipe) {
        table.path("path", settings.pipePath);
        table.check("path", !settings.pipePath.empty(), "must be given for a pipe");
        table.mode("mode", settings.pipeMode);
        table.text("owner", settings.pipeOwner);
        table.check("owner", isUser(settings.pipeOwner), "names no user of this host");
    }
    if (settings.type == SubscriberType::command) {
        readCommand(table, settings.command);
    }
}

void readSubscribers(TableReader& file, Settings& settings, std::vector<Mistake>& mistakes) {
    const toml::node* const node = file.find("subscriber");
    const toml::array* const array = node == nullptr ? nullptr : node->as_array();
    if (node != nullptr && array == nullptr) {
        file.complain(TableReader::line(*node), "subscribers are written as [[subscriber]]");
    }
    std::set<std::string> names;
    std::set<std::string> paths = {settings.pipe.path};
    for (std::size_t n = 0; array != nullptr && n < array->size(); ++n) {
        const toml::table* const table = array->get(n)->as_table();
        if (table == nullptr) {
            file.complain(TableReader::line(*array->get(n)),
                          "subscribers are written as [[subscriber]]");
            continue;
        }
        TableReader reader(*table, "[subscriber]", mistakes);
        SubscriberSettings subscriber;
        readSubscriber(reader, subscriber);
        reader.check("name", names.insert(subscriber.name).second, "is that of another subscriber");
        reader.check("path",
                     subscriber.pipePath.empty() || paths.insert(subscriber.pipePath).second,
                     "is that of the daemon's pipe, or of another subscriber");
        settings.subscribers.push_back(std::move(subscriber));
    }
}

void readFile(const toml::table& table, LoadedSettings& loaded) {
    Settings& settings = loaded.settings;
    TableReader file(table, "", loaded.mistakes);
    readTable(file, "pipe", loaded.mistakes, [&settings](TableReader& pipe) {
        pipe.path("path", settings.pipe.path);
        pipe.mode("mode", settings.pipe.mode);
        std::int64_t size = settings.pipe.size;
        pipe.size("size", size);
        constexpr std::int64_t largest = 1LL << 30U;
        pipe.check("size", size >= 4096 && size <= largest, "must be from 4096 to 1G");
        settings.pipe.size = static_cast<int>(std::clamp<std::int64_t>(size, 4096, largest));
    });
    readTable(file, "log", loaded.mistakes, [&settings](TableReader& log) {
        log.path("folder", settings.log.folder);
        log.seconds("keep", settings.log.keepSeconds);
        log.size("keep_size", settings.log.keepBytes);
    });
    readTable(file, "http", loaded.mistakes,
              [&settings](TableReader& http) { readHttp(http, settings.http); });
    readTable(file, "daemon", loaded.mistakes, [&settings](TableReader& daemon) {
        daemon.path("configuration", settings.daemonConfiguration);
    });
    readSubscribers(file, settings, loaded.mistakes);
}

} // namespace

LoadedSettings parseSettings(const std::string& text) {
    LoadedSettings loaded;
    try {
        const toml::table table = toml::parse(text);
        readFile(table, loaded);
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
    const auto text = confirming::readTextFile(path);
    if (!text) {
        LoadedSettings failed;
        failed.mistakes.push_back({0, "cannot be read: " + systemError(errno)});
        return failed;
    }
    return parseSettings(*text);
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
