// What the relay tells its operator: lines on standard error, which the journal keeps.
#include "relay/messages.h"

#include "shares/printed_name.h"
#include "utilities/descriptors.h"

#include <cstddef>
#include <cstdlib>
#include <system_error>

#include <unistd.h>

namespace relay {

namespace {

constexpr std::size_t longestShown = 500;

/// The journal takes the number in front for how urgent it is.
void print(char urgency, const std::string& sentence) {
    static const bool isJournal = std::getenv("JOURNAL_STREAM") != nullptr;
    const std::string prefix = isJournal ? std::string("<") + urgency + ">" : "skarn-relay: ";
    writeUnchecked(STDERR_FILENO, prefix + sentence + "\n");
}

} // namespace

void warn(const std::string& sentence) {
    print('4', sentence);
}

void inform(const std::string& sentence) {
    print('6', sentence);
}

std::string shown(const std::string& bytes) {
    std::string printed = confirming::withoutControls(
        confirming::printedName(bytes.substr(0, longestShown)), longestShown);
    return bytes.size() > longestShown ? printed + "..." : printed;
}

std::string systemError(int error) {
    return std::generic_category().message(error);
}

} // namespace relay
