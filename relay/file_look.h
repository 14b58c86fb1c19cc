// What is in place under an announced path, asked without following any link below the target.
#pragma once

#include "relay/record.h"
#include "relay/targets.h"
#include "utilities/descriptors.h"

#include <string>
#include <string_view>

struct stat;

namespace relay {

/// Opens what is below a folder, out of which it may not lead, and on whose way no link may lie:
/// ELOOP then, or EXDEV. -1 and errno if it can't be opened.
int openBeneath(int folder, const std::string& name, int flags);

/// What tells the file of that status from others.
Identity identityOf(const struct stat& status);

/// Looks at files one after the other, mostly of the same folder: that is opened once. For a number
/// of looks at about the same time, since a folder may be moved or replaced in between.
class FileLook {
public:
    /// Fills in what is in place under the record's path. Nothing is opened for reading, and no
    /// link is followed below the target.
    void at(const Located& place, Record& record);

private:
    Descriptor target;
    std::string targetPath;
    int targetError = 0; // an errno value, if it could not be opened
    Descriptor folder;
    std::string folderName; // below the target
    int folderError = 0;    // an errno value, if it could not be opened
};

} // namespace relay
