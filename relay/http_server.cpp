// Serving subscribers over HTTP: their records, acknowledgements, live streams, and the status.
#include "relay/http_server.h"

#include "relay/messages.h"
#include "relay/record_json.h"
#include "shares/files.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <grp.h>
#include <httplib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace relay {

namespace {

using httplib::Request;
using httplib::Response;

constexpr std::size_t threads = 64;
constexpr int mostWaiting = 48;          // of these; the others answer what need not wait
constexpr std::int64_t longestWait = 60; // seconds
constexpr std::int64_t usualLimit = 1000;
constexpr std::int64_t largestLimit = 10000;
constexpr std::size_t largestBody = 65536;
constexpr int writeTimeout = 30; // seconds
constexpr auto streamPause = std::chrono::milliseconds(1000);
constexpr int pausesBetweenSigns = 15;

/// What a client did wrong, and the status that tells it.
struct Refusal {
    int status;
    std::string sentence;
};

void answerError(Response& response, int status, const std::string& sentence) {
    response.status = status;
    response.set_content(
        "{\"error\":" + jsonString(isUtf8(sentence) ? sentence : percentEncoded(sentence)) + "}\n",
        "application/json");
}

void answerJson(Response& response, const std::string& text) {
    response.set_content(text, "application/json");
}

std::optional<std::int64_t> parseNumber(const std::string& text) {
    std::int64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && behind == end && value >= 0 ? std::optional(value)
                                                               : std::nullopt;
}

std::int64_t numberIn(const Request& request, const char* name, std::int64_t otherwise) {
    if (!request.has_param(name)) {
        return otherwise;
    }
    const auto number = parseNumber(request.get_param_value(name));
    if (!number) {
        throw Refusal{400, std::string(name) + " must be a number, 0 or more"};
    }
    return *number;
}

std::vector<std::string> textsIn(const Request& request, const char* name) {
    std::vector<std::string> texts;
    for (std::size_t n = 0; n < request.get_param_value_count(name); ++n) {
        texts.push_back(request.get_param_value(name, n));
        if (texts.back().find('\n') != std::string::npos) {
            throw Refusal{400, std::string(name) + " must have no line feed"};
        }
    }
    return texts;
}

Filter filterIn(const Request& request) {
    Filter filter;
    filter.detectors = textsIn(request, "detector");
    filter.paths = textsIn(request, "path");
    if (const auto names = textsIn(request, "kind"); !names.empty()) {
        filter.kinds.clear();
        for (const std::string& name : names) {
            const auto kind = kindNamed(name);
            if (!kind) {
                throw Refusal{400, "kind must be file, usershift, run or other"};
            }
            filter.kinds.push_back(*kind);
        }
    }
    return filter;
}

/// Where to begin: with the oldest record if the request does not say.
Start startIn(const Request& request, const char* name) {
    const auto start =
        parseStart(request.has_param(name) ? request.get_param_value(name) : "oldest");
    if (!start) {
        throw Refusal{400, std::string(name) + " must be oldest, now, a time or a sequence number"};
    }
    return *start;
}

/// The lines of JSON for a page; what the client is to ask for next stands in a header.
void answerPage(Response& response, const Page& page) {
    std::string text;
    for (const Record& each : page.records) {
        appendJson(each, text);
        text += '\n';
    }
    response.set_header("Skarn-Seen-To", std::to_string(page.seenTo));
    response.set_content(text, "application/x-ndjson");
}

std::string deadLetterJson(const DeadLetter& letter) {
    const bool isText = isUtf8(letter.path);
    return "{\"seq\":" + std::to_string(letter.sequence) +
           (isText ? ",\"path\":" + jsonString(letter.path)
                   : ",\"path_percent\":" + jsonString(percentEncoded(letter.path))) +
           ",\"attempts\":" + std::to_string(letter.attempts) + ",\"since\":\"" +
           secondsText(letter.since) + "\",\"reason\":" +
           jsonString(isUtf8(letter.reason) ? letter.reason : percentEncoded(letter.reason)) +
           "}\n";
}

/// Equal texts, in a time that tells nothing of where they differ.
bool isSameToken(const std::string& one, const std::string& other) {
    unsigned difference = one.size() == other.size() ? 0U : 1U;
    for (std::size_t at = 0; at < std::min(one.size(), other.size()); ++at) {
        difference |= static_cast<unsigned char>(one[at]) ^ static_cast<unsigned char>(other[at]);
    }
    return difference == 0;
}

/// Makes way for a socket at the path: removes one that nobody listens at any more.
void clearSocketPath(const std::string& path) {
    const Descriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw std::runtime_error("the path of the socket is too long: " + path);
    }
    path.copy(address.sun_path, path.size());
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        throw std::runtime_error("another program listens at " + path);
    }
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
        ::unlink(path.c_str());
    }
    const std::string folder = path.substr(0, path.rfind('/'));
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
        throw std::runtime_error("cannot make " + folder + ": " + systemError(errno));
    }
}

