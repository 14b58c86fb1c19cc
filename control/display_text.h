// Text of unknown origin made fit for a terminal: no byte of it steers the terminal, and its width
// is known.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace control {

/// The text with every byte written as \ooo that is not part of a plain character of UTF-8.
/// Overlong forms, surrogates and codes beyond U+10FFFF are no UTF-8.
std::string escaped(std::string_view text, bool (*isPlain)(char32_t code));

/// The same for a terminal: plain is what is visible. Control characters are not, nor are those
/// without a width of their own (such as those that turn the direction of writing). Without
/// `unicode`, for a terminal that only knows ASCII, nothing above 0x7e is plain. With it the
/// process's locale must be a UTF-8 one, for wcwidth().
std::string displayable(std::string_view text, bool unicode);

/// The columns that a displayable text takes.
int displayWidth(std::string_view text);

/// A displayable text cut to a number of columns. Where something is missing stands "…", or ".."
/// without `unicode`: at the end, or in the middle, since names differ at both ends.
std::string cut(std::string_view text, int columns, bool unicode, bool inTheMiddle = false);

std::string joined(const std::vector<std::string>& texts, const char* separator);

/// "1,234,567"
std::string grouped(std::uint64_t number);

/// "17 B", "1.2 KiB", "340 GiB": three digits or so, in steps of 1,024.
std::string byteText(std::uint64_t bytes);

/// "45 s", "12 min", "3 h 20 min", "4 d 3 h": what matters of a duration in seconds.
std::string durationText(double seconds);

/// Local time as "2026-11-21 12:02:17", or in another format of strftime.
std::string localTime(double secondsSince1970, const char* format = "%Y-%m-%d %H:%M:%S");

/// A rate as "0", "0.4", "12" or "1,234"; without a unit.
std::string rateText(double perSecond);

} // namespace control
