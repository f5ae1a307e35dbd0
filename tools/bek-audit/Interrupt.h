#pragma once

#include <chrono>

namespace audit {

/// What ends an audit early: a signal, or too much time. A snapshot must not be left behind, nor keep backups
/// waiting.
/// Owns:    the actions of the signals by which a process is asked to end, for as long as it lives.
/// Threads: `check` from any; there is one object at a time.
/// Fails:   `check` throws std::runtime_error, which says what it was.
class Interrupt {
public:
    explicit Interrupt(std::chrono::seconds longest);
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;
    ~Interrupt();

    /// From here on the time counts.
    void begin() { deadline = std::chrono::steady_clock::now() + longest; }
    void check() const;

private:
    std::chrono::seconds longest;
    std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
};

} // namespace audit
