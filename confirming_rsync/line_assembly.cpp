// Lines from a stream of bytes that arrives in pieces of any size.
#include "confirming_rsync/line_assembly.h"

#include <algorithm>
#include <utility>

namespace confirming {

void LineAssembly::take(std::string_view bytes, std::vector<LinePiece>& pieces) {
    while (!bytes.empty()) {
        const std::size_t lineFeed = bytes.find('\n');
        const std::size_t available = std::min(lineFeed, bytes.size());
        const std::size_t taken = std::min(available, limit - pending_.size());
        pending_.append(bytes.substr(0, taken));
        bytes.remove_prefix(taken);
        if (!bytes.empty() && bytes.front() == '\n') {
            bytes.remove_prefix(1);
            put(true, pieces);
        } else if (!bytes.empty()) {
            // Full, and at least one more byte of the same line has come.
            put(false, pieces);
        }
    }
}

void LineAssembly::finish(std::vector<LinePiece>& pieces) {
    if (!pending_.empty()) {
        put(false, pieces);
    }
    begins_ = true;
}

void LineAssembly::put(bool ends, std::vector<LinePiece>& pieces) {
    pieces.push_back(LinePiece{std::move(pending_), begins_, ends});
    pending_.clear();
    begins_ = ends;
}

} // namespace confirming
