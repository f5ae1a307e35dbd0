#pragma once

#include <cstddef>
#include <mutex>
#include <vector>

namespace agent::ordak {

/// The connections of everybody who hasn't shown yet to be the paired device. There is room for a number of
/// them only: one more, and the oldest is shut down. Whoever opens thousands of connections pushes out their
/// own, and the appliance, which shows its certificate within moments, always finds room.
/// Owns:    nothing. The sockets belong to the HTTP library, which may close one only after it has left.
/// Threads: safe from any.
/// Fails:   only its construction, for want of memory.
class Strangers {
public:
    explicit Strangers(std::size_t most);

    void enter(int socket) noexcept;
    /// Returns whether the socket was among them.
    bool leave(int socket) noexcept;

private:
    const std::size_t most;
    std::mutex mutex;
    std::vector<int> sockets; // guarded by mutex; the oldest first
};

} // namespace agent::ordak
