// Remembering the folder.
#include "bench/micro/scratch_folder.h"

namespace {

std::string& folder() {
    static std::string path;
    return path;
}

} // namespace

void setScratchFolder(const std::string& path) {
    folder() = path;
}

std::string inScratchFolder(const std::string& name) {
    return folder() + "/" + name;
}
