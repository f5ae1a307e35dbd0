#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>

namespace zephane {

/// Keeps repeated messages from filling the log: allows ten lines a minute, and counts the others.
/// Owns:    nothing.
/// Threads: any.
/// Fails:   never.
class LineLimit {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t lines = 10;
    static constexpr std::chrono::minutes span{1};

    struct Verdict {
        bool isAllowed = false;
        std::size_t leftOut = 0; ///< lines since the last one that was allowed
    };

    Verdict ask(Clock::time_point now = Clock::now());

private:
    std::mutex mutex;
    Clock::time_point begin;  // start of the span; guarded by mutex
    std::size_t written = 0;  // lines in the span; guarded by mutex
    std::size_t withheld = 0; // guarded by mutex
};

} // namespace zephane
