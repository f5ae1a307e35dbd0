#pragma once

#include "FileAccess.h"
#include "Hold.h"

#include <memory>
#include <sys/types.h>

namespace tolvubd {

/// Holds a volume: nothing is written to its device until it is let go.
///
/// A process that dies must not leave it held, so a child lets it go: it is told to through a socket, and it
/// also does so when the other end closes because the process is gone, or hasn't reported progress for too
/// long, be it because what it waits for is behind the volume that is held. A hold that takes so long to
/// begin is waited for.
class HoldGuard {
public:
    /// Begins the hold, or throws what that throws.
    explicit HoldGuard(std::unique_ptr<Hold> hold);
    HoldGuard(const HoldGuard&) = delete;
    HoldGuard& operator=(const HoldGuard&) = delete;
    /// Lets go, if that is still to be done.
    ~HoldGuard();

    /// To be called more often than the patience below lasts. ETIMEDOUT when it wasn't.
    void reportProgress();
    /// Lets go. ETIMEDOUT when the volume went on before, so that what was read meanwhile is worth nothing.
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
