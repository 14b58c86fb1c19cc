// Lines from a stream of bytes that arrives in pieces of any size.
#include "confirming_rsync/line_assembly.h"

#include <algorithm>

namespace confirming {

void LineAssembly::take(std::string_view bytes, const Sink& sink) {
    while (!bytes.empty()) {
        const std::size_t available = std::min(bytes.find('\n'), bytes.size());
        const std::string_view part = bytes.substr(0, std::min(available, limit - pending_.size()));
        bytes.remove_prefix(part.size());
        if (bytes.empty()) {
            pending_.append(part);
            return;
        }
        // Otherwise it is full, and at least one more byte of the same line has come.
        const bool ends = bytes.front() == '\n';
        if (ends) {
            bytes.remove_prefix(1);
        }
        put(part, ends, sink);
    }
}

void LineAssembly::finish(const Sink& sink) {
    if (!pending_.empty()) {
        put({}, false, sink);
    }
    begins_ = true;
}

void LineAssembly::put(std::string_view part, bool ends, const Sink& sink) {
    if (pending_.empty()) {
        sink({part, begins_, ends});
    } else {
        pending_.append(part);
        sink({pending_, begins_, ends});
        pending_.clear();
    }
    begins_ = ends;
}

} // namespace confirming
