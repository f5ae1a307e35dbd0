#pragma once

#include <functional>

namespace agent::core {

/// The watchdog of one backup: the appliance feeds it with pings, and it calls back when the pings stop.
/// Owns:    the callback.
/// Threads: safe from any.
/// Fails:   never; only the callback may throw.
class IHeartbeat {
public:
    virtual ~IHeartbeat() = default;
    /// Feeds the watchdog. The first call arms it.
    virtual void ping() = 0;
    /// Disarms the watchdog until the next ping.
    virtual void reset() = 0;
    virtual void setCallback(std::function<void()> newCallback) = 0;
};

} // namespace agent::core
