// Fuzzes the reading of the list of names that are to be copied.
#include "confirming_rsync/file_list.h"
#include "fuzz/input.h"
#include "shares/printed_name.h"

#include <algorithm>

using confirming::listedNames;
using fuzz::require;

namespace {

bool beginsWith(const std::string& text, const char* beginning) {
    return text.rfind(beginning, 0) == 0;
}

void check(const std::string& text, bool endedByNul) {
    const confirming::ListedNames listed = listedNames(text, endedByNul);
    const std::vector<std::string>& names = listed.names;
    const auto isEnd = [endedByNul](char character) {
        return endedByNul ? character == '\0' : character == '\n' || character == '\r';
    };
    const auto ends = std::count_if(text.begin(), text.end(), isEnd);
    const std::size_t reminders = listed.hasReminder ? 1 : 0;
    require(names.size() + listed.others.size() + reminders <= static_cast<std::size_t>(ends) + 1,
            "a line gives one name at most");
    require(!listed.hasReminder || text.find("/rsync_orbelin:recovery") != std::string::npos,
            "a reminder stands in the list");
    // Read once more from a list of what was read, nothing changes.
    std::string again;
    for (const std::string& name : names) {
        require(!name.empty(), "no name is empty");
        require(!beginsWith(name, "/") && !beginsWith(name, "./") && name.back() != '/',
                "names are relative and bare");
        require(confirming::staysBelow(name), "names lead nowhere else");
        require(name.find('\n') == std::string::npos && name.find('\0') == std::string::npos,
                "names are printable");
        const std::string raw = confirming::unprintedName(name);
        require(text.find(raw) != std::string::npos, "a name stands in the list");
        again += raw + (endedByNul ? '\0' : '\n');
    }
    const confirming::ListedNames reread = listedNames(again, endedByNul);
    require(reread.names == names && reread.others.empty() && !reread.hasReminder,
            "a list of what was read reads the same");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::text(data, size);
    check(text, false);
    check(text, true);
    return 0;
}
