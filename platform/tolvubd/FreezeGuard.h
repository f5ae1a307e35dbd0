#pragma once

#include "FileAccess.h"

#include <string>
#include <sys/types.h>

namespace tolvubd {

/// Holds a file system frozen: nothing is written to its device until it is thawed.
///
/// A process that dies must not leave it frozen, so a child does the thawing: it is told to through a socket,
/// and it also thaws when the other end closes because the process is gone, or hasn't reported progress for
/// too long, be it because what it waits for is behind the frozen file system.
class FreezeGuard {
public:
    /// Throws when it can't be frozen: EBUSY when somebody else has done that, EOPNOTSUPP when it can't be.
    explicit FreezeGuard(const std::string& mountPoint);
    FreezeGuard(const FreezeGuard&) = delete;
    FreezeGuard& operator=(const FreezeGuard&) = delete;
    /// Thaws, if that is still to be done.
    ~FreezeGuard();

    /// To be called more often than the patience below lasts. ETIMEDOUT when it wasn't.
    void reportProgress();
    /// Thaws. ETIMEDOUT when it was thawed before, so that what was read meanwhile is worth nothing.
    void thaw();

    static constexpr int patienceMilliseconds = 10'000;

private:
    /// Whether the file system was frozen until now.
    bool endChild() noexcept;

    os::FileDescriptor root;
    os::FileDescriptor link;
    pid_t child = -1;
};

/// Thaws what a process that is gone may have left frozen. One that isn't frozen is fine.
void thawIfFrozen(const std::string& mountPoint) noexcept;

} // namespace tolvubd
