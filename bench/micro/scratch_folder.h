// Where the benchmarks keep the files they write.
#pragma once

#include <string>

/// To be called once, before any benchmark runs. The folder must be there; it is left behind with
/// whatever was written.
void setScratchFolder(const std::string& path);

/// The path of this name in the folder.
std::string inScratchFolder(const std::string& name);
