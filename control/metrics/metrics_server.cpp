// A server of one page over HTTP: what faces the network, in one thread, with a bound on
// everything.
#include "control/metrics/metrics_server.h"

#include "utilities/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace control {

namespace {

using UTILITIES::stringBegin;

constexpr std::size_t mostClients = 100;
constexpr std::size_t longestRequest = 8192;
constexpr std::chrono::seconds patience(5);

/// The address that a text "ADDRESS:PORT" names; null, and `why` says why, if it names none.
addrinfo* addressOf(const std::string& text, std::string& why) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        why = "names no port";
        return nullptr;
    }
    std::string host = text.substr(0, colon);
    const std::string port = text.substr(colon + 1);
    const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    host = isBracketed ? host.substr(1, host.size() - 2) : host;
    // Not "127.1" either, which getaddrinfo() takes.
    std::array<unsigned char, sizeof(in6_addr)> bytes{};
    const int family = isBracketed ? AF_INET6 : AF_INET;
    if (text.find('\0') != std::string::npos ||
        inet_pton(family, host.c_str(), bytes.data()) != 1) {
        why = "is no numeric address";
        return nullptr;
    }
    const bool isNumber = port.find_first_not_of("0123456789") == std::string::npos;
    const unsigned long number = isNumber ? std::strtoul(port.c_str(), nullptr, 10) : 0;
    if (number == 0 || number > 65535) {
        why = "has no port from 1 to 65535";
        return nullptr;
    }
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* address = nullptr;
    const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &address);
    why = error == 0 ? "" : gai_strerror(error);
    return error == 0 ? address : nullptr;
}

std::string response(const std::string& status, const std::string& body, bool withBody = true) {
    return "HTTP/1.1 " + status +
           "\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + (withBody ? body : "");
}

} // namespace

Listening listenAt(const std::string& text) {
    Listening listening;
    std::string why;
    addrinfo* const address = addressOf(text, why);
    if (address == nullptr) {
        listening.isWrong = true;
        listening.problem =
            "--listen takes ADDRESS:PORT such as 127.0.0.1:9751 or [::1]:9751, and \"" + text +
            "\" " + why;
        return listening;
    }
    Descriptor socket(::socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // What is left of ended connections does not hinder; [::] is not meant for version 4, too.
    const int on = 1;
    setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (address->ai_family == AF_INET6) {
        setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    const int bound = bind(socket.get(), address->ai_addr, address->ai_addrlen);
    if (bound == 0 && listen(socket.get(), SOMAXCONN) == 0) {
        listening.socket = std::move(socket);
    } else {
        listening.problem = "cannot listen at " + text + ": " + std::strerror(errno);
    }
    freeaddrinfo(address);
    return listening;
}

std::string MetricsServer::answerTo(const std::string& request) const {
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
bool MetricsServer::goesOn(Client& client) const {
    std::array<char, 4096> part{};
    while (client.answer.empty()) {
        const ssize_t got = recv(client.connection.get(), part.data(), part.size(), MSG_DONTWAIT);
        if (got <= 0) {
            return got < 0 && (errno == EAGAIN || errno == EINTR);
        }
        client.request.append(part.data(), static_cast<std::size_t>(got));
        if (client.request.find("\r\n\r\n") != std::string::npos ||
            client.request.find("\n\n") != std::string::npos) {
            client.answer = answerTo(client.request);
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

void MetricsServer::accept() {
    for (;;) {
        Descriptor connection(accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (connection.get() < 0) {
            return;
        }
        if (clients.size() >= mostClients) {
            clients.erase(clients.begin());
        }
        clients.push_back({std::move(connection), Clock::now() + patience, {}, {}});
    }
}

void MetricsServer::serve(std::chrono::milliseconds duration) {
    const Clock::time_point end = Clock::now() + duration;
    for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
        std::vector<pollfd> events{{socket.get(), POLLIN, 0}};
        for (const Client& client : clients) {
            const short wanted = client.answer.empty() ? POLLIN : POLLOUT;
            events.push_back({client.connection.get(), wanted, 0});
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count();
        poll(events.data(), events.size(), static_cast<int>(std::min<long>(left + 1, 1000)));
        for (std::size_t index = clients.size(); index-- > 0;) {
            Client& client = clients[index];
            const bool isReady = events[index + 1].revents != 0;
            if ((isReady && !goesOn(client)) || Clock::now() > client.until) {
                clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(index));
            }
        }
        accept();
    }
}

} // namespace control
