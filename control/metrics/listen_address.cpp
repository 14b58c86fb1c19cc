// Where to serve: the text ADDRESS:PORT.
#include "control/metrics/listen_address.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

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

Descriptor listenAt(const ListenAddress& address, std::string& problem) {
    Descriptor listening(socket(address.isVersion6 ? AF_INET6 : AF_INET,
                                SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // What is left of ended connections does not hinder.
    const int on = 1;
    setsockopt(listening.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in6 name6{};
    sockaddr_in name4{};
    int bound = -1;
    if (address.isVersion6) {
        setsockopt(listening.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        name6.sin6_family = AF_INET6;
        name6.sin6_port = htons(address.port);
        inet_pton(AF_INET6, address.host.c_str(), &name6.sin6_addr);
        bound = bind(listening.get(), reinterpret_cast<const sockaddr*>(&name6), sizeof name6);
    } else {
        name4.sin_family = AF_INET;
        name4.sin_port = htons(address.port);
        inet_pton(AF_INET, address.host.c_str(), &name4.sin_addr);
        bound = bind(listening.get(), reinterpret_cast<const sockaddr*>(&name4), sizeof name4);
    }
    if (bound != 0 || listen(listening.get(), SOMAXCONN) != 0) {
        problem = "cannot listen at " + address.text + ": " + std::strerror(errno);
        return Descriptor();
    }
    return listening;
}

} // namespace control
