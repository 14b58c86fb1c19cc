// What is in a named pipe, without consuming it.
#include "relay/pipe_copy.h"

#include "relay/messages.h"

#include <cerrno>
#include <stdexcept>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace relay {

PipeCopy::PipeCopy(int likePipe) {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::runtime_error("cannot make a pipe: " + systemError(errno));
    }
    out = Descriptor(ends[0]);
    in = Descriptor(ends[1]);
    ::fcntl(in.get(), F_SETPIPE_SZ, ::fcntl(likePipe, F_GETPIPE_SZ));
}

bool PipeCopy::take(int fromPipe, std::size_t most, std::string& bytes) {
    bytes.clear();
    const ssize_t count = TEMP_FAILURE_RETRY(::tee(fromPipe, in.get(), most, SPLICE_F_NONBLOCK));
    if (count <= 0) {
        return count == 0 || errno == EAGAIN;
    }
    bytes.resize(static_cast<std::size_t>(count));
    std::size_t got = 0;
    while (got < bytes.size()) {
        const ssize_t part =
            TEMP_FAILURE_RETRY(::read(out.get(), bytes.data() + got, bytes.size() - got));
        if (part <= 0) {
            return false;
        }
        got += static_cast<std::size_t>(part);
    }
    return true;
}

Descriptor openPipe(const std::string& path, mode_t mode) {
    if (::mkfifo(path.c_str(), mode) == 0) {
        ::chmod(path.c_str(), mode); // whatever the umask
    } else if (errno != EEXIST) {
        throw std::runtime_error("cannot make the pipe " + path + ": " + systemError(errno));
    }
    Descriptor pipe(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!pipe || ::fstat(pipe.get(), &status) != 0) {
        throw std::runtime_error("cannot open the pipe " + path + ": " + systemError(errno));
    }
    if (!S_ISFIFO(status.st_mode)) {
        throw std::runtime_error(path + " is no pipe");
    }
    return pipe;
}

std::optional<std::size_t> bytesIn(const Descriptor& pipe) {
    int bytes = 0;
    return ::ioctl(pipe.get(), FIONREAD, &bytes) == 0
               ? std::optional(static_cast<std::size_t>(bytes))
               : std::nullopt;
}

} // namespace relay
