// Writing the PID file.
#include "utilities/pid_file.h"

#include "utilities/descriptors.h"

#include <fcntl.h>
#include <unistd.h>

int UTILITIES::setPidFile(const std::string& path, const std::vector<int>& pids) {
    const Descriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, controlFileMode));
    if (file.get() < 0) {
        return 64;
    }
    std::string lines = std::to_string(getpid()) + "\n";
    for (const int pid : pids) {
        if (pid != 0) {
            lines += std::to_string(pid) + "\n";
        }
    }
    // Up to the first failure: if a line were lost and there were room again for the next one, a
    // copy process would stand in line 1 and pass for the daemon.
    writeAll(file.get(), lines);
    return 0;
}
