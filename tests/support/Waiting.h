#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace agent::test {

/// Polls until the condition holds. Returns false after a timeout that only a hang exceeds.
inline bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace agent::test
