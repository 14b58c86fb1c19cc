// What a piece of code asked the heap for.
#pragma once

#include <cstddef>

/// Bytes that the calling thread has allocated so far, whether freed again or not. In a build with
/// a sanitizer the count comes from its allocator, otherwise from operator new.
std::size_t bytesAllocated();

/// While it exists, notes the blocks of one size that the calling thread allocates, in that order.
/// One at a time.
class BlockRecorder {
public:
    explicit BlockRecorder(std::size_t size);
    ~BlockRecorder();
    BlockRecorder(const BlockRecorder&) = delete;
    BlockRecorder& operator=(const BlockRecorder&) = delete;

    /// The place of a block in that order, from 0; -1 for one that is not among the first.
    int orderOf(const void* block) const;
};
