#pragma once

#include <csignal>

namespace agent {

/// Blocks SIGPIPE in the calling thread; the destructor discards a SIGPIPE that a write has raised meanwhile.
/// Otherwise closing a terminal could end the process or cancel a running backup.
/// Owns:    the thread's previous signal mask, which the destructor restores.
/// Threads: the thread that creates it must also destroy it.
/// Fails:   never.
class BrokenPipeGuard {
public:
    BrokenPipeGuard();
    BrokenPipeGuard(const BrokenPipeGuard&) = delete;
    BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;
    ~BrokenPipeGuard();

private:
    sigset_t brokenPipe{};
    sigset_t previous{};
    bool wasPending = false;
};

} // namespace agent
