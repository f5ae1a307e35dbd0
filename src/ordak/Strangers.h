#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <vector>

namespace agent::ordak {

/// The connections of everybody who hasn't shown yet to be the paired device. There is room for a number of
/// them only: one more, and the oldest is shut down. So are, when the next one comes, those that have been
/// here for too long: not every release of the HTTP library heeds a shorter time for some connections.
/// Whoever opens thousands of connections pushes out their own, and the appliance, which shows its
/// certificate within moments, always finds room.
/// Owns:    nothing. The sockets belong to the HTTP library, which may close one only after it has left.
/// Threads: safe from any.
/// Fails:   only its construction, for want of memory.
class Strangers {
public:
    using Clock = std::chrono::steady_clock;

    Strangers(std::size_t most, Clock::duration longest);

    void enter(int socket) noexcept;
    /// Returns whether the socket was among them.
    bool leave(int socket) noexcept;

private:
    struct Stranger {
        int socket = -1;
        Clock::time_point since;
    };

    const std::size_t most;
    const Clock::duration longest;
    std::mutex mutex;
    std::vector<Stranger> present; // guarded by mutex; the oldest first
};

} // namespace agent::ordak
