// Lines from a stream of bytes that arrives in pieces of any size.
#include "confirming_rsync/line_assembly.h"

#include <algorithm>

namespace confirming {

void LineAssembly::take(std::string_view bytes, const Sink& sink) {
    while (!bytes.empty()) {
        const std::size_t end = std::min(bytes.find('\n'), limit - pending_.size());
        pending_ += bytes.substr(0, end);
        bytes.remove_prefix(std::min(end, bytes.size()));
        // A full piece is handed on only when it is known whether it ends its line.
        if (!bytes.empty()) {
            const bool ends = bytes.front() == '\n';
            bytes.remove_prefix(ends ? 1 : 0);
            put(ends, sink);
        }
    }
}

void LineAssembly::finish(const Sink& sink) {
    if (!pending_.empty()) {
        put(false, sink);
    }
    begins_ = true;
}

void LineAssembly::put(bool ends, const Sink& sink) {
    sink({pending_, begins_, ends});
    pending_.clear();
    begins_ = ends;
}

} // namespace confirming
