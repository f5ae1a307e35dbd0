#pragma once

#include "common/PosixError.h"
#include "core/script/UnixCommandStream.h"
#include "support/ProcessState.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <sys/time.h>
#include <thread>

namespace agent::core::script {

using std::chrono::steady_clock;

inline constexpr std::int64_t second = 1'000'000;
inline constexpr std::chrono::seconds generous(20);

/// Reads to the end of the output; fails the test if that takes too long.
inline std::string readAll(ICommandStream& stream) {
    std::string all;
    std::string chunk;
    std::int64_t remaining = 20 * second;
    while (stream.waitForOutput(remaining) && stream.readAvailable(chunk)) {
        all += chunk;
    }
    EXPECT_TRUE(stream.isEof());
    return all;
}

inline std::string outputOf(const std::string& command, const std::string& directory = "") {
    UnixCommandStream stream(command, directory, true);
    return readAll(stream);
}

/// Message and code of a PosixError.
using Failure = std::pair<std::string, int>;

/// The PosixError that `operation` throws.
inline Failure posixError(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const PosixError& error) {
        return {error.what(), error.code()};
    }
    return {"nothing thrown", 0};
}

inline void awaitExit(const ICommandStream& stream) {
    const auto deadline = steady_clock::now() + generous;
    while (!stream.hasExited()) {
        ASSERT_LT(steady_clock::now(), deadline) << "the command goes on running";
        std::this_thread::yield();
    }
}

inline void awaitNoChildren() {
    const auto deadline = steady_clock::now() + generous;
    while (!test::hasNoChildren()) {
        ASSERT_LT(steady_clock::now(), deadline) << "the command goes on running";
        std::this_thread::yield();
    }
}

/// Runs `operation` while a signal interrupts its system calls every few milliseconds.
inline void underInterruption(const std::function<void()>& operation) {
    const test::ScopedDisposition handler(SIGALRM, [](int /*signal*/) {});
    const ::itimerval often{{0, 5000}, {0, 5000}};
    const ::itimerval never{};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    operation();
    ::setitimer(ITIMER_REAL, &never, nullptr);
}

/// Every test leaves the process unchanged: no children, no open descriptors, the same disposition of
/// SIGCHLD.
class CommandStream : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_TRUE(test::hasNoChildren());
        EXPECT_EQ(test::openDescriptors(), descriptors);
        EXPECT_EQ(test::disposition(SIGCHLD).sa_handler, SIG_DFL);
        EXPECT_EQ(test::disposition(SIGCHLD).sa_flags & SA_RESTART, 0);
    }

    std::size_t descriptors = test::openDescriptors();
};

} // namespace agent::core::script
