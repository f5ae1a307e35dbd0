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

/// Takes the place of libiscsi in the program that holds it: those of its functions that the transport calls,
/// and a disk in memory behind them. All calls but those that only ask, wait or free are noted in the order
/// in which they come, sleeps too, with their arguments but for contexts and data. A command that isn't
/// waited for is carried out when it is answered, of which each wait brings one. One object at a time; calls
/// of several threads must not overlap.
class FakeIscsi {
public:
    enum class Outcome {
        good,
        failed,  ///< what the function returns when it has failed by itself: nothing, or a negative value
        refused, ///< a task, with a status that isn't good
        shorter, ///< a task with a good status and a byte less than asked for
        busy,    ///< the target does nothing just now; of a command that isn't waited for
        broken,  ///< the session breaks in place of an answer; likewise
        silent,  ///< no answer at all; likewise
    };

    /// What is run with the name of the function.
    using Action = std::function<void(const std::string& function)>;

    /// Runs an action inside of each call that is noted, for as long as it lives itself: no longer than what
    /// the action refers to.
    class During {
    public:
        During(FakeIscsi& iscsi, Action action);
        During(const During&) = delete;
        During& operator=(const During&) = delete;
        ~During();

    private:
        FakeIscsi& iscsi;
    };

    FakeIscsi();
    FakeIscsi(const FakeIscsi&) = delete;
    FakeIscsi& operator=(const FakeIscsi&) = delete;
    ~FakeIscsi();

    static FakeIscsi& get();

    /// What comes of the next calls of a function; of those behind them all is good.
    void script(const std::string& function, const std::vector<Outcome>& next);

    /// Notes a call and tells what is to come of it.
    template <typename... Arguments>
    Outcome call(const std::string& function, const Arguments&... arguments) {
        std::ostringstream line;
        line << function;
        ((line << ' ' << arguments), ...);
        calls.push_back(line.str());
        return outcomeOf(function);
    }

    std::vector<unsigned char> disk; ///< Beyond its end the target has zeros.
    std::uint32_t blockSize = 512;
    std::uint64_t lastBlock = 0; ///< Whatever the size of `disk` is.
    std::size_t slots = 1024;    ///< Of more commands at a time it says that its queue is full.
    bool newestFirst = false;    ///< In which order commands are answered.

    static constexpr int fd = 700; ///< Always readable.
    std::size_t mostAtOnce = 0;    ///< Commands that were under way.
    std::size_t refusals = 0;      ///< Commands that found the queue full.
    std::vector<std::string> calls;
    FakeSleep sleep{[this](const timespec& time) { call("nanosleep", time.tv_sec, time.tv_nsec); }};
    int contexts = 0;  ///< How many are there.
    int tasks = 0;     ///< How many are there.
    int forgotten = 0; ///< Commands that were under way when their context was destroyed.
    bool isLoggedIn = false;

private:
    Outcome outcomeOf(const std::string& function);

    os::FileDescriptor readable;
    Action action;
    std::map<std::string, std::deque<Outcome>> outcomes;
};

} // namespace agent::test
