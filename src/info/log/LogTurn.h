#pragma once

#include <functional>

namespace agent::info {

/// Has what the calling thread logs wait for its turn, for as long as the object lives: where a thread works
/// ahead of another one, its lines still come where they belong. Lines of a level that nobody gets don't
/// wait.
/// Owns:    the function that waits.
/// Threads: that of the constructor, which the destructor must run on too. At most one on each.
/// Fails:   a turn that never comes drops the line.
class LogTurn {
public:
    /// Returns when it is the thread's turn: true; false if that won't be any more.
    using Wait = std::function<bool()>;

    explicit LogTurn(Wait wait);
    LogTurn(const LogTurn&) = delete;
    LogTurn& operator=(const LogTurn&) = delete;
    ~LogTurn();

    /// What the calling thread has to wait for. Null if it hasn't.
    static const LogTurn* ofThisThread() { return current; }

    /// Whether the line is to be logged.
    [[nodiscard]] bool await() const { return wait(); }

private:
    static thread_local const LogTurn* current; // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

    Wait wait;
};

} // namespace agent::info
