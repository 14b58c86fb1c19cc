// All figures: what each is called in JSON and for Prometheus, and what it means.
#pragma once

#include "control/observe/snapshot.h"

#include <string>
#include <string_view>

namespace control {

/// One snapshot as a JSON object, in one line or with indents. Only ASCII: other characters are
/// written as \uXXXX, bytes that are no UTF-8 as U+FFFD.
std::string jsonText(const Snapshot& snapshot, bool inOneLine);

/// The figures in Prometheus's text form. What is not known has no sample, rather than a 0 that
/// reads like a figure.
std::string metricsText(const Snapshot& snapshot);

/// A text of any bytes as the value of a label: UTF-8, in which backslashes, control characters and
/// bytes that are no UTF-8 are written as \ooo. Different texts give different values, none of them
/// empty.
std::string labelValue(std::string_view text);

/// The name of a state that other programs read.
const char* nameOf(DetectorSnapshot::State state);

} // namespace control
