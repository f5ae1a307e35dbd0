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

/// Replaces the file protocol's client library in the test program: implements the classes that the transport
/// uses, on top of an image in memory. Calls are recorded in order, sleeps too, with their arguments except
/// data; calls that only query are not recorded. Clients are numbered from 1; the records of their opening
/// and destruction contain the number.
/// Owns:    the image and the records. Only one object may exist at a time.
/// Threads: one.
/// Fails:   as scripted. A second object aborts the program.
class FakeZephane {
public:
    /// A scripted result that replaces the usual result of a call.
    struct Answer {
        int code = 0;
        std::string text = "as scripted";
        std::int64_t result = 0; ///< `seek`: the position; `read`, `write`: the most bytes transferred
    };

    FakeZephane();
    FakeZephane(const FakeZephane&) = delete;
    FakeZephane& operator=(const FakeZephane&) = delete;
    ~FakeZephane();

    static FakeZephane& get();

    /// Sets the results of the next calls of a function, or of the next constructions of a class, whose
    /// constructor throws if the code isn't 0. Calls after those succeed.
    void script(const std::string& function, const std::vector<Answer>& next);

    template <typename... Arguments>
    void note(const std::string& function, const Arguments&... arguments) {
        std::ostringstream line;
        line << function;
        ((line << ' ' << arguments), ...);
        calls.push_back(line.str());
    }

    /// Whether a result is scripted for this call; if so, sets `answer` to it.
    bool isScripted(const std::string& function, Answer& answer);

    std::vector<unsigned char> image;
    bool isBroken = false; ///< if set, the next call that needs the connection loses it
    int changes = 0;       ///< how many writes and punched holes really changed the image

    std::vector<std::string> calls;
    FakeSleep sleep{[this](const timespec& time) { note("nanosleep", time.tv_sec, time.tv_nsec); }};
    int made = 0;    ///< how many clients were ever constructed
    int clients = 0; ///< how many clients exist

private:
    std::map<std::string, std::deque<Answer>> answers;
};

} // namespace agent::test
