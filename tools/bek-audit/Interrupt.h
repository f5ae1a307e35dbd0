#pragma once

#include <chrono>

namespace audit {

/// Ends an audit early on a signal or a timeout, so that it neither leaves a snapshot behind nor keeps
/// backups waiting.
/// Owns:    the handlers of the termination signals; the destructor restores the defaults.
/// Threads: `check` from any thread; only one object at a time.
/// Fails:   `check` throws std::runtime_error, which names the signal or the timeout.
class Interrupt {
public:
    explicit Interrupt(std::chrono::seconds longest);
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;
    ~Interrupt();

    /// Starts the timeout.
    void begin() { deadline = std::chrono::steady_clock::now() + longest; }
    void check() const;

private:
    std::chrono::seconds longest;
    std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
};

} // namespace audit