/// Lets a group connect, too.
void shareSocket(const std::string& path, const std::string& groupName) {
    if (groupName.empty()) {
        return;
    }
    const group* const entry = ::getgrnam(groupName.c_str());
    if (entry == nullptr) {
        throw std::runtime_error("there is no group " + groupName);
    }
    if (::chown(path.c_str(), static_cast<uid_t>(-1), entry->gr_gid) != 0 ||
        ::chmod(path.c_str(), 0660) != 0) {
        throw std::runtime_error("cannot give " + path + " to the group " + groupName + ": " +
                                 systemError(errno));
    }
}

} // namespace

class HttpServer::Implementation {
public:
    Implementation(const HttpSettings& settings, const Served& servedParts)
        : served(servedParts), socketPath(settings.socket) {
        if (!settings.tokenFile.empty()) {
            readToken(settings.tokenFile);
        }
        prepare(local, false);
        clearSocketPath(socketPath);
        const mode_t mask = ::umask(0177);
        local.set_address_family(AF_UNIX);
        const bool isBound = local.bind_to_port(socketPath, 80);
        const int error = errno;
        ::umask(mask);
        if (!isBound) {
            throw std::runtime_error("cannot listen at " + socketPath + ": " + systemError(error));
        }
        shareSocket(socketPath, settings.group);
        if (!settings.listen.empty()) {
            prepare(remote, true);
            bindRemote(settings.listen);
            remoteThread = std::thread([this] { remote.listen_after_bind(); });
        }
        localThread = std::thread([this] { local.listen_after_bind(); });
    }

    ~Implementation() {
        isEnding = true;
        served.log.interrupt();
        for (auto [server, thread] :
             {std::pair(&local, &localThread), std::pair(&remote, &remoteThread)}) {
            if (thread->joinable()) {
                while (!server->is_running()) {
                    std::this_thread::yield(); // it is about to begin
                }
                server->stop();
                thread->join();
            }
        }
        ::unlink(socketPath.c_str());
    }
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;

private:
    /// Counts those that wait, for as long as it lives; too many are refused.
    class Waiting {
    public:
        explicit Waiting(std::atomic<int>& counter) : count(counter) {
            if (++count > mostWaiting) {
                --count;
                throw Refusal{503, "too many clients wait already"};
            }
        }
        ~Waiting() { --count; }
        Waiting(const Waiting&) = delete;
        Waiting& operator=(const Waiting&) = delete;

    private:
        std::atomic<int>& count;
    };

    void readToken(const std::string& file) {
        const auto text = confirming::readTextFile(file);
        if (!text) {
            throw std::runtime_error("cannot read the token in " + file + ": " +
                                     systemError(errno));
        }
        token = text->substr(0, text->find_first_of("\r\n"));
        if (token.size() < 16) {
            throw std::runtime_error("the token in " + file + " must have 16 characters or more");
        }
    }

    void bindRemote(const std::string& listen) {
        const std::size_t colon = listen.rfind(':');
        std::string host = listen.substr(0, colon);
        if (host.size() > 2 && host.front() == '[') {
            host = host.substr(1, host.size() - 2);
        }
        if (!remote.bind_to_port(host, std::stoi(listen.substr(colon + 1)))) {
            throw std::runtime_error("cannot listen at " + listen + ": " + systemError(errno));
        }
    }

    void prepare(httplib::Server& server, bool isRemote) {
        server.new_task_queue = [] { return new httplib::ThreadPool(threads); };
        server.set_payload_max_length(largestBody);
        server.set_write_timeout(writeTimeout);
        server.set_exception_handler(
            [](const Request&, Response& response, const std::exception_ptr& thrown) {
                try {
                    std::rethrow_exception(thrown);
                } catch (const Refusal& refusal) {
                    answerError(response, refusal.status, refusal.sentence);
                } catch (const std::exception& error) {
                    answerError(response, 503, error.what());
                } catch (...) {
                    answerError(response, 500, "unknown");
                }
            });
        server.set_error_handler([](const Request&, Response& response) {
            if (response.body.empty()) {
                answerError(response, response.status, "there is nothing of that name");
            }
        });
        server.set_pre_routing_handler(
            [this, isRemote](const Request& request, Response& response) {
                if (isRemote && !token.empty() &&
                    !isSameToken(request.get_header_value("Authorization"), "Bearer " + token)) {
                    answerError(response, 401, "this address wants a token");
                    return httplib::Server::HandlerResponse::Handled;
                }
                return httplib::Server::HandlerResponse::Unhandled;
            });
        addRoutes(server);
    }

