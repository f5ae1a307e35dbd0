#pragma once

#include "core/operation/IHeartbeat.h"

#include <chrono>
#include <mutex>

namespace agent::core {

/// See IHeartbeat. There is no timer thread: silence is noticed when somebody calls `check`, which the thread
/// of the backup does at each of its cancellation points.
class Heartbeat : public IHeartbeat {
public:
    explicit Heartbeat(std::chrono::nanoseconds timeout);

    void ping() override;
    void reset() override;
    void setCallback(std::function<void()> newCallback) override;

    /// Calls back, once per arming, if the last ping lies the time-out or longer ago. The callback runs under
    /// the mutex and must not call this object. An empty callback is a std::bad_function_call.
    void check();

private:
    using Clock = std::chrono::steady_clock;

    const std::chrono::nanoseconds timeout;
    std::mutex mutex;
    Clock::time_point lastPing;     // guarded by mutex; zero: not armed
    std::function<void()> callback; // guarded by mutex
};

} // namespace agent::core
