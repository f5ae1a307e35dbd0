#pragma once

#include <csignal>

namespace agent {

/// Holds SIGPIPE back from this thread, and swallows the one that a write in its scope has raised. A broken
/// pipe would otherwise end the process, or cancel a running backup, because somebody closed a terminal.
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
