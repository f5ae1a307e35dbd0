#pragma once

#include <functional>

namespace agent::core {

/// The watchdog of one backup: fed by whoever watches the backup, it calls back when the feeding stops.
/// Owns:    the callback.
/// Threads: safe from any.
/// Fails:   never by itself.
class IHeartbeat {
public:
    virtual ~IHeartbeat() = default;
    /// Feeds the watchdog. The first call arms it.
    virtual void ping() = 0;
    /// Disarms it until the next ping.
    virtual void reset() = 0;
    virtual void setCallback(std::function<void()> newCallback) = 0;
};

} // namespace agent::core
