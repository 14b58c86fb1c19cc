// The report's way out: what waits to be written to one descriptor.
#include "confirming_rsync/report_writer.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <unistd.h>

namespace confirming {

void ReportWriter::add(std::string_view text) {
    if (!givenUp_) {
        text_ += text;
    }
}

void ReportWriter::write() {
    // A pipe that is ready takes this much without making its writer wait.
    constexpr std::size_t portion = PIPE_BUF;
    const ssize_t count =
        ::write(descriptor_, text_.data() + written_, std::min(portion, pending()));
    if (count < 0) {
        if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            giveUp();
        }
        return;
    }
    written_ += static_cast<std::size_t>(count);
    if (written_ == text_.size()) {
        text_.clear();
        written_ = 0;
    }
}

void ReportWriter::giveUp() {
    givenUp_ = true;
    text_.clear();
    written_ = 0;
}

} // namespace confirming