    void tellStatus(const Request& request, Response& response) {
        if (request.get_param_value("format") == "text") {
            response.set_content(statusText(served.status()), "text/plain");
        } else {
            answerJson(response, statusJson(served.status()));
        }
    }

    void tellMetrics(const Request&, Response& response) {
        response.set_content(metricsText(served.status()), "text/plain; version=0.0.4");
    }

    void tellRecords(const Request& request, Response& response) {
        std::int64_t after = numberIn(request, "after", -1);
        if (after < 0) {
            after = served.log.positionOf(startIn(request, "since"));
        }
        const Filter filter = filterIn(request);
        answerPage(response, await(request, after, [&](std::size_t limit) {
                       return served.log.read(after, filter, limit);
                   }));
    }

    /// Reads until there is something, for as long as the request says. `after` follows what was
    /// looked at in vain.
    template<class Read>
    Page await(const Request& request, std::int64_t& after, Read read) {
        const auto limit = static_cast<std::size_t>(
            std::clamp<std::int64_t>(numberIn(request, "limit", usualLimit), 1, largestLimit));
        const std::int64_t seconds = std::min(numberIn(request, "wait", 0), longestWait);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        std::optional<Waiting> waiting;
        for (;;) {
            Page page = read(limit);
            const bool isMore = page.seenTo > after;
            after = page.seenTo;
            if (!page.records.empty() || isEnding) {
                return page;
            }
            if (isMore) {
                continue; // there may be some behind what was looked at
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return page;
            }
            if (!waiting) {
                waiting.emplace(waitingClients);
            }
            served.log.waitBehind(after, left);
        }
    }

    Subscribers::Shared subscriber(const Request& request) const {
        auto found = served.subscribers.find(request.matches[1].str());
        if (!found) {
            throw Refusal{404, "there is no subscriber " + request.matches[1].str()};
        }
        return found;
    }

    Subscribers::Shared httpSubscriber(const Request& request) const {
        auto found = subscriber(request);
        if (found->settings.type != SubscriberType::http) {
            throw Refusal{409, "subscriber " + found->settings.name + " is a " +
                                   std::string(nameOf(found->settings.type)) +
                                   ": the relay itself delivers to it"};
        }
        return found;
    }

    using Answer = void (Implementation::*)(const Request&, Response&);

    httplib::Server::Handler by(Answer answer) {
        return [this, answer](const Request& request, Response& response) {
            (this->*answer)(request, response);
        };
    }

    /// For requests that may have a body, which nobody wants. One that announces none has none: the
    /// library itself would wait for it until the client leaves.
    httplib::Server::HandlerWithContentReader withBody(Answer answer) {
        return [this, answer](const Request& request, Response& response,
                              const httplib::ContentReader& reader) {
            if (request.has_header("Content-Length") || request.has_header("Transfer-Encoding")) {
                reader([](const char*, std::size_t) { return true; });
            }
            (this->*answer)(request, response);
        };
    }

    void addRoutes(httplib::Server& server) {
        server.Get("/v1/status", by(&Implementation::tellStatus));
        server.Get("/metrics", by(&Implementation::tellMetrics));
        server.Get("/v1/records", by(&Implementation::tellRecords));
        const std::string one = "/v1/subscribers/([A-Za-z0-9._-]+)";
        server.Put(one, withBody(&Implementation::create));
        server.Delete(one, withBody(&Implementation::remove));
        server.Post(one + "/reset", withBody(&Implementation::reset));
        server.Get(one + "/records", by(&Implementation::fetch));
        server.Post(one + "/ack", withBody(&Implementation::acknowledge));
        server.Get(one + "/stream", by(&Implementation::stream));
        server.Get(one + "/dead-letters", by(&Implementation::listDeadLetters));
        server.Post(one + "/dead-letters/(retry|drop)",
                    withBody(&Implementation::treatDeadLetters));
    }

    static void answerPosition(Response& response, const Subscription& subscription) {
        answerJson(response,
                   "{\"acknowledged\":" + std::to_string(subscription.acknowledged()) + "}\n");
    }

    void create(const Request& request, Response& response) {
        SubscriberSettings settings;
        settings.name = request.matches[1].str();
        if (!isSubscriberName(settings.name)) {
            throw Refusal{400, "a name has up to 64 of A-Z a-z 0-9 . _ - and no dot in front"};
        }
        settings.filter = filterIn(request);
        settings.start = startIn(request, "start");
        settings.maxBacklog = numberIn(request, "max_backlog", 0);
        bool isNew = false;
        const auto created = served.subscribers.create(settings, isNew);
        if (!created) {
            throw Refusal{409, "subscriber " + settings.name + " is there with other settings"};
        }
        answerPosition(response, *created);
        response.status = isNew ? 201 : 200;
    }

