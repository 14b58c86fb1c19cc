// What is told in JSON, one object on a line: of records, docs/relay-record.schema.json has the
// form.
#pragma once

#include "relay/record.h"
#include "relay/record_log.h"

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace relay {

/// Keeps its keys in the order in which they were added.
using Json = nlohmann::ordered_json;

/// Appends the record as one JSON object, without a line feed.
void appendJson(const Record& record, std::string& text);

Json jsonOf(const DeadLetter& letter);

/// Adds the bytes under that key; what is no UTF-8 percent-encoded under KEY_percent.
void addBytes(Json& object, const std::string& key, const std::string& bytes);

/// The object's text: UTF-8 (what is none is replaced), on one line, with nothing in it that steers
/// a terminal, without a line feed.
std::string jsonText(const Json& object);

/// True if the bytes are UTF-8 as JSON may carry it: no surrogates, nothing overlong.
bool isUtf8(std::string_view bytes);

/// The bytes with all but letters, digits and /._-~ as %XX.
std::string percentEncoded(std::string_view bytes);

/// Nanoseconds as seconds, to the last digit: "1767225600.000000001".
std::string secondsText(std::int64_t nanoseconds);

} // namespace relay
