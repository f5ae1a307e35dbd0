#pragma once

#include "os/Mutex.h"

#include <chrono>
#include <functional>
#include <optional>
#include <utility>

namespace agent::info {

/// Caches one value for a given time. The first call of `get` after that time refreshes it.
/// Owns:    the value.
/// Threads: any thread may call it; callers wait while one of them refreshes the value.
/// Fails:   `get` throws what `refresh` throws; the next call of `get` tries again.
template <typename T>
class SimpleCache {
public:
    using Clock = std::chrono::steady_clock;

    SimpleCache(Clock::duration lifetime, std::function<T()> refresh,
                std::function<Clock::time_point()> now = &Clock::now)
        : lifetime(lifetime), refresh(std::move(refresh)), now(std::move(now)) {}

    [[nodiscard]] T get() {
        const os::Lock lock(mutex);
        if (!expiry || now() >= *expiry) {
            value = refresh();
            expiry = now() + lifetime;
        }
        return value;
    }

private:
    const Clock::duration lifetime;
    const std::function<T()> refresh;
    const std::function<Clock::time_point()> now;
    os::Mutex mutex;
    std::optional<Clock::time_point> expiry GUARDED_BY(mutex);
    T value GUARDED_BY(mutex){};
};

} // namespace agent::info
