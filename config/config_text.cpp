// From the bytes of the configuration file to its text, and from the text to detector blocks.
#include "config/config_text.h"

#include "utilities/text.h"

namespace {

constexpr std::size_t lineBufferSize = 1024;

} // namespace

std::string readConfigText(std::istream& file) {
    std::string text;
    char line[lineBufferSize];
    // getline fails on a line that does not fit, and that ends the reading.
    while (file.getline(line, sizeof line)) {
        const char* kept = line;
        while (UTILITIES::isSpace(*kept)) {
            ++kept;
        }
        if (*kept == '\0' || *kept == '#') {
            continue;
        }
        text += '\n';
        text += kept;
        text += ' ';
    }
    return text;
}

std::vector<std::string> cutDetectorBlocks(const std::string& text) {
    static const std::string blockStart = "detectorID ";
    std::vector<std::string> blocks;
    std::size_t start = text.find(blockStart);
    while (start != std::string::npos) {
        const std::size_t next = text.find(blockStart, start + 1);
        blocks.push_back(text.substr(start, next - start));
        start = next;
    }
    return blocks;
}
