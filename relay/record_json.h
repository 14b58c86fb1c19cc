// Records as JSON, one on a line: the form is documented in docs/relay-record.schema.json.
#pragma once

#include "relay/record.h"

#include <string>
#include <string_view>

namespace relay {

/// Appends the record as one JSON object, without a line feed.
void appendJson(const Record& record, std::string& text);

/// True if the bytes are UTF-8 as JSON may carry it: no surrogates, nothing overlong.
bool isUtf8(std::string_view bytes);

/// The bytes with all but letters, digits and /._-~ as %XX.
std::string percentEncoded(std::string_view bytes);

/// The text as a JSON string, with its quotes. It must be UTF-8.
std::string jsonString(std::string_view text);

/// Nanoseconds as seconds, to the last digit: "1767225600.000000001".
std::string secondsText(std::int64_t nanoseconds);

} // namespace relay