    void remove(const Request& request, Response& response) {
        const auto found = subscriber(request);
        const std::string problem = served.subscribers.remove(found->settings.name);
        if (!problem.empty()) {
            throw Refusal{409, problem};
        }
        answerJson(response, "{}\n");
    }

    void reset(const Request& request, Response& response) {
        const auto found = subscriber(request);
        found->reset(startIn(request, "start"));
        answerPosition(response, *found);
    }

    void fetch(const Request& request, Response& response) {
        const auto found = httpSubscriber(request);
        std::int64_t after = numberIn(request, "after", found->acknowledged());
        const Page page =
            await(request, after, [&](std::size_t limit) { return found->next(after, limit); });
        found->countAttempt();
        found->countDelivered(static_cast<std::int64_t>(page.records.size()));
        answerPage(response, page);
    }

    void acknowledge(const Request& request, Response& response) {
        const auto found = httpSubscriber(request);
        const std::int64_t sequence = numberIn(request, "seq", -1);
        if (sequence < 0 || sequence > served.log.figures().last) {
            throw Refusal{400, "seq must be the number of a record in the log"};
        }
        found->acknowledge(sequence, found->generation());
        answerPosition(response, *found);
    }

    /// Server-sent events, each a record, until the client leaves.
    void stream(const Request& request, Response& response) {
        const auto found = httpSubscriber(request);
        const std::string lastId = request.get_header_value("Last-Event-ID");
        std::int64_t after = parseNumber(lastId).value_or(found->acknowledged());
        const auto waiting = std::make_shared<Waiting>(waitingClients);
        response.set_header("Cache-Control", "no-store");
        response.set_chunked_content_provider(
            "text/event-stream", [this, found, after, waiting,
                                  silent = 0](std::size_t, httplib::DataSink& sink) mutable {
                if (isEnding) {
                    sink.done();
                    return true;
                }
                Page page;
                try {
                    page = found->next(after, static_cast<std::size_t>(usualLimit));
                } catch (const DatabaseError&) {
                    return false; // the client comes again
                }
                std::string text;
                for (const Record& each : page.records) {
                    text += "id: " + std::to_string(each.sequence) + "\ndata: ";
                    appendJson(each, text);
                    text += "\n\n";
                }
                if (text.empty() && page.seenTo == after) {
                    served.log.waitBehind(after, streamPause);
                    if (++silent < pausesBetweenSigns) {
                        return true;
                    }
                    text = ":\n\n"; // a sign of life, by which a client that left is found out
                }
                silent = 0;
                after = page.seenTo;
                found->countDelivered(static_cast<std::int64_t>(page.records.size()));
                return text.empty() || sink.write(text.data(), text.size());
            });
    }

    void listDeadLetters(const Request& request, Response& response) {
        std::string text;
        for (const DeadLetter& each : served.log.deadLetters(subscriber(request)->settings.name)) {
            text += deadLetterJson(each);
        }
        response.set_content(text, "application/x-ndjson");
    }

    void treatDeadLetters(const Request& request, Response& response) {
        const auto found = subscriber(request);
        const std::string& name = found->settings.name;
        const bool isDrop = request.matches[2] == "drop";
        if (!isDrop && found->settings.type != SubscriberType::command) {
            throw Refusal{409, "subscriber " + name + " runs no command now"};
        }
        const bool isAll = request.get_param_value("seq") == "all";
        const std::int64_t wanted = isAll ? 0 : numberIn(request, "seq", -1);
        std::int64_t count = 0;
        for (const DeadLetter& each : served.log.deadLetters(name)) {
            if (!isAll && each.sequence != wanted) {
                continue;
            }
            ++count;
            if (isDrop) {
                served.log.removeDeadLetter(name, each.sequence);
            } else {
                found->requestRetry(each.sequence);
            }
        }
        if (count == 0 && !isAll) {
            throw Refusal{404, "there is no such dead letter; seq names one, or is \"all\""};
        }
        answerJson(response, "{\"count\":" + std::to_string(count) + "}\n");
    }

    Served served;
    std::string socketPath;
    std::string token;
    std::atomic<bool> isEnding{false};
    std::atomic<int> waitingClients{0};
    httplib::Server local;
    httplib::Server remote;
    std::thread localThread;
    std::thread remoteThread;
};

HttpServer::HttpServer(const HttpSettings& settings, const Served& served)
    : implementation(std::make_unique<Implementation>(settings, served)) {
}

HttpServer::~HttpServer() = default;

} // namespace relay
