#pragma once

#include <functional>

namespace agent::info {

/// While the object exists, each line that the calling thread logs waits for the thread's turn. So if one
/// thread works ahead of another, its lines still appear in the right place. Disabled levels don't wait.
/// Owns:    the function that waits.
/// Threads: the thread that creates it must also destroy it. Each thread may have one such object at a time.
/// Fails:   if the turn never comes, the line is dropped.
class LogGate {
public:
    /// Blocks until it is the thread's turn and returns true. Returns false if its turn will never come.
    using Wait = std::function<bool()>;

    explicit LogGate(Wait wait);
    LogGate(const LogGate&) = delete;
    LogGate& operator=(const LogGate&) = delete;
    ~LogGate();

    /// The object of the calling thread; null if its lines needn't wait.
    static const LogGate* ofThisThread() { return current; }

    /// Waits for the turn. Returns whether to log the line.
    [[nodiscard]] bool waitForTurn() const { return wait(); }

private:
    static thread_local const LogGate* current; // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

    Wait wait;
};

} // namespace agent::info
