// What the relay tells its operator: lines on standard error, which the journal keeps.
#include "relay/messages.h"

#include "control/display_text.h"
#include "utilities/descriptors.h"

#include <cstddef>
#include <cstdlib>
#include <system_error>

#include <unistd.h>

namespace relay {

namespace {

constexpr std::size_t longestShown = 500;

/// True if it steers no terminal: neither a control character nor one of those that turn the
/// direction of writing.
bool isHarmless(char32_t code) {
    const bool isControl = code < ' ' || (code >= 0x7f && code < 0xa0);
    const bool isTurning = code == 0x200e || code == 0x200f || (code >= 0x2028 && code <= 0x202e) ||
                           (code >= 0x2066 && code <= 0x2069);
    return !isControl && !isTurning;
}

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
    const std::string printed = control::escaped(bytes.substr(0, longestShown), isHarmless);
    return bytes.size() > longestShown ? printed + "..." : printed;
}

std::string systemError(int error) {
    return std::generic_category().message(error);
}

} // namespace relay
