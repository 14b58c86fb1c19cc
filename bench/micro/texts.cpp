// Making up names, listings and reports.
#include "bench/micro/texts.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

std::string nameOf(int number) {
    char name[64];
    std::snprintf(name, sizeof name, "run_%05d/frame_%010d.raw", number / 1000, number);
    return name;
}

std::string listingLineOf(int number) {
    // Sizes of one to seven digits, as a listing shows them.
    const int size = static_cast<int>(std::int64_t{number} * 7919 % 10007 * 999 >> number % 20);
    std::string digits = std::to_string(size);
    for (std::size_t i = digits.size(); i > 3; i -= 3) {
        digits.insert(i - 3, ",");
    }
    char line[128];
    std::snprintf(line, sizeof line, "-rw-r--r-- %14s 2026/01/02 03:04:05 %s\n", digits.c_str(),
                  nameOf(number).c_str());
    return line;
}

std::string listingOf(int files) {
    std::string text;
    for (int i = 0; i < files; ++i) {
        text += listingLineOf(i);
    }
    return text;
}

std::string reportOf(int files, int lag) {
    std::string text;
    for (int i = 0; i < files; ++i) {
        text += "SENT: " + nameOf(i) + "\n";
        if (i >= lag) {
            text += "CONFIRMED: removed " + nameOf(i - lag) + "\n";
        }
    }
    for (int i = std::max(files - lag, 0); i < files; ++i) {
        text += "CONFIRMED: removed " + nameOf(i) + "\n";
    }
    return text;
}

std::vector<std::string> recordsOf(int files, const std::string& target) {
    std::vector<std::string> records;
    records.reserve(static_cast<std::size_t>(files));
    for (int i = 0; i < files; ++i) {
        records.push_back(target + "/" + nameOf(i) + "\n");
    }
    return records;
}
