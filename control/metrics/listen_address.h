// Where to serve: the text ADDRESS:PORT.
#pragma once

#include "utilities/descriptors.h"

#include <cstdint>
#include <string>

namespace control {

/// An address to listen at, or one sentence that says why the text is none.
struct ListenAddress {
    std::string problem;
    std::string text; // as it was checked: "127.0.0.1:9751", "[::1]:9751"
    std::string host; // without brackets
    std::uint16_t port = 0;
    bool isVersion6 = false;
};

/// Reads "127.0.0.1:9751" or "[::1]:9751". Names are refused, as is an address left out: what is to
/// be reached from everywhere is to be said (0.0.0.0 or [::]). Port 0 too: nobody would know it.
ListenAddress parseListenAddress(const std::string& text);

/// A socket that listens there. None, and `problem` says why in a sentence, if that can't be.
Descriptor listenAt(const ListenAddress& address, std::string& problem);

} // namespace control
