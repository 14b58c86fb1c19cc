// The consumer's end of a named pipe.
#include "tests/unit/support/fifo_reader.h"

#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

void makeFifo(const std::string& path) {
    if (mkfifo(path.c_str(), 0600) != 0) {
        perror("mkfifo");
        abort();
    }
}

FifoReader::FifoReader(const std::string& path)
    : descriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    if (descriptor < 0) {
        perror("open of the named pipe");
        abort();
    }
}

FifoReader::~FifoReader() {
    close();
}

const std::string& FifoReader::text() {
    char buffer[65536];
    ssize_t count = 0;
    while ((count = read(descriptor, buffer, sizeof buffer)) > 0) {
        received.append(buffer, static_cast<std::size_t>(count));
    }
    return received;
}

void FifoReader::close() {
    if (descriptor >= 0) {
        ::close(descriptor);
        descriptor = -1;
    }
}
