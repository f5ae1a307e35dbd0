#include "core/Heartbeat.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

namespace agent::core {
namespace {

using namespace std::chrono_literals;

constexpr auto never = std::chrono::hours(1);

class HeartbeatTest : public testing::Test {
protected:
    std::function<void()> counting() {
        return [this] { ++calls; };
    }
    int calls = 0;
};

TEST_F(HeartbeatTest, DoesNothingBeforeTheFirstPing) {
    Heartbeat heartbeat(0ns);
    heartbeat.setCallback(counting());
    heartbeat.check();
    EXPECT_EQ(calls, 0);
}

TEST_F(HeartbeatTest, DoesNothingWhileFed) {
    Heartbeat heartbeat(never);
    heartbeat.setCallback(counting());
    heartbeat.ping();
    heartbeat.check();
    EXPECT_EQ(calls, 0);
}

TEST_F(HeartbeatTest, CallsBackOnceForEachArming) {
    Heartbeat heartbeat(0ns);
    heartbeat.setCallback(counting());
    heartbeat.ping();
    heartbeat.check();
    heartbeat.check();
    EXPECT_EQ(calls, 1);
    heartbeat.ping();
    heartbeat.check();
    EXPECT_EQ(calls, 2);
}

TEST_F(HeartbeatTest, CallsBackNoEarlierThanTheTimeout) {
    const auto timeout = 50ms;
    Heartbeat heartbeat(timeout);
    heartbeat.setCallback(counting());
    heartbeat.ping();
    // Read after the ping, so that the measured time is never longer than the time without a ping.
    const auto pinged = std::chrono::steady_clock::now();
    while (calls == 0) {
        heartbeat.check();
        std::this_thread::yield();
    }
    EXPECT_GE(std::chrono::steady_clock::now() - pinged, timeout - 5ms);
}

TEST_F(HeartbeatTest, ResetDisarms) {
    Heartbeat heartbeat(0ns);
    heartbeat.setCallback(counting());
    heartbeat.ping();
    heartbeat.reset();
    heartbeat.check();
    EXPECT_EQ(calls, 0);
}

TEST_F(HeartbeatTest, EmptyCallbackIsAnErrorOnlyWhenCalled) {
    Heartbeat heartbeat(0ns);
    heartbeat.setCallback({});
    heartbeat.check();
    heartbeat.ping();
    EXPECT_THROW(heartbeat.check(), std::bad_function_call);
}

TEST_F(HeartbeatTest, ReplacedCallbackIsDestroyed) {
    Heartbeat heartbeat(0ns);
    auto held = std::make_shared<int>(0);
    heartbeat.setCallback([held] {});
    EXPECT_EQ(held.use_count(), 2);
    heartbeat.setCallback(counting());
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(HeartbeatTest, MayBeFedWhileItIsChecked) {
    Heartbeat heartbeat(never);
    std::atomic<bool> called = false;
    heartbeat.setCallback([&] { called = true; });
    std::atomic<bool> done = false;
    std::thread feeder([&] {
        while (!done) {
            heartbeat.ping();
            heartbeat.setCallback([&] { called = true; });
        }
    });
    for (int i = 0; i < 10'000; ++i) {
        heartbeat.check();
    }
    done = true;
    feeder.join();
    EXPECT_FALSE(called);
}

} // namespace
} // namespace agent::core
