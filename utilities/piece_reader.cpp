// Cutting what a descriptor gives into lines and pieces.
#include "utilities/piece_reader.h"

#include <algorithm>
#include <cstring>

#include <unistd.h>

namespace {

constexpr std::size_t longestPiece = 1023;

} // namespace

bool PieceReader::next(std::string_view& piece) {
    std::size_t size = 0; // of the piece, its bytes behind a NUL included
    std::size_t searched = 0;
    for (;;) {
        const std::string_view text(buffer.data() + begin, std::min(end - begin, longestPiece));
        const std::size_t lineFeed = text.find('\n', searched);
        if (lineFeed != std::string_view::npos) {
            size = lineFeed + 1;
            break;
        }
        searched = text.size();
        if (searched == longestPiece || !readMore()) {
            size = std::min(end - begin, longestPiece);
            break;
        }
    }
    piece = std::string_view(buffer.data() + begin, size);
    begin += size;
    if (holdsNul) {
        piece = piece.substr(0, piece.find('\0'));
    }
    return size > 0;
}

bool PieceReader::readMore() {
    std::memmove(buffer.data(), buffer.data() + begin, end - begin);
    end -= begin;
    begin = 0;
    const ssize_t count = read(descriptor, buffer.data() + end, buffer.size() - end);
    if (count < 0) {
        end = 0;
        return false;
    }
    end += static_cast<std::size_t>(count);
    // One search for many lines, since hardly any text has one.
    holdsNul = std::memchr(buffer.data(), '\0', end) != nullptr;
    return count > 0;
}
