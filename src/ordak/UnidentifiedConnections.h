#pragma once

#include "os/Mutex.h"

#include <chrono>
#include <cstddef>
#include <vector>

namespace agent::ordak {

/// The connections that haven't been identified as the paired device's yet. Their number is limited: a new
/// one shuts down the oldest. It also shuts down those that are older than `maxAge`, because not every
/// release of the HTTP library obeys a shorter timeout for some of its connections. A client that opens
/// thousands of connections displaces its own ones. The appliance, which shows its certificate within
/// moments, can always connect.
/// Owns:    nothing. The sockets belong to the HTTP library, which may close a socket only after `remove`.
/// Threads: any thread may call it.
/// Fails:   only the constructor, which throws std::bad_alloc.
class UnidentifiedConnections {
public:
    using Clock = std::chrono::steady_clock;

    UnidentifiedConnections(std::size_t maxCount, Clock::duration maxAge);

    void add(int socket) noexcept;
    /// Returns whether the socket was still in the list of unidentified connections.
    bool remove(int socket) noexcept;

private:
    struct Connection {
        int socket = -1;
        Clock::time_point since;
    };

    const std::size_t maxCount;
    const Clock::duration maxAge;
    os::Mutex mutex;
    std::vector<Connection> connections GUARDED_BY(mutex); // the oldest first
};

} // namespace agent::ordak
