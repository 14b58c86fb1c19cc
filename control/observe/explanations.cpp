// What a line of the log means, and what helps: the tables of the operator's guide.
#include "control/observe/explanations.h"

#include "log_tables.h"

#include <algorithm>
#include <array>
#include <sstream>

#include <fnmatch.h>

namespace control {

namespace {

/// Words that stand for something else in the tables' lines.
constexpr std::array<std::string_view, 13> placeholders{
    "ID",   "N",      "NAME",   "PID", "COMMAND", "FIRST", "LAST",
    "DATE", "FOLDER", "TARGET", "URL", "LOG",     "reason"};

bool isLetter(char each) {
    return (each >= 'A' && each <= 'Z') || (each >= 'a' && each <= 'z') || each == '_';
}

std::string patternOf(std::string_view line) {
    std::string pattern;
    while (!line.empty()) {
        const auto end = std::find_if_not(line.begin(), line.end(), isLetter);
        const std::string_view word = line.substr(0, static_cast<std::size_t>(end - line.begin()));
        if (std::find(placeholders.begin(), placeholders.end(), word) != placeholders.end()) {
            pattern += '*';
            line.remove_prefix(word.size());
        } else if (!word.empty()) {
            pattern += word;
            line.remove_prefix(word.size());
        } else if (line.substr(0, 3) == "...") {
            pattern += '*';
            line.remove_prefix(3);
        } else {
            if (line.front() == '*' || line.front() == '?' || line.front() == '[' ||
                line.front() == '\\') {
                pattern += '\\';
            }
            pattern += line.front();
            line.remove_prefix(1);
        }
    }
    return pattern + "*";
}

std::string trimmed(const std::string& text) {
    const std::size_t begin = text.find_first_not_of(' ');
    return begin == std::string::npos ? std::string()
                                      : text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

/// The texts of a cell that stand between backticks.
std::vector<std::string> quoted(const std::string& cell) {
    std::vector<std::string> found;
    std::size_t begin = cell.find('`');
    while (begin != std::string::npos) {
        const std::size_t end = cell.find('`', begin + 1);
        if (end == std::string::npos) {
            break;
        }
        found.push_back(cell.substr(begin + 1, end - begin - 1));
        begin = cell.find('`', end + 1);
    }
    return found;
}

} // namespace

std::vector<Explanation> parseExplanations(std::string_view tables) {
    std::vector<Explanation> rows;
    std::istringstream lines{std::string(tables)};
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> cells;
        std::size_t begin = line.find('|');
        while (begin != std::string::npos) {
            const std::size_t end = line.find('|', begin + 1);
            if (end == std::string::npos) {
                break;
            }
            cells.push_back(trimmed(line.substr(begin + 1, end - begin - 1)));
            begin = end;
        }
        if (cells.size() != 3 || cells[0].find('`') == std::string::npos) {
            continue;
        }
        Explanation row{{}, cells[1], cells[2]};
        for (const std::string& text : quoted(cells[0])) {
            row.patterns.push_back(patternOf(text));
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

const Explanation* explanationOf(const std::string& line) {
    static const std::vector<Explanation> rows = parseExplanations(logTables);
    for (const Explanation& row : rows) {
        for (const std::string& pattern : row.patterns) {
            if (fnmatch(pattern.c_str(), line.c_str(), 0) == 0) {
                return &row;
            }
        }
    }
    return nullptr;
}

} // namespace control
