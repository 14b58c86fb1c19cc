// Text utilities that the configuration, the command line and the workers share.
#pragma once

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace UTILITIES {

/// Where the value of `key` starts in a configuration text: after the first occurrence of a line
/// feed, the key and one space, and after the spaces that follow. std::string::npos when the key is
/// absent, or when its line (or the text) ends there, so that it has no value. The key on the first
/// line needs no line feed in front if `text` has one put there by the caller.
std::size_t findValue(const std::string& text, const std::string& key);

/// Looks `key` up in a configuration text: it must begin a line and be followed by a space; its
/// first occurrence wins. Returns false, the variable untouched, when the key is absent or has no
/// value before the end of its line. Otherwise extracts a value with standard stream extraction
/// from there to the end of the text and returns true. What can't be extracted (no number, or one
/// that does not fit) leaves the variable as it was; the result is true all the same. A value made
/// only of blanks and a tab takes the first word of the next line, since extraction skips the line
/// end.
template<typename T>
bool readVar(const std::string& text, const std::string& key, T& variable) {
    const std::string haystack = "\n" + text;
    const std::size_t start = findValue(haystack, key);
    if (start == std::string::npos) {
        return false;
    }
    std::istringstream stream(haystack.substr(start));
    // Not into the variable itself: a failed extraction of an integer would set it to 0.
    T value{};
    if (stream >> value) {
        variable = value;
    }
    return true;
}

/// Like readVar<int>, for a size: an optional sign, decimal digits (none: 0), and a unit K, M or G
/// (powers of 1024; anything else is bytes). The product is computed in 32 bits and wraps: 2G is
/// -2147483648, 4G is 0. Only a key behind a line feed is found.
bool parseSizeVar(const std::string& text, const std::string& key, int& variable);

/// True when `text` begins with `prefix`, byte for byte.
bool stringBegin(std::string_view text, std::string_view prefix);

/// White space as the C locale has it, whatever the locale is.
constexpr bool isSpace(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

/// Takes the first word, delimited by white space, off the front of `text`, and what is before it;
/// empty when there is none.
std::string_view takeWord(std::string_view& text);

/// Splits `text` at `separator` outside single and double quotation marks. The marks are removed,
/// one kind inside the other is an ordinary character, an open one runs to the end; there is no
/// escape character. Empty words are dropped. Each word is a NUL-terminated array of its own, which
/// the caller releases with delete[].
std::vector<char*> tokenize(const std::string& text, char separator);

/// The words of `tokenize` as strings, nothing left to release.
std::vector<std::string> splitWords(const std::string& text, char separator);

} // namespace UTILITIES
