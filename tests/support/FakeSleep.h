#pragma once

#include <ctime>
#include <functional>

namespace agent::test {

/// Takes the place of `nanosleep` in the program that holds it: for as long as one of these is there, sleeps
/// are told to it and take no time. Of several it is the youngest, which has to go first. One thread.
class FakeSleep {
public:
    using Note = std::function<void(const timespec& time)>;

    explicit FakeSleep(Note note);
    FakeSleep(const FakeSleep&) = delete;
    FakeSleep& operator=(const FakeSleep&) = delete;
    ~FakeSleep();

    /// What `nanosleep` returns.
    int sleep(const timespec& time, timespec& left);

    int interruptions = 0; ///< So many of the next sleeps are cut short by a signal, after 0.7 seconds.

private:
    Note note;
    FakeSleep* older;
};

} // namespace agent::test
