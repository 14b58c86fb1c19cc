// What a copy process reports: reading its lines, and the account of its files.
#pragma once

#include "transfer/name_set.h"

#include <string>
#include <string_view>

/// One line of a report, or one piece of a line that did not fit the reader's buffer.
struct ReportLine {
    enum class Kind {
        skipped,   // begins with a NUL byte
        sent,      // first word "SENT:"
        confirmed, // first word "CONFIRMED:"
        output     // anything else, blank lines included
    };
    Kind kind;
    std::string_view
        name; // of the file, a part of the text that was parsed; empty if the line names none
};

/// Reads one piece as it came, line feed included. Words are delimited by white space, so that a
/// name is cut at its first blank. A "SENT:" line names its second word, a "CONFIRMED:" line its
/// third.
ReportLine parseReportLine(std::string_view piece);

/// The account of one copy process: which files it announced and confirmed, and what else it
/// printed.
class TransferAccount {
public:
    /// A file was announced. A name that is empty or already open changes nothing. It must not hold
    /// a NUL byte, which no line can be read with.
    void addSent(std::string_view name);

    /// A file was confirmed: it counts, announced or not, each time. An empty name changes nothing.
    void addConfirmed(std::string_view name);

    /// Anything else the process printed, kept as it came.
    void addOutput(std::string_view piece);

    /// The text that the log gets at the end: a line for each file announced and never confirmed,
    /// in byte-wise order, then the block with the process's output and the summary.
    std::string summary() const;

private:
    NameSet sentNames;          // announced and not yet confirmed
    std::string firstConfirmed; // empty until there is one
    std::string lastConfirmed;  // likewise
    int copiedCount = 0;
    std::string rsyncOutput;
};
