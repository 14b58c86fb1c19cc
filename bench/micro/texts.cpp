// Making up names, listings and reports.
#include "bench/micro/texts.h"

#include <algorithm>
#include <cstdio>

std::string nameOf(int number) {
    char name[64];
    std::snprintf(name, sizeof name, "run_%05d/frame_%010d.raw", number / 1000, number);
    return name;
}

std::string listingOf(int files) {
    std::string text;
    for (int i = 0; i < files; ++i) {
        text += "-rw-r--r--         20,000 2026/01/02 03:04:05 " + nameOf(i) + "\n";
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
    for (int i = 0; i < files; ++i) {
        records.push_back(target + "/" + nameOf(i) + "\n");
    }
    return records;
}
