#pragma once

namespace restore {

/// Lets a long piece of work be ended in order by SIGINT, SIGTERM or SIGHUP; the second one ends the program
/// at once. Make one before any thread.
class Interruption {
public:
    Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    ~Interruption();

    /// Throws std::runtime_error once a signal has come.
    static void check();
};

} // namespace restore
