// How many bytes a piece of code asked the heap for.
#pragma once

#include <cstddef>

/// Bytes that the calling thread has allocated so far, whether freed again or not. In a build with
/// a sanitizer the count comes from its allocator, otherwise from operator new.
std::size_t bytesAllocated();
