// Text that grows by many short pieces.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>

/// Collects text. A std::string does the same, but calls into the library for every piece, which
/// takes longer than to copy a short one.
class TextBuffer {
public:
    TextBuffer() = default;
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;

    /// Appends a piece, which must not be a part of this text.
    void append(std::string_view piece) {
        if (piece.size() > capacity - used) {
            makeRoom(piece.size());
        }
        std::copy(piece.begin(), piece.end(), room.get() + used);
        used += piece.size();
    }

    bool empty() const { return used == 0; }

    /// All of the text, valid until it changes.
    std::string_view view() const { return {room.get(), used}; }

    /// Forgets the text. The memory is kept for the next one, unless it is more than `keptSize`
    /// bytes.
    void clear(std::size_t keptSize);

private:
    /// Gives room for `size` bytes more, and so much that growing by one byte after the other takes
    /// linear time.
    void makeRoom(std::size_t size);

    std::unique_ptr<char[]> room; // null as long as `capacity` is 0
    std::size_t capacity = 0;
    std::size_t used = 0;
};
