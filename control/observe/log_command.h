// skarnctl log: the daemon's log, readable.
#pragma once

#include "control/observe/log_follower.h"

#include <string>
#include <utility>
#include <vector>

namespace control {

/// How the log is to be shown.
struct LogView {
    std::string detector; // only this one's lines, and those that bear no detector's name
    bool explain = false; // cause and cure below each line that has one
    bool colours = false;
    bool unicode = false;
};

/// Makes the log readable: the marks between cycles are left out, and the block of a copy process
/// becomes one line with its complaints below it.
class ReadableLog : public LogSink {
public:
    explicit ReadableLog(LogView how) : view(std::move(how)) {}

    void takeLines(std::string_view lines) override;
    void takeGap() override;

    /// What is to be printed by now.
    std::string take() { return std::exchange(text, {}); }

private:
    void takeLine(const std::string& line);
    void endBlock();
    void print(const char* colour, const std::string& line, const std::string& indent);

    LogView view;
    std::string text;
    bool inBlock = false;
    std::vector<std::string> block;
    std::size_t leftOut = 0;
};

} // namespace control
