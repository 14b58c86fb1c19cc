// Fuzzes the two directions between a file's name and what rsync prints for it.
#include "fuzz/input.h"
#include "shares/printed_name.h"

using confirming::printedName;
using confirming::unprintedName;
using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string name = fuzz::text(data, size);
    const std::string printed = printedName(name);
    require(unprintedName(printed) == name, "what is printed can be read back");
    for (const char character : printed) {
        const auto byte = static_cast<unsigned char>(character);
        require(byte >= ' ' || byte == '\t', "nothing printed is a control character but the tab");
    }
    require(printed.size() >= name.size() && printed.size() <= 5 * name.size(),
            "a byte takes one to five");

    // Without --8-bit-output rsync escapes more than it must.
    std::string escaped;
    for (const char character : name) {
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\#%03o",
                      static_cast<unsigned>(static_cast<unsigned char>(character)));
        escaped += escape;
    }
    require(unprintedName(escaped) == name, "every byte can be read from its escape");

    // The input as something that rsync, or anyone, may have printed.
    const std::string read = unprintedName(name);
    require(read.size() <= name.size(), "reading makes nothing longer");
    require(unprintedName(printedName(read)) == read, "what was read can be printed");

    // And as a line of a report.
    const std::string shown = confirming::withoutControls(name, 5 * name.size());
    for (const char character : shown) {
        const auto byte = static_cast<unsigned char>(character);
        require(byte < 0x7f || byte > 0x9f, "nothing shown is a control character beyond ASCII");
    }
    require(unprintedName(shown) == read || shown != name, "a line without any stays as it is");
    require(confirming::withoutControls(name, size / 2) == shown.substr(0, size / 2),
            "a line is cut off where it has to be");
    return 0;
}
