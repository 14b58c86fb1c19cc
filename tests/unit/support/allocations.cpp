// How many bytes a piece of code asked the heap for.
#include "tests/unit/support/allocations.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t allocated = 0;

} // namespace

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

// The sanitizers keep their own operator new, which checks how memory is given back.
extern "C" int __sanitizer_install_malloc_and_free_hooks( // NOLINT: the sanitizer's name
    void (*mallocHook)(const volatile void*, std::size_t), void (*freeHook)(const volatile void*));

namespace {

const int hooksInstalled = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void* /*block*/, std::size_t size) { allocated += size; },
    [](const volatile void* /*block*/) {});

} // namespace

#else

void* operator new(std::size_t size) {
    allocated += size;
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}

#endif

std::size_t bytesAllocated() {
    return allocated;
}
