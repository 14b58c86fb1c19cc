// Looking up configuration values, and splitting text.
#include "utilities/text.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

std::size_t UTILITIES::findValue(const std::string& text, const std::string& key) {
    const std::string needle = "\n" + key + " ";
    const std::size_t found = text.find(needle);
    if (found == std::string::npos) {
        return std::string::npos;
    }
    const std::size_t start = text.find_first_not_of(' ', found + needle.size());
    if (start == std::string::npos || text[start] == '\n') {
        return std::string::npos;
    }
    return start;
}

bool UTILITIES::parseSizeVar(const std::string& text, const std::string& key, int& variable) {
    std::size_t position = findValue(text, key);
    if (position == std::string::npos) {
        return false;
    }
    // Past the end stands a NUL, which is neither a digit nor a unit.
    const auto at = [&text](std::size_t index) { return index < text.size() ? text[index] : '\0'; };
    const auto skipSpaces = [&position, &at] {
        while (at(position) == ' ') {
            ++position;
        }
    };

    std::uint32_t sign = 1;
    if (at(position) == '+' || at(position) == '-') {
        if (at(position) == '-') {
            sign = static_cast<std::uint32_t>(-1);
        }
        ++position;
        skipSpaces();
        if (position >= text.size() || at(position) == '\n') {
            return false;
        }
    }

    std::string digits;
    while (at(position) >= '0' && at(position) <= '9') {
        digits += at(position++);
    }
    skipSpaces();
    std::uint32_t factor = 1;
    switch (at(position)) {
    case 'K':
        factor = 1U << 10;
        break;
    case 'M':
        factor = 1U << 20;
        break;
    case 'G':
        factor = 1U << 30;
        break;
    default:
        break;
    }
    // Unsigned, for the wrap at 32 bits is what a size that is too large gives.
    const auto number = static_cast<std::uint32_t>(strtol(digits.c_str(), nullptr, 10));
    variable = static_cast<int>(number * sign * factor);
    return true;
}

bool UTILITIES::stringBegin(std::string_view text, std::string_view prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string_view UTILITIES::takeWord(std::string_view& text) {
    std::size_t begin = 0;
    while (begin < text.size() && isSpace(text[begin])) {
        ++begin;
    }
    std::size_t end = begin;
    while (end < text.size() && !isSpace(text[end])) {
        ++end;
    }
    const std::string_view word = text.substr(begin, end - begin);
    text.remove_prefix(end);
    return word;
}

std::vector<char*> UTILITIES::tokenize(const std::string& text, char separator) {
    std::vector<char*> words;
    std::string word;
    bool insideSingle = false;
    bool insideDouble = false;
    const auto endWord = [&words, &word] {
        if (!word.empty()) {
            char* const copy = new char[word.size() + 1];
            std::copy(word.begin(), word.end(), copy);
            copy[word.size()] = '\0';
            words.push_back(copy);
            word.clear();
        }
    };
    for (const char character : text) {
        if (character == separator && !insideSingle && !insideDouble) {
            endWord();
        } else if (character == '\'' && !insideDouble) {
            insideSingle = !insideSingle;
        } else if (character == '"' && !insideSingle) {
            insideDouble = !insideDouble;
        } else {
            word += character;
        }
    }
    endWord();
    return words;
}

std::vector<std::string> UTILITIES::splitWords(const std::string& text, char separator) {
    std::vector<std::string> words;
    for (char* const word : tokenize(text, separator)) {
        words.emplace_back(word);
        delete[] word;
    }
    return words;
}
