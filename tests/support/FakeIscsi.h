#pragma once

#include "os/FileDescriptor.h"
#include "support/FakeSleep.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace agent::test {

/// Replaces libiscsi in the test program: implements the functions that the transport calls, on top of a disk
/// in memory. Calls are recorded in order, sleeps too, with their arguments except contexts and data; calls
/// that only query, wait or free are not recorded. An asynchronous command is carried out when it is
/// answered; each wait answers one.
/// Owns:    the disk, and file descriptor 700 while it exists. Only one object may exist at a time.
/// Threads: any, but calls of several threads must not overlap.
/// Fails:   as scripted. A second object, or no free descriptor, aborts the program.
class FakeIscsi {
public:
    enum class Outcome {
        good,
        failed,  ///< the function itself fails: it returns null or a negative value
        refused, ///< a task with a status other than good
        shorter, ///< a task with a good status and one byte less than asked for
        busy,    ///< asynchronous commands only: the target answers BUSY
        broken,  ///< asynchronous commands only: the session breaks before the answer
        silent,  ///< asynchronous commands only: there is no answer at all
    };

    /// Called with the name of the function.
    using Action = std::function<void(const std::string& function)>;

    /// Runs an action inside each recorded call for as long as this object lives. Everything that
    /// the action refers to must outlive it.
    class ActionInCalls {
    public:
        ActionInCalls(FakeIscsi& iscsi, Action action);
        ActionInCalls(const ActionInCalls&) = delete;
        ActionInCalls& operator=(const ActionInCalls&) = delete;
        ~ActionInCalls();

    private:
        FakeIscsi& iscsi;
    };

    FakeIscsi();
    FakeIscsi(const FakeIscsi&) = delete;
    FakeIscsi& operator=(const FakeIscsi&) = delete;
    ~FakeIscsi();

    static FakeIscsi& get();

    /// Sets the outcomes of the next calls of a function. Calls after those succeed.
    void script(const std::string& function, const std::vector<Outcome>& next);

    /// Records a call and returns its outcome.
    template <typename... Arguments>
    Outcome call(const std::string& function, const Arguments&... arguments) {
        std::ostringstream line;
        line << function;
        ((line << ' ' << arguments), ...);
        calls.push_back(line.str());
        return outcomeOf(function);
    }

    std::vector<unsigned char> disk; ///< the target has zeros beyond its end
    std::uint32_t blockSize = 512;
    std::uint64_t lastBlock = 0;   ///< what the target reports, whatever the size of `disk` is
    std::size_t queueDepth = 1024; ///< with more commands queued, the target answers TASK SET FULL
    bool newestFirst = false;      ///< the order in which commands are answered

    static constexpr int fd = 700; ///< always readable
    std::size_t mostInFlight = 0;  ///< the largest number of commands in flight
    std::size_t refusals = 0;      ///< commands that found the queue full
    std::vector<std::string> calls;
    FakeSleep sleep{[this](const timespec& time) { call("nanosleep", time.tv_sec, time.tv_nsec); }};
    int contexts = 0;     ///< how many exist
    int tasks = 0;        ///< how many exist
    int lostCommands = 0; ///< commands in flight when their context was destroyed
    bool isLoggedIn = false;

private:
    Outcome outcomeOf(const std::string& function);

    os::FileDescriptor readable;
    Action action;
    std::map<std::string, std::deque<Outcome>> outcomes;
};

} // namespace agent::test
