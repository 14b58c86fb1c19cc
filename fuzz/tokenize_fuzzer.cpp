// Fuzzes the splitting of command lines and option values into words.
#include "fuzz/input.h"
#include "utilities/text.h"

#include <algorithm>
#include <cstring>

using fuzz::require;

namespace {

/// The words, with what stands between two marks taken as a whole.
std::vector<std::string> expectedWords(const std::string& text, char separator) {
    std::vector<std::string> words;
    std::string word;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\'' || text[at] == '"') {
            const std::size_t end = std::min(text.find(text[at], at + 1), text.size());
            word += text.substr(at + 1, end - at - 1);
            at = end;
        } else if (text[at] != separator) {
            word += text[at];
        }
        const bool ends = at + 1 >= text.size() || text[at] == separator;
        if (ends && !word.empty()) {
            words.push_back(word);
            word.clear();
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
        require(words == expectedWords(text, separator), "separators outside of marks separate");
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
