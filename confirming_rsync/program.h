// The program's two ways: the listing, which stock rsync does alone, and the copy with its report.
#pragma once

#include "confirming_rsync/copy_run.h"

namespace confirming {

/// Does what the command line asks, with the given stock rsync and journals. `argv` and
/// `environment` are as main gets them. Returns the exit status; does not return where stock rsync
/// takes the program's place, or where a signal ends it.
int runProgram(const Places& places, const Limits& limits, int argc, char** argv,
               char** environment);

} // namespace confirming
