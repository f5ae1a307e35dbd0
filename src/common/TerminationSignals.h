#pragma once

#include <array>
#include <csignal>

namespace agent {

/// The signals that ask the process to stop.
inline constexpr std::array terminationSignals = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};

/// Holds the termination signals back from the calling thread for good; returns what was blocked before.
sigset_t blockTerminationSignals();

/// Holds the termination signals back from the calling thread, and from every thread and process that it
/// creates, for as long as the object lives. The whole shutdown runs inside their handler and waits for the
/// agent's threads, so it must never run on one of those: they are created in the scope of such an object,
/// and the signals are left to the initial thread.
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
