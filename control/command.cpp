// What every subcommand of skarnctl agrees on: how it is added, its exit statuses, its complaints.
#include "control/command.h"

#include "control/display_text.h"

#include <cstdio>

namespace control {

void complain(const std::string& text) {
    std::fprintf(stderr, "skarnctl: %s\n", displayable(text, false).c_str());
}

} // namespace control
