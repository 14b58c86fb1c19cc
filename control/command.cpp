// What every subcommand of skarnctl agrees on: how it is added, its exit statuses, its complaints.
#include "control/command.h"

#include <cstdio>

namespace control {

namespace {

/// The text with everything that could move a terminal's cursor written in octal.
std::string printable(const std::string& text) {
    std::string shown;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte == 0x7f) {
            char octal[5];
            std::snprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned>(byte));
            shown += octal;
        } else {
            shown += character;
        }
    }
    return shown;
}

} // namespace

void complain(const std::string& text) {
    std::fprintf(stderr, "skarnctl: %s\n", printable(text).c_str());
}

} // namespace control
