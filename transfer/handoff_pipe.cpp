// Opening, writing and closing the consumer's named pipe.
#include "transfer/handoff_pipe.h"

#include "daemon/global.h"
#include "log/log_file.h"
#include "transfer/thread.h"
#include "utilities/descriptors.h"
#include "utilities/sleep.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr long pauseForDescriptors = 50; // milliseconds

} // namespace

HandoffPipe::HandoffPipe(LogFile& evaluatorLog, const std::string& targetDirectory)
    : log(evaluatorLog), record(targetDirectory + "/"), sharedSize(record.size()) {
}

void HandoffPipe::open() {
    const char* const path = GLOBAL::pathToVantrelFifo.c_str();
    if (access(path, F_OK) != 0) {
        log << "++ Warning: No pipe to VANTREL" << endl;
        pipeDescriptor = 0;
        return;
    }
    // The copy process has begun: all that it confirms without a pipe stays unannounced for ever.
    // A report that nobody reads yet stops it, as it does while there is no reader.
    int error = openOnce(path);
    while (error == EMFILE || error == ENFILE) {
        UTILITIES::sleepMilliSeconds(pauseForDescriptors);
        error = openOnce(path);
    }
}

/// Returns 0, or why it failed.
int HandoffPipe::openOnce(const char* path) {
    // Its number is taken before the wait for a reader begins, which may be long. The shield keeps
    // it above 2 from the first moment, so that no child that another worker starts meanwhile can
    // write into it.
    const StandardDescriptorsShield shield(Thread::mainMutex);
    pipeDescriptor = moveAboveStandard(::open(path, O_WRONLY));
    return pipeDescriptor < 0 ? errno : 0;
}

void HandoffPipe::pass(std::string_view name) {
    if (pipeDescriptor == 0) {
        return;
    }
    record.resize(sharedSize);
    record += name;
    record += '\n';
    if (record.size() > PIPE_BUF) {
        log << "++ Warning: Path to \"" << name << "\" is longer than " << PIPE_BUF << "\n";
        log << "            Atomicity of pipe operation is not guaranteed." << endl;
    }
    if (write(pipeDescriptor, record.data(), record.size()) < 0) {
        const int error = errno;
        log << "++ Error: Failed to pass " << name << " to VANTREL\n";
        if (error == EAGAIN) {
            log << "          Pipe to VANTREL has overflown\n";
        } else {
            char text[1024];
            log << "          " << strerror_r(error, text, sizeof text) << "\n";
        }
        log << flush;
    }
}

void HandoffPipe::close() {
    if (pipeDescriptor > 0) {
        ::close(pipeDescriptor);
    }
    pipeDescriptor = 0;
}

void sendUsershift() {
    const char* const path = GLOBAL::pathToVantrelFifo.c_str();
    if (access(path, F_OK) != 0) {
        return;
    }
    const int descriptor = moveAboveStandard(open(path, O_WRONLY | O_NONBLOCK));
    writeUnchecked(descriptor, "usershift: " + GLOBAL::uid + " " + GLOBAL::gid + "\n");
}
