#pragma once

#include "os/Mutex.h"

#include <chrono>
#include <cstddef>
#include <vector>

namespace agent::ordak {

/// The connections that haven't been identified as the paired device's yet. Their number is limited: a new
/// one shuts down the oldest. It also shuts down those that are older than `longest`, because not every
/// release of the HTTP library obeys a shorter timeout for some of its connections. A client that opens
/// thousands of connections displaces its own ones. The appliance, which shows its certificate within
/// moments, can always connect.
/// Owns:    nothing. The sockets belong to the HTTP library, which may close a socket only after `leave`.
/// Threads: any thread may call it.
/// Fails:   only the constructor, which throws std::bad_alloc.
class Strangers {
public:
    using Clock = std::chrono::steady_clock;

    Strangers(std::size_t most, Clock::duration longest);

    void enter(int socket) noexcept;
    /// Returns whether the socket was a stranger's.
    bool leave(int socket) noexcept;

private:
    struct Stranger {
        int socket = -1;
        Clock::time_point since;
    };

    const std::size_t most;
    const Clock::duration longest;
    os::Mutex mutex;
    std::vector<Stranger> present GUARDED_BY(mutex); // the oldest first
};

} // namespace agent::ordak
