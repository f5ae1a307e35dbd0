#pragma once

#include <array>
#include <csignal>

namespace agent {

/// The signals that ask the process to stop.
inline constexpr std::array terminationSignals = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};

/// Blocks the termination signals in the calling thread permanently. Returns the previous signal mask.
sigset_t blockTerminationSignals();

/// Blocks the termination signals in the calling thread, and in every thread and process that it creates,
/// until the object is destroyed. The signal handler runs the whole shutdown and waits for the agent's
/// threads, so it must never run on one of those threads. They are therefore created while such an object
/// exists, and only the initial thread receives the signals.
/// Owns:    the thread's previous signal mask, which the destructor restores.
/// Threads: the thread that creates it must also destroy it.
/// Fails:   never.
class TerminationSignalsBlocked {
public:
    TerminationSignalsBlocked() : previous(blockTerminationSignals()) {}
    TerminationSignalsBlocked(const TerminationSignalsBlocked&) = delete;
    TerminationSignalsBlocked& operator=(const TerminationSignalsBlocked&) = delete;
    ~TerminationSignalsBlocked();

private:
    const sigset_t previous;
};

} // namespace agent
