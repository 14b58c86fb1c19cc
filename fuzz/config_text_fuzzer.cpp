// Fuzzes the configuration: from the bytes of the file to its text, the settings and the detectors.
#include "config/config_text.h"
#include "fuzz/input.h"
#include "transfer/worker.h"
#include "utilities/text.h"

#include <climits>
#include <cstring>
#include <optional>
#include <sstream>

using fuzz::require;

namespace {

/// The text of a configuration file, told line by line.
std::string expectedText(const std::string& file) {
    std::string text;
    for (const std::string& line : fuzz::split(file, '\n')) {
        if (line.size() >= 1024) {
            break;
        }
        const char* kept = line.c_str();
        while (fuzz::isSpace(*kept)) {
            ++kept;
        }
        if (*kept != '\0' && *kept != '#') {
            text += std::string("\n") + kept + " ";
        }
    }
    return text;
}

/// What stands behind the key in its line and all following lines; nothing when the key has no
/// value.
std::optional<std::string> expectedRest(const std::string& text, const std::string& key) {
    std::size_t begin = 0;
    for (const std::string& line : fuzz::split(text, '\n')) {
        if (line.compare(0, key.size() + 1, key + " ") == 0) {
            const std::size_t blanks = line.find_first_not_of(' ', key.size());
            if (blanks == std::string::npos) {
                return std::nullopt;
            }
            return text.substr(begin + blanks);
        }
        begin += line.size() + 1;
    }
    return std::nullopt;
}

void checkWord(const std::string& text, const char* key, const std::string& before) {
    std::string word = before;
    const bool found = UTILITIES::readVar(text, key, word);
    const std::optional<std::string> rest = expectedRest(text, key);
    require(found == rest.has_value(), "a word is found if its key begins a line and has a value");
    std::string expected = before;
    if (rest) {
        std::size_t begin = 0;
        while (begin < rest->size() && fuzz::isSpace((*rest)[begin])) {
            ++begin;
        }
        std::size_t end = begin;
        while (end < rest->size() && !fuzz::isSpace((*rest)[end])) {
            ++end;
        }
        if (end > begin) {
            expected = rest->substr(begin, end - begin);
        }
    }
    require(word == expected,
            "a word reaches from the first byte that is no white space to the next that is");
}

void checkNumber(const std::string& text, const char* key) {
    constexpr int before = 77;
    int number = before;
    const bool found = UTILITIES::readVar(text, key, number);
    const std::optional<std::string> rest = expectedRest(text, key);
    require(found == rest.has_value(),
            "a number is found if its key begins a line and has a value");
    if (!rest) {
        require(number == before, "a number without a value stays");
        return;
    }
    const char* at = rest->c_str();
    while (fuzz::isSpace(*at)) {
        ++at;
    }
    const bool negative = *at == '-';
    if (*at == '-' || *at == '+') {
        ++at;
    }
    bool digits = false;
    constexpr long tooLarge = 1'000'000'000'000;
    long value = 0;
    for (; *at >= '0' && *at <= '9'; ++at) {
        digits = true;
        value = value > tooLarge ? value : value * 10 + (*at - '0');
    }
    value = negative ? -value : value;
    const bool fits = digits && value >= INT_MIN && value <= INT_MAX;
    require(number == (fits ? value : before), "a number is read in full, or stays as it was");
}

void checkSize(const std::string& text, const char* key) {
    constexpr int before = 77;
    int size = before;
    const bool found = UTILITIES::parseSizeVar(text, key, size);
    const std::optional<std::string> rest = expectedRest(text, key);
    if (!found) {
        require(size == before, "a size without a value stays");
    }
    require(rest || !found, "a size is found only if its key begins a line and has a value");
    if (!rest) {
        return;
    }
    const char* at = rest->c_str();
    const bool isSigned = *at == '-' || *at == '+';
    const bool negative = *at == '-';
    at += isSigned ? 1 : 0;
    while (isSigned && *at == ' ') {
        ++at;
    }
    require(found == !(isSigned && (*at == '\n' || *at == '\0')), "a sign alone is no size");
    if (!found) {
        return;
    }
    unsigned __int128 digits = 0;
    for (; *at >= '0' && *at <= '9'; ++at) {
        digits = digits > LONG_MAX ? digits : digits * 10 + static_cast<unsigned>(*at - '0');
    }
    digits = digits > LONG_MAX ? LONG_MAX : digits;
    while (*at == ' ') {
        ++at;
    }
    const std::uint32_t factor = *at == 'K'   ? 1024U
                                 : *at == 'M' ? 1048576U
                                 : *at == 'G' ? 1073741824U
                                              : 1U;
    std::uint32_t expected = static_cast<std::uint32_t>(digits) * factor;
    expected = negative ? 0U - expected : expected;
    require(static_cast<std::uint32_t>(size) == expected,
            "a size is digits times unit, wrapped at 32 bits");
}

void checkBlocks(const std::string& text) {
    const std::string start = "detectorID ";
    const std::vector<std::string> blocks = cutDetectorBlocks(text);
    std::string joined;
    for (const std::string& block : blocks) {
        require(block.compare(0, start.size(), start) == 0, "a block begins with its key");
        require(block.find(start, 1) == std::string::npos, "a block has its key once");
        joined += block;
    }
    const std::size_t first = text.find(start);
    require(joined == (first == std::string::npos ? "" : text.substr(first)),
            "blocks cover all from the first on");

    int minPause = 0;
    int interrunPause = 0;
    for (const std::string& block : blocks) {
        for (const char* key : {"detectorID", "remoteIP", "source", "target"}) {
            checkWord(block, key, "");
        }
        checkNumber(block, "minpause");
        std::string id;
        std::string remoteIp;
        std::string source;
        std::string target;
        UTILITIES::readVar(block, "detectorID", id);
        UTILITIES::readVar(block, "remoteIP", remoteIp);
        UTILITIES::readVar(block, "source", source);
        UTILITIES::readVar(block, "target", target);
        UTILITIES::readVar(block, "minpause", minPause);
        UTILITIES::readVar(block, "interrun_pause", interrunPause);
        const Worker worker(id, remoteIp, source, target, minPause, interrunPause);
        require(worker.target().find("/.") != std::string::npos, "a target holds /.");
        require(worker.target().compare(0, target.size(), target) == 0,
                "a target begins as configured");
    }
    require(Worker::workers.empty(), "the registry holds living workers only");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes = fuzz::text(data, size);
    std::istringstream file(bytes);
    const std::string text = readConfigText(file);
    require(text == expectedText(bytes), "the text holds the lines that count");
    for (const char* key : {"logfile", "uid", "gid", "usrdir"}) {
        checkWord(text, key, "");
        checkWord(text, key, "default");
    }
    checkNumber(text, "logfile_max_number");
    checkSize(text, "logfile_max_size");
    checkBlocks(text);
    return 0;
}
