// Threads in C's own way, made from POSIX ones: ThreadSanitizer knows only those, and a program
// under it dies where a library makes the others, as Kafka's does.
#include <cstdint>
#include <memory>

#include <pthread.h>
#include <threads.h>

namespace {

struct Start {
    thrd_start_t function;
    void* argument;
};

void* run(void* given) {
    const std::unique_ptr<Start> start(static_cast<Start*>(given));
    const std::intptr_t result = start->function(start->argument);
    return reinterpret_cast<void*>(result); // NOLINT: a number, not a place
}

} // namespace

extern "C" {

int thrd_create(thrd_t* thread, thrd_start_t function, void* argument) {
    auto start = std::make_unique<Start>(Start{function, argument});
    if (::pthread_create(thread, nullptr, run, start.get()) != 0) {
        return thrd_error;
    }
    static_cast<void>(start.release()); // the thread's now
    return thrd_success;
}

int thrd_join(thrd_t thread, int* result) {
    void* value = nullptr;
    if (::pthread_join(thread, &value) != 0) {
        return thrd_error;
    }
    if (result != nullptr) {
        *result = static_cast<int>(reinterpret_cast<std::intptr_t>(value));
    }
    return thrd_success;
}

} // extern "C"
