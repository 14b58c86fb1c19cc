// Serving subscribers over HTTP: their records, acknowledgements, live streams, and the status.
#include "relay/http_server.h"

#include "relay/json.h"
#include "relay/messages.h"
#include "shares/files.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <exception>
#include <nlohmann/json.hpp>
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
constexpr std::size_t shortestToken = 16;
constexpr int writeTimeout = 30; // seconds
constexpr auto streamPause = std::chrono::milliseconds(1000);
constexpr int pausesBetweenSigns = 15;
constexpr std::int64_t usualRuns = 100;
constexpr std::size_t mostSpans = 10000; // of missing indices
// Nothing from elsewhere, whatever a name may hold.
constexpr const char* pagePolicy =
    "default-src 'none'; connect-src 'self'; img-src data:; script-src 'unsafe-inline'; "
    "style-src 'unsafe-inline'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
constexpr const char* jsonLines = "application/x-ndjson";

/// What a client did wrong, and the status that tells it.
struct Refusal {
    int status;
    std::string sentence;
};

void answerJson(Response& response, const Json& object) {
    response.set_content(jsonText(object) + "\n", "application/json");
}

void answerError(Response& response, int status, const std::string& sentence) {
    response.status = status;
    answerJson(response, {{"error", sentence}});
}

std::int64_t numberIn(const Request& request, const char* name, std::int64_t otherwise) {
    if (!request.has_param(name)) {
        return otherwise;
    }
    if (const auto number = parseNumber(request.get_param_value(name))) {
        return *number;
    }
    throw Refusal{400, std::string(name) + " must be a number, 0 or more"};
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
    if (request.has_param("kind")) {
        filter.kinds.clear();
    }
    for (const std::string& name : textsIn(request, "kind")) {
        const auto kind = kindNamed(name);
        if (!kind) {
            throw Refusal{400, "kind must be file, usershift, run or other"};
        }
        filter.kinds.push_back(*kind);
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
    response.set_content(text, jsonLines);
}

void answerPosition(Response& response, const Subscription& subscription) {
    answerJson(response, {{"acknowledged", subscription.acknowledged()}});
}

/// Equal texts, in a time that tells nothing of where they differ.
bool isSameToken(const std::string& one, const std::string& other) {
    unsigned difference = one.size() == other.size() ? 0U : 1U;
    for (std::size_t at = 0; at < std::min(one.size(), other.size()); ++at) {
        difference |= static_cast<unsigned char>(one[at]) ^ static_cast<unsigned char>(other[at]);
    }
    return difference == 0;
}

std::string readToken(const std::string& file) {
    const auto text = confirming::readTextFile(file);
    if (!text) {
        throw std::runtime_error("cannot read the token in " + file + ": " + systemError(errno));
    }
    std::string token = text->substr(0, text->find_first_of("\r\n"));
    if (token.size() < shortestToken) {
        throw std::runtime_error("the token in " + file + " must have 16 characters or more");
    }
    return token;
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

/// What is behind the addresses.
class Service {
public:
    explicit Service(const Served& from) : served(from) {}

    void addRoutes(httplib::Server& server) {
        server.Get("/v1/status", [this](const Request& request, Response& response) {
            if (request.get_param_value("format") == "text") {
                response.set_content(statusText(served.status()), "text/plain");
            } else {
                answerJson(response, jsonOf(served.status()));
            }
        });
        server.Get("/", [](const Request&, Response& response) {
            response.set_header("Content-Security-Policy", pagePolicy);
            response.set_content(pageText, "text/html; charset=utf-8");
        });
        server.Get("/v1/view", [this](const Request&, Response& response) {
            response.set_content(served.view.json(served.status()), "application/json");
        });
        server.Get("/v1/runs", by(&Service::tellRuns));
        server.Post("/v1/runs/end", withBody(&Service::endRun));
        server.Get("/v1/runs/manifest", by(&Service::tellManifest));
        server.Get("/metrics", [this](const Request&, Response& response) {
            response.set_content(metricsText(served.status()), "text/plain; version=0.0.4");
        });
        server.Get("/v1/records", by(&Service::tellRecords));
        const std::string one = "/v1/subscribers/([A-Za-z0-9._-]+)";
        server.Put(one, withBody(&Service::create));
        server.Delete(one, withBody(&Service::remove));
        server.Post(one + "/reset", withBody(&Service::reset));
        server.Get(one + "/records", by(&Service::fetch));
        server.Post(one + "/ack", withBody(&Service::acknowledge));
        server.Get(one + "/stream", by(&Service::stream));
        server.Get(one + "/dead-letters", by(&Service::listDeadLetters));
        server.Post(one + "/dead-letters/(retry|drop)", withBody(&Service::treatDeadLetters));
    }

    /// Whoever waits gets what there is.
    void end() {
        isEnding = true;
        served.log.interrupt();
    }

private:
    using Answer = void (Service::*)(const Request&, Response&);

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

    /// Counts one more that waits, until what it returns is destroyed; too many are refused.
    std::shared_ptr<void> startWaiting() {
        if (++waitingClients > mostWaiting) {
            --waitingClients;
            throw Refusal{503, "too many clients wait already"};
        }
        return {nullptr, [this](void*) { --waitingClients; }};
    }

    /// Reads behind that number until there is something, for as long as the request says.
    template<class Read>
    Page await(const Request& request, std::int64_t after, Read read) {
        const auto limit = static_cast<std::size_t>(
            std::clamp<std::int64_t>(numberIn(request, "limit", usualLimit), 1, largestLimit));
        const std::int64_t seconds = std::min(numberIn(request, "wait", 0), longestWait);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        std::shared_ptr<void> waiting;
        for (;;) {
            Page page = read(after, limit);
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            const bool isMore = page.seenTo > after; // perhaps, behind what was looked at
            if (!page.records.empty() || isEnding || (!isMore && left.count() <= 0)) {
                return page;
            }
            after = page.seenTo;
            if (!isMore) {
                waiting = waiting ? waiting : startWaiting();
                served.log.waitBehind(after, left);
            }
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

    void tellRecords(const Request& request, Response& response) {
        std::int64_t after = numberIn(request, "after", -1);
        if (after < 0) {
            after = served.log.positionOf(startIn(request, "since"));
        }
        const Filter filter = filterIn(request);
        answerPage(response, await(request, after, [&](std::int64_t behind, std::size_t limit) {
                       return served.log.read(behind, filter, limit);
                   }));
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
        const std::string problem = served.subscribers.remove(subscriber(request)->settings.name);
        if (!problem.empty()) {
            throw Refusal{409, problem};
        }
        answerJson(response, Json::object());
    }

    void reset(const Request& request, Response& response) {
        const auto found = subscriber(request);
        found->reset(startIn(request, "start"));
        answerPosition(response, *found);
    }

    void fetch(const Request& request, Response& response) {
        const auto found = httpSubscriber(request);
        const Page page = await(
            request, numberIn(request, "after", found->acknowledged()),
            [&](std::int64_t behind, std::size_t limit) { return found->next(behind, limit); });
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
        const auto lastId = parseNumber(request.get_header_value("Last-Event-ID"));
        response.set_header("Cache-Control", "no-store");
        response.set_chunked_content_provider(
            "text/event-stream",
            [this, found, after = lastId.value_or(found->acknowledged()), silent = 0,
             waiting = startWaiting()](std::size_t, httplib::DataSink& sink) mutable {
                if (isEnding) {
                    sink.done();
                    return true;
                }
                try {
                    return streamOn(*found, after, silent, sink);
                } catch (const DatabaseError&) {
                    return false; // the client comes again
                }
            });
    }

    /// The next part of a stream. False if the client has left.
    bool streamOn(Subscription& subscription, std::int64_t& after, int& silent,
                  httplib::DataSink& sink) {
        const Page page = subscription.next(after, static_cast<std::size_t>(usualLimit));
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
        subscription.countDelivered(static_cast<std::int64_t>(page.records.size()));
        return text.empty() || sink.write(text.data(), text.size());
    }

    void listDeadLetters(const Request& request, Response& response) {
        std::string text;
        for (const DeadLetter& each : served.log.deadLetters(subscriber(request)->settings.name)) {
            text += jsonText(jsonOf(each)) + "\n";
        }
        response.set_content(text, jsonLines);
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
        answerJson(response, {{"count", count}});
    }

    Runs& runs() const {
        if (served.runs == nullptr) {
            throw Refusal{409, "no runs are configured"};
        }
        return *served.runs;
    }

    /// The run that is asked for, if there is one.
    static Run found(const Request& request, const std::optional<Run>& run) {
        if (!run) {
            throw Refusal{404, "no file of a run \"" + shown(request.get_param_value("name")) +
                                   "\" has come"};
        }
        return *run;
    }

    static std::optional<std::int64_t> expectedIn(const Request& request) {
        const std::int64_t expected = numberIn(request, "expect", -1);
        if (expected > mostExpected) {
            throw Refusal{400, "expect is too large"};
        }
        return expected < 0 ? std::nullopt : std::optional(expected);
    }

    /// One run, when it has ended or has what is expected; or the latest ones, a line for each.
    void tellRuns(const Request& request, Response& response) {
        const bool isText = request.get_param_value("format") == "text";
        std::vector<Run> told;
        if (request.has_param("name")) {
            const std::int64_t seconds = std::min(numberIn(request, "wait", 0), longestWait);
            const auto waiting = seconds > 0 ? startWaiting() : nullptr;
            told = {
                found(request, runs().await(request.get_param_value("name"), expectedIn(request),
                                            std::chrono::seconds(seconds)))};
        } else {
            told = runs().latest(numberIn(request, "limit", usualRuns));
        }
        std::string text;
        for (const Run& each : told) {
            text += isText ? textOf(each, judge(each, runs().settings))
                           : jsonText(runs().describe(each, mostSpans)) + "\n";
        }
        response.set_content(text, isText ? "text/plain" : jsonLines);
    }

    void endRun(const Request& request, Response& response) {
        const Run ended =
            found(request, runs().end(request.get_param_value("name"), expectedIn(request)));
        answerJson(response, runs().describe(ended, mostSpans));
    }

    /// A line for each file, once all have their digests; the caller asks again until they do.
    void tellManifest(const Request& request, Response& response) {
        const Run run = found(request, runs().find(request.get_param_value("name")));
        if (const std::int64_t pending = runs().pendingDigests(run)) {
            throw Refusal{503, std::to_string(pending) + " of " + std::to_string(run.files) +
                                   " files have no digest yet"};
        }
        response.set_chunked_content_provider(
            jsonLines,
            [this, run, behind = std::string()](std::size_t, httplib::DataSink& sink) mutable {
                std::string text;
                for (const RunFile& each : runs().files(run, behind, usualLimit)) {
                    text += jsonText(jsonOf(each)) + "\n";
                    behind = each.path;
                }
                if (text.empty()) {
                    sink.done();
                    return true;
                }
                return sink.write(text.data(), text.size());
            });
    }

    const Served served;
    std::atomic<bool> isEnding{false};
    std::atomic<int> waitingClients{0};
};

/// One place to listen at, and the threads that do. Listens from `start` on until it is destroyed.
class Listener {
public:
    Listener(Service& service, const std::string& token) {
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
                }
            });
        server.set_error_handler([](const Request&, Response& response) {
            if (response.body.empty()) {
                answerError(response, response.status, "there is nothing of that name");
            }
        });
        const std::string basic = httplib::make_basic_authentication_header("relay", token).second;
        server.set_pre_routing_handler([token, basic](const Request& request, Response& response) {
            const std::string sent = request.get_header_value("Authorization");
            const bool isKnown =
                token.empty() || isSameToken(sent, "Bearer " + token) || isSameToken(sent, basic);
            // A page of another site, in the browser of somebody who may: it is to change nothing.
            const bool isForeign = request.method != "GET" && request.has_header("Origin");
            if (isKnown && !isForeign) {
                return httplib::Server::HandlerResponse::Unhandled;
            }
            if (isKnown) {
                answerError(response, 403, "a page in a browser may change nothing");
                return httplib::Server::HandlerResponse::Handled;
            }
            response.set_header("WWW-Authenticate", "Basic realm=\"skarn-relay\"");
            answerError(response, 401, "this address wants a token");
            return httplib::Server::HandlerResponse::Handled;
        });
        service.addRoutes(server);
    }

    ~Listener() {
        if (thread.joinable()) {
            while (!server.is_running()) {
                std::this_thread::yield(); // it is about to begin
            }
            server.stop();
            thread.join();
        }
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    void bindSocket(const HttpSettings& settings) {
        clearSocketPath(settings.socket);
        server.set_address_family(AF_UNIX);
        const mode_t mask = ::umask(0177);
        bind(settings.socket, 80, settings.socket);
        ::umask(mask);
        if (!settings.group.empty()) {
            shareSocket(settings.socket, settings.group);
        }
    }

    void bindAddress(const std::string& address) {
        const std::size_t colon = address.rfind(':');
        const bool isBracketed = address.front() == '[';
        const std::string host =
            isBracketed ? address.substr(1, colon - 2) : address.substr(0, colon);
        bind(host, std::stoi(address.substr(colon + 1)), address);
    }

    void start() {
        thread = std::thread([this] { server.listen_after_bind(); });
    }

private:
    void bind(const std::string& host, int port, const std::string& place) {
        server.set_socket_options([this](int made) {
            httplib::default_socket_options(made);
            socket = made;
        });
        // The library lets five wait to be accepted; who has a time limit and comes then is
        // refused.
        if (!server.bind_to_port(host, port) || ::listen(socket, SOMAXCONN) != 0) {
            throw std::runtime_error("cannot listen at " + place + ": " + systemError(errno));
        }
    }

    httplib::Server server;
    int socket = -1; // the server's own
    std::thread thread;
};

/// All of it, for as long as it is to be served.
class HttpServer {
public:
    HttpServer(const HttpSettings& settings, const Served& served)
        : service(served), socketPath(settings.socket), local(service, "") {
        const std::string token =
            settings.tokenFile.empty() ? std::string() : readToken(settings.tokenFile);
        local.bindSocket(settings);
        if (!settings.listen.empty()) {
            remote.emplace(service, token);
            remote->bindAddress(settings.listen);
            remote->start();
        }
        local.start();
    }

    ~HttpServer() {
        service.end();
        ::unlink(socketPath.c_str());
    }
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

private:
    Service service;
    const std::string socketPath;
    Listener local;
    std::optional<Listener> remote;
};

} // namespace

std::shared_ptr<void> serveHttp(const HttpSettings& settings, const Served& served) {
    return std::make_shared<HttpServer>(settings, served);
}

} // namespace relay
