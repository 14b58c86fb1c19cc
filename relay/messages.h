// What the relay tells its operator: lines on standard error, which the journal keeps.
#pragma once

#include <string>

namespace relay {

/// One sentence on something that wants to be looked at.
void warn(const std::string& sentence);

/// One sentence on something that went as it should.
void inform(const std::string& sentence);

/// Any bytes as they can be shown in a sentence: what could steer a terminal is written as \ooo,
/// and what is longer than a few hundred bytes is cut off.
std::string shown(const std::string& bytes);

/// What errno says, with its words.
std::string systemError(int error);

} // namespace relay
