// Waiting for a condition, with a limit.
#include "tests/unit/support/waiting.h"

#include <chrono>
#include <thread>

bool waitUntil(const std::function<bool()>& condition) {
    constexpr std::chrono::seconds limit(60);
    constexpr std::chrono::milliseconds pause(2);
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}
