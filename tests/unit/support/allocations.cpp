// What a piece of code asked the heap for.
#include "tests/unit/support/allocations.h"

#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <new>

namespace {

thread_local std::size_t allocated = 0;

// Without a container, which would allocate.
thread_local std::size_t recordedSize = 0; // 0: nothing is recorded
thread_local std::uintptr_t recordedBlocks[32];
thread_local std::size_t recordedCount = 0;

// By its address: nothing is in the block yet.
void note(std::uintptr_t block, std::size_t size) {
    allocated += size;
    if (size != 0 && size == recordedSize && recordedCount < std::size(recordedBlocks)) {
        recordedBlocks[recordedCount++] = block;
    }
}

} // namespace

// g++ says it by a macro, clang++ when asked.
#if defined(__has_feature)
#define HAS_SANITIZER (__has_feature(address_sanitizer) || __has_feature(thread_sanitizer))
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HAS_SANITIZER 1
#else
#define HAS_SANITIZER 0
#endif

#if HAS_SANITIZER

// The sanitizers keep their own operator new, which checks how memory is given back.
extern "C" int __sanitizer_install_malloc_and_free_hooks( // NOLINT: the sanitizer's name
    void (*mallocHook)(const volatile void*, std::size_t), void (*freeHook)(const volatile void*));

namespace {

const int hooksInstalled = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void* block, std::size_t size) {
        note(reinterpret_cast<std::uintptr_t>(block), size);
    },
    [](const volatile void* /*block*/) {});

} // namespace

#else

void* operator new(std::size_t size) {
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    note(reinterpret_cast<std::uintptr_t>(block), size);
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

BlockRecorder::BlockRecorder(std::size_t size) {
    recordedCount = 0;
    recordedSize = size;
}

BlockRecorder::~BlockRecorder() {
    recordedSize = 0;
}

int BlockRecorder::orderOf(const void* block) const {
    for (std::size_t i = 0; i < recordedCount; ++i) {
        if (recordedBlocks[i] == reinterpret_cast<std::uintptr_t>(block)) {
            return static_cast<int>(i);
        }
    }
    return -1;
}
