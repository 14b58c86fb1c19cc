// The report's way out: what waits to be written to one descriptor.
#include "confirming_rsync/report_writer.h"

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
    // A pipe that is ready takes this much at once.
    const std::string_view waiting =
        std::string_view(text_).substr(written_, std::size_t{PIPE_BUF});
    const std::size_t lineEnd = waiting.rfind('\n');
    const std::size_t portion = lineEnd == std::string_view::npos ? waiting.size() : lineEnd + 1;
    const ssize_t count = ::write(descriptor_, waiting.data(), portion);
    if (count < 0) {
        if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            giveUp();
        }
        return;
    }
    written_ += static_cast<std::size_t>(count);
    total_ += static_cast<std::uint64_t>(count);
    if (2 * written_ >= text_.size()) {
        // Not only when all is written: a reader may always be behind.
        text_.erase(0, written_);
        written_ = 0;
    }
}

void ReportWriter::giveUp() {
    givenUp_ = true;
    text_.clear();
    written_ = 0;
}

} // namespace confirming
