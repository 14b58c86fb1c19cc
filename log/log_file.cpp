// Collecting text and writing it out.
#include "log/log_file.h"

#include "utilities/descriptors.h"
#include "utilities/mutex_guard.h"

#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t logFileMode = 0644;

/// What an emptied buffer may keep for the next text.
constexpr std::size_t keptCapacity = 65536;

} // namespace

LogFile::LogFile(pthread_mutex_t* fileMutex) : mutex(fileMutex) {
}

LogFile::LogFile(const std::string& name, pthread_mutex_t* fileMutex)
    : mutex(fileMutex), fileName(name) {
    probe();
}

void LogFile::setMutex(pthread_mutex_t* fileMutex) {
    mutex = fileMutex;
}

LogFile& LogFile::open(const std::string& name) {
    openFailed = false;
    fileName = name;
    probe();
    buffer.clear(keptCapacity);
    return *this;
}

void LogFile::probe() {
    // Appending, and closed on exec: no lock is held here, and another worker's "mkdir" must not
    // get it as its error output.
    FILE* const file = fopen(fileName.c_str(), "ae");
    if (file == nullptr) {
        openFailed = true;
        return;
    }
    // The mode must not depend on the umask, which is the user's at start-up and 0 later. A device
    // keeps its own: without it /dev/null, the default log, could not be written by users any more.
    struct stat status {};
    if (fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode)) {
        fchmod(fileno(file), logFileMode);
    }
    fclose(file);
}

LogFile& LogFile::operator<<(LogFile& (*manipulator)(LogFile&)) {
    return manipulator(*this);
}

LogFile& LogFile::endl() {
    buffer.append("\n");
    writeOut();
    return *this;
}

LogFile& LogFile::flush() {
    writeOut();
    return *this;
}

void LogFile::close() {
    openFailed = false;
    writeOut();
}

void LogFile::log(const std::string& text) {
    append(text);
}

void LogFile::append(std::string_view text) const {
    const MutexGuard guard(mutex);
    const Descriptor file(::open(fileName.c_str(), O_WRONLY | O_CREAT | O_APPEND, logFileMode));
    writeUnchecked(file.get(), text);
}

void LogFile::writeOut() {
    append(buffer.view());
    // An idle worker collects separators for days; that memory is not held for ever after.
    buffer.clear(keptCapacity);
}

LogFile& endl(LogFile& logFile) {
    return logFile.endl();
}

LogFile& flush(LogFile& logFile) {
    return logFile.flush();
}
