// skarn-relay: reads the daemon's pipe, keeps every announcement, and delivers it to subscribers.
#include "relay/command_line.h"

#include <csignal>
#include <cstdlib>

#include <unistd.h>

int main(int argc, char** argv) {
    std::function<void()> afterCommit;
#ifdef SKARN_RELAY_TEST_HOOKS
    // A file that a variable names stops the relay between the commit and the taking out, so that a
    // test can kill it there.
    if (const char* const file = std::getenv("SKARN_RELAY_STOP_AFTER_COMMIT")) {
        afterCommit = [file] {
            if (::access(file, F_OK) == 0) {
                std::raise(SIGSTOP);
            }
        };
    }
#endif
    return relay::runCommandLine(argc, argv, std::move(afterCommit));
}
