// Filling and emptying pipes.
#include "bench/micro/pipes.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Ends the program unless the call that `name` stands for succeeded.
void require(bool succeeded, const char* name) {
    if (!succeeded) {
        std::perror(name);
        std::exit(EXIT_FAILURE);
    }
}

void widen(int pipeEnd) {
    require(fcntl(pipeEnd, F_SETPIPE_SZ, static_cast<int>(pipeCapacity)) >= 0, "F_SETPIPE_SZ");
}

} // namespace

FedPipe::FedPipe(std::string_view text, Peer peer) {
    int ends[2];
    require(pipe2(ends, O_CLOEXEC) == 0, "pipe2");
    readEnd = Descriptor(ends[0]);
    Descriptor writeEnd(ends[1]);
    if (peer == Peer::still) {
        widen(ends[1]);
        require(text.size() <= pipeCapacity && writeAll(writeEnd.get(), text), "still pipe");
    } else {
        writer = std::thread([end = std::move(writeEnd), text] { writeAll(end.get(), text); });
    }
}

FedPipe::~FedPipe() {
    if (writer.joinable()) {
        writer.join();
    }
}

DrainedFifo::DrainedFifo(std::string path, Peer peer) : fifoPath(std::move(path)), kind(peer) {
    require(mkfifo(fifoPath.c_str(), 0600) == 0, fifoPath.c_str());
    readEnd = Descriptor(open(fifoPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    require(readEnd.get() >= 0, fifoPath.c_str());
    if (kind == Peer::still) {
        widen(readEnd.get());
    } else {
        writeEnd = Descriptor(open(fifoPath.c_str(), O_WRONLY | O_CLOEXEC));
        fcntl(readEnd.get(), F_SETFL, O_RDONLY);
        reader = std::thread([this] { receivedByThread = readAll(); });
    }
}

DrainedFifo::~DrainedFifo() {
    drain();
    unlink(fifoPath.c_str());
}

std::size_t DrainedFifo::drain() {
    if (kind == Peer::still) {
        return readAll();
    }
    writeEnd.reset();
    if (reader.joinable()) {
        reader.join();
    }
    return std::exchange(receivedByThread, 0);
}

std::size_t DrainedFifo::readAll() const {
    std::size_t total = 0;
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t count = read(readEnd.get(), buffer.data(), buffer.size());
        if (count <= 0) {
            return total;
        }
        total += static_cast<std::size_t>(count);
    }
}
