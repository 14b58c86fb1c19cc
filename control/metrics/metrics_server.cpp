// A server of one page over HTTP: what faces the network, in one thread, with a bound on
// everything.
#include "control/metrics/metrics_server.h"

#include "utilities/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace control {

namespace {

using UTILITIES::stringBegin;

constexpr std::size_t mostClients = 100;
constexpr std::size_t longestRequest = 8192;
constexpr std::chrono::seconds patience(5);
constexpr std::chrono::seconds betweenLooks(1);

using Clock = std::chrono::steady_clock;

struct Client {
    Descriptor connection;
    Clock::time_point until;
    std::string request;
    std::string answer; // what is left of it; empty while the request is not complete
};

std::string response(const std::string& status, const std::string& body, bool withBody = true) {
    return "HTTP/1.1 " + status +
           "\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + (withBody ? body : "");
}

std::string answerTo(const std::string& request, const std::optional<std::string>& page) {
    const bool isHead = stringBegin(request, "HEAD ");
    if (!isHead && !stringBegin(request, "GET ")) {
        return response("405 Method Not Allowed", "only GET is known\n");
    }
    const std::size_t begin = request.find(' ') + 1;
    const std::size_t end = request.find_first_of(" ?\r", begin);
    if (request.substr(begin, end - begin) != "/metrics") {
        return response("404 Not Found", "only /metrics is served\n");
    }
    return page ? response("200 OK", *page, !isHead)
                : response("503 Service Unavailable", "there are no figures at present\n");
}

/// Reads or writes what can be now. False if it is over.
bool goesOn(Client& client, const std::optional<std::string>& page) {
    std::array<char, 4096> part{};
    while (client.answer.empty()) {
        const ssize_t got = recv(client.connection.get(), part.data(), part.size(), MSG_DONTWAIT);
        if (got <= 0) {
            return got < 0 && (errno == EAGAIN || errno == EINTR);
        }
        client.request.append(part.data(), static_cast<std::size_t>(got));
        if (client.request.find("\r\n\r\n") != std::string::npos ||
            client.request.find("\n\n") != std::string::npos) {
            client.answer = answerTo(client.request, page);
        } else if (client.request.size() > longestRequest) {
            return false;
        }
    }
    const ssize_t sent = send(client.connection.get(), client.answer.data(), client.answer.size(),
                              MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    client.answer.erase(0, static_cast<std::size_t>(sent));
    return !client.answer.empty();
}

} // namespace

Listening listenAt(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    std::string host = text.substr(0, colon);
    const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
    const bool isSix = host.size() > 2 && host.front() == '[' && host.back() == ']';
    sockaddr_in four{};
    sockaddr_in6 six{};
    four.sin_family = AF_INET;
    six.sin6_family = AF_INET6;
    const bool isAddress =
        text.find('\0') == std::string::npos &&
        (isSix ? inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &six.sin6_addr)
               : inet_pton(AF_INET, host.c_str(), &four.sin_addr)) == 1;
    const bool isNumber = port.find_first_not_of("0123456789") == std::string::npos;
    const unsigned long number = isNumber ? std::strtoul(port.c_str(), nullptr, 10) : 0;
    six.sin6_port = four.sin_port = htons(static_cast<std::uint16_t>(number));
    const char* const why = colon == std::string::npos      ? "names no port"
                            : !isAddress                    ? "is no numeric address"
                            : number == 0 || number > 65535 ? "has no port from 1 to 65535"
                                                            : nullptr;
    if (why != nullptr) {
        return {{},
                "--listen takes ADDRESS:PORT such as 127.0.0.1:9751 or [::1]:9751, and \"" + text +
                    "\" " + why,
                true};
    }
    const auto* const address =
        isSix ? reinterpret_cast<const sockaddr*>(&six) : reinterpret_cast<const sockaddr*>(&four);
    Descriptor socket(::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // What is left of ended connections does not hinder; [::] is not meant for version 4, too.
    const int on = 1;
    setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on); // fails for version 4
    if (bind(socket.get(), address, isSix ? sizeof six : sizeof four) != 0 ||
        listen(socket.get(), SOMAXCONN) != 0) {
        return {{}, "cannot listen at " + text + ": " + std::strerror(errno), false};
    }
    return {std::move(socket), {}, false};
}

void serveMetrics(const Descriptor& socket, const Look& look) {
    std::vector<Client> clients; // the oldest first
    for (;;) {
        const std::optional<std::string> page = look();
        const Clock::time_point end = Clock::now() + betweenLooks;
        for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
            std::vector<pollfd> events{{socket.get(), POLLIN, 0}};
            for (const Client& client : clients) {
                const short wanted = client.answer.empty() ? POLLIN : POLLOUT;
                events.push_back({client.connection.get(), wanted, 0});
            }
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
            poll(events.data(), events.size(), static_cast<int>(left.count()));
            for (std::size_t index = clients.size(); index-- > 0;) {
                Client& client = clients[index];
                const bool isReady = events[index + 1].revents != 0;
                if ((isReady && !goesOn(client, page)) || Clock::now() > client.until) {
                    clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(index));
                }
            }
            for (;;) {
                Descriptor connection(accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
                if (!connection) {
                    break;
                }
                if (clients.size() >= mostClients) {
                    clients.erase(clients.begin());
                }
                clients.push_back({std::move(connection), Clock::now() + patience, {}, {}});
            }
        }
    }
}

} // namespace control
