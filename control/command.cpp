// What all subcommands of skarnctl agree on: how they complain, say and print.
#include "control/command.h"

#include "control/display_text.h"
#include "utilities/descriptors.h"

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <langinfo.h>
#include <unistd.h>

namespace control {

void complain(const std::string& text) {
    std::fprintf(stderr, "skarnctl: %s\n", displayable(text, false).c_str());
}

void say(const std::string& text) {
    std::printf("%s\n", displayable(text, false).c_str());
    std::fflush(stdout);
}

std::optional<int> print(const std::string& text) {
    if (writeAll(STDOUT_FILENO, text)) {
        return std::nullopt;
    }
    if (errno == EPIPE) {
        return succeeded;
    }
    complain(std::string("cannot write: ") + std::strerror(errno));
    return failed;
}

bool usesUnicode() {
    return std::setlocale(LC_CTYPE, "") != nullptr &&
           std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

bool wantsColours() {
    const char* const refused = std::getenv("NO_COLOR");
    return refused == nullptr || *refused == '\0';
}

} // namespace control
