#pragma once

#include "FileAccess.h"
#include "Hold.h"

#include <memory>
#include <sys/types.h>

namespace tolvubd {

/// Holds a volume: nothing is written to its device until it is released.
///
/// The volume must not stay held when this process dies, so a forked guard process releases it: when the
/// socket between the two closes, because of `release` or because this process is gone, and when no progress
/// was reported for too long, perhaps because this process waits for the held volume itself. If the hold
/// takes longer than that to begin, the guard waits for it.
///
/// Owns:    the hold, the socket and the guard process.
/// Threads: one at a time.
/// Fails:   the constructor throws what Hold::begin throws, or std::system_error if the guard can't be
///          started; other calls throw std::system_error with ETIMEDOUT.
class HoldGuard {
public:
    /// Begins the hold; passes on its exceptions.
    explicit HoldGuard(std::unique_ptr<Hold> hold);
    HoldGuard(const HoldGuard&) = delete;
    HoldGuard& operator=(const HoldGuard&) = delete;
    /// Releases the volume, unless `release` has.
    ~HoldGuard();

    /// Must be called more often than `patienceMilliseconds`; throws ETIMEDOUT if the guard has given up.
    void reportProgress();
    /// Releases the volume. Throws ETIMEDOUT if it was released before: then the data read meanwhile is
    /// worthless.
    void release();

    static constexpr int patienceMilliseconds = 10'000;

private:
    void startChild();
    void killChild() noexcept;
    bool endChild() noexcept;

    std::unique_ptr<Hold> hold;
    os::FileDescriptor link;
    pid_t child = -1;
};

} // namespace tolvubd
