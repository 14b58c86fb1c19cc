// What a line of the log means, and what helps: the tables of the operator's guide.
#pragma once

#include <string>
#include <vector>

namespace control {

struct Explanation {
    std::vector<std::string> patterns; // of the shell's kind, for a whole line
    std::string cause;
    std::string cure; // empty: there is nothing to do
};

/// The rows "| `LINE` | cause | cure |" of a text. Words in capitals, such as NAME, and "..." stand
/// for anything in a line; what follows one does not matter.
std::vector<Explanation> parseExplanations(const std::string& tables);

/// The first of the guide's rows that explains a line; null if none does.
const Explanation* explanationOf(const std::string& line);

} // namespace control
