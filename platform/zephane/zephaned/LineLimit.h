#pragma once

#include "os/Mutex.h"

#include <chrono>
#include <cstddef>

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
    os::Mutex mutex;
    Clock::time_point begin GUARDED_BY(mutex); // start of the span
    std::size_t written GUARDED_BY(mutex) = 0; // lines in the span
    std::size_t withheld GUARDED_BY(mutex) = 0;
};

} // namespace zephane
