// What the daemon reads, made up: names, the lines of a listing and those of a report.
#pragma once

#include <string>
#include <vector>

/// The number-th file's name: 30 characters, in folders of a thousand.
std::string nameOf(int number);

/// The line with which a copy program lists the number-th file.
std::string listingLineOf(int number);

/// The lines with which a copy program lists so many files.
std::string listingOf(int files);

/// The lines with which a copy process reports so many files. A file is confirmed once `lag` more
/// have been announced, as it is when the answer has a way to go; a lag of `files` or more confirms
/// all at the end.
std::string reportOf(int files, int lag);

/// The records that the consumer gets for such a report, each with its line feed.
std::vector<std::string> recordsOf(int files, const std::string& target);
