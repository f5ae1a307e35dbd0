#pragma once

#include <ctime>
#include <functional>

namespace agent::test {

/// Replaces `nanosleep` in the test program: while an object exists, sleeps are reported to it and take no
/// time. If there are several objects, sleeps go to the newest, and objects must be destroyed in reverse
/// order. Single-threaded.
class FakeSleep {
public:
    using Note = std::function<void(const timespec& time)>;

    explicit FakeSleep(Note note);
    FakeSleep(const FakeSleep&) = delete;
    FakeSleep& operator=(const FakeSleep&) = delete;
    ~FakeSleep();

    /// Returns what `nanosleep` returns.
    int sleep(const timespec& time, timespec& left);

    int interruptions = 0; ///< how many of the next sleeps a signal interrupts, with 0.3 seconds left

private:
    Note note;
    FakeSleep* previous;
};

} // namespace agent::test
