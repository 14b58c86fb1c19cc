// Where to serve: the text ADDRESS:PORT.
#include "control/metrics/listen_address.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace control {

namespace {

ListenAddress refused(const std::string& text, const std::string& why) {
    ListenAddress address;
    address.problem = "--listen takes ADDRESS:PORT such as 127.0.0.1:9751 or [::1]:9751, and \"" +
                      text + "\" " + why;
    return address;
}

/// The port, or 0 if it is none.
std::uint16_t portOf(const std::string& digits) {
    const bool plain = !digits.empty() && digits.size() <= 5 &&
                       std::all_of(digits.begin(), digits.end(),
                                   [](char each) { return each >= '0' && each <= '9'; });
    const unsigned long number = plain ? std::stoul(digits) : 0;
    return number <= 65535 ? static_cast<std::uint16_t>(number) : std::uint16_t{0};
}

/// A socket that is closed again.
class Socket {
public:
    explicit Socket(int family) : descriptor(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return descriptor; }

private:
    int descriptor;
};

} // namespace

ListenAddress parseListenAddress(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return refused(text, "names no port");
    }
    std::string host = text.substr(0, colon);
    const bool bracketed = host.size() >= 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    // What inet_pton reads ends at a NUL.
    if (text.find('\0') != std::string::npos) {
        return refused(text, "is no numeric address");
    }
    in_addr version4{};
    in6_addr version6{};
    if (bracketed ? inet_pton(AF_INET6, host.c_str(), &version6) != 1
                  : inet_pton(AF_INET, host.c_str(), &version4) != 1) {
        return refused(text, "is no numeric address");
    }
    const std::uint16_t port = portOf(text.substr(colon + 1));
    if (port == 0) {
        return refused(text, "has no port from 1 to 65535");
    }
    ListenAddress address;
    address.host = host;
    address.port = port;
    address.isVersion6 = bracketed;
    address.text =
        (bracketed ? "[" + host + "]" : host) + ":" + std::to_string(static_cast<unsigned>(port));
    return address;
}

std::string whyNotListen(const ListenAddress& address) {
    const auto because = [&address](int error) {
        return "cannot listen at " + address.text + ": " + std::strerror(error);
    };
    const Socket socket(address.isVersion6 ? AF_INET6 : AF_INET);
    if (socket.fd() < 0) {
        return because(errno);
    }
    // As the server does it: what is left of ended connections does not hinder.
    const int on = 1;
    setsockopt(socket.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    int bound = -1;
    if (address.isVersion6) {
        setsockopt(socket.fd(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        sockaddr_in6 name{};
        name.sin6_family = AF_INET6;
        name.sin6_port = htons(address.port);
        inet_pton(AF_INET6, address.host.c_str(), &name.sin6_addr);
        bound = bind(socket.fd(), reinterpret_cast<const sockaddr*>(&name), sizeof name);
    } else {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_port = htons(address.port);
        inet_pton(AF_INET, address.host.c_str(), &name.sin_addr);
        bound = bind(socket.fd(), reinterpret_cast<const sockaddr*>(&name), sizeof name);
    }
    if (bound != 0 || listen(socket.fd(), 1) != 0) {
        return because(errno);
    }
    return "";
}

} // namespace control
