// Growing and emptying a text buffer.
#include "utilities/text_buffer.h"

#include <utility>

namespace {

constexpr std::size_t smallestCapacity = 256;

} // namespace

void TextBuffer::clear(std::size_t keptSize) {
    used = 0;
    if (capacity > keptSize) {
        room.reset();
        capacity = 0;
    }
}

void TextBuffer::makeRoom(std::size_t size) {
    const std::size_t wanted = std::max({used + size, 2 * capacity, smallestCapacity});
    // Not zeroed: what is not written to yet takes no memory.
    std::unique_ptr<char[]> larger(new char[wanted]);
    std::copy_n(room.get(), used, larger.get());
    room = std::move(larger);
    capacity = wanted;
}
