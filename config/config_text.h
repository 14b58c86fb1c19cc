// Reducing the configuration file to the text in which keys are looked up.
#pragma once

#include <istream>
#include <string>
#include <vector>

/// Reads a configuration file line by line and returns, for every line that is neither empty nor a
/// comment (first non-blank character "#"), a line feed, the line without its leading white space,
/// and one space. So every key stands right behind a line feed, and a key that stands alone on its
/// line is followed by a space too. Reading ends, silently, at the first line of 1,024 characters
/// or more: it and all that follows are ignored. A line is taken up to its first NUL byte.
std::string readConfigText(std::istream& file);

/// Cuts a configuration text into one block for each occurrence of "detectorID ", wherever in a
/// line it stands: each from there to the next occurrence, the last one to the end of the text.
/// What stands before the first belongs to none.
std::vector<std::string> cutDetectorBlocks(const std::string& text);
