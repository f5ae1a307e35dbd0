#pragma once

#include "support/FakeSleep.h"

#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace agent::test {

/// Takes the place of the file protocol's client library in the program that holds it: the classes that the
/// transport uses, and an image in memory behind them. All calls but those that only ask are noted in the
/// order in which they come, sleeps too, with their arguments but for data. Clients have numbers, from 1 on,
/// by which they are noted where they open and where they go. One object at a time, in one thread.
class FakeZephane {
public:
    /// What comes of a call in place of what it would come to.
    struct Answer {
        int code = 0;
        std::string text = "as scripted";
        std::int64_t result =
            0; ///< of `seek` the position, of `read` and `write` the most bytes that are moved
    };

    FakeZephane();
    FakeZephane(const FakeZephane&) = delete;
    FakeZephane& operator=(const FakeZephane&) = delete;
    ~FakeZephane();

    static FakeZephane& get();

    /// What comes of the next calls of a function, or of the next objects of a class, which can't be made for
    /// any code but 0; of those behind them all is good.
    void script(const std::string& function, const std::vector<Answer>& next);

    template <typename... Arguments>
    void note(const std::string& function, const Arguments&... arguments) {
        std::ostringstream line;
        line << function;
        ((line << ' ' << arguments), ...);
        calls.push_back(line.str());
    }

    /// Whether an answer has been scripted for this call, and which.
    bool isScripted(const std::string& function, Answer& answer);

    std::vector<unsigned char> image;
    bool isBroken = false; ///< Set to let clients lose their connection with the next call that needs it.
    int changes = 0;       ///< Counts what has really been written and punched.

    std::vector<std::string> calls;
    FakeSleep sleep{[this](const timespec& time) { note("nanosleep", time.tv_sec, time.tv_nsec); }};
    int made = 0;    ///< How many clients there have been.
    int clients = 0; ///< How many are there.

private:
    std::map<std::string, std::deque<Answer>> answers;
};

} // namespace agent::test
