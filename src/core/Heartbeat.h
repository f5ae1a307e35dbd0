#pragma once

#include "core/operation/IHeartbeat.h"
#include "os/Mutex.h"

#include <chrono>

namespace agent::core {

/// See IHeartbeat. There is no timer thread: the backup's thread calls `check` at each of its cancellation
/// points, and only then are missing pings noticed.
class Heartbeat : public IHeartbeat {
public:
    explicit Heartbeat(std::chrono::nanoseconds timeout);

    void ping() override;
    void reset() override;
    void setCallback(std::function<void()> newCallback) override;

    /// Calls back, once per arming, if the last ping is at least the time-out ago. The callback runs under
    /// the mutex and must not call this object. Throws std::bad_function_call if the callback is empty.
    void check();

private:
    using Clock = std::chrono::steady_clock;

    const std::chrono::nanoseconds timeout;
    os::Mutex mutex;
    Clock::time_point lastPing GUARDED_BY(mutex); // zero: not armed
    std::function<void()> callback GUARDED_BY(mutex);
};

} // namespace agent::core
