#pragma once

namespace restore {

/// Lets SIGINT, SIGTERM or SIGHUP end a long operation cleanly; a second signal ends the program at once.
/// Owns:    the handlers of these signals; the destructor restores the defaults.
/// Threads: construct it before any thread starts; `check` from any thread.
/// Fails:   `check` throws std::runtime_error.
class Interruption {
public:
    Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    ~Interruption();

    /// Throws std::runtime_error if a signal has arrived.
    static void check();
};

} // namespace restore
