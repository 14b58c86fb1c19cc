// Fuzzes the splitting of command lines and option values into words.
#include "fuzz/input.h"
#include "utilities/text.h"

#include <cstring>

using fuzz::require;

namespace {

/// Splits without quotation marks, the simple way.
std::vector<std::string> plainWords(const std::string& text, char separator) {
    std::vector<std::string> words;
    for (const std::string& part : fuzz::split(text, separator)) {
        if (!part.empty()) {
            words.push_back(part);
        }
    }
    return words;
}

/// True if `words`, one behind the other, are what is left of `text` when nothing but separators
/// and quotation marks is taken out.
bool areParts(const std::vector<std::string>& words, const std::string& text, char separator) {
    std::string joined;
    for (const std::string& word : words) {
        joined += word;
    }
    std::size_t at = 0;
    for (const char character : text) {
        if (at < joined.size() && joined[at] == character) {
            ++at;
        } else if (character != separator && character != '\'' && character != '"') {
            return false;
        }
    }
    return at == joined.size();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Its callers have their text from lines and arguments, which end at a NUL byte.
    std::string text = fuzz::text(data, size);
    text.resize(std::strlen(text.c_str()));
    for (const char separator : {' ', ':'}) {
        const std::vector<char*> pieces = UTILITIES::tokenize(text, separator);
        const std::vector<std::string> words = UTILITIES::splitWords(text, separator);
        require(pieces.size() == words.size(), "both ways give as many words");
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            require(words[i] == pieces[i], "both ways give the same words");
            require(pieces[i][0] != '\0', "no word is empty");
            delete[] pieces[i];
        }
        require(areParts(words, text, separator),
                "words are parts of the text, and nothing else is left out");
        if (text.find_first_of("'\"") == std::string::npos) {
            require(words == plainWords(text, separator),
                    "without quotation marks each separator separates");
        }
        // A word in marks that it does not hold itself comes back whole.
        for (const std::string& word : words) {
            const char mark = word.find('\'') == std::string::npos ? '\'' : '"';
            if (word.find(mark) == std::string::npos) {
                require(UTILITIES::splitWords(mark + word + mark, separator) ==
                            std::vector<std::string>{word},
                        "a word in quotation marks is one word");
            }
        }
    }
    // Nothing is promised of what stands behind a NUL byte, but it does no harm.
    UTILITIES::splitWords(fuzz::text(data, size), ' ');
    return 0;
}
