#include "os/Mutex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>

namespace os {
namespace {

/// A flag that one thread sets and another waits for.
class Flag {
public:
    void set() {
        const Lock lock(mutex);
        isSet = true;
        changed.notify_all();
    }
    void wait() {
        Lock lock(mutex);
        while (!isSet) {
            lock.wait(changed);
        }
    }
    /// Waits no longer than until `end`; returns whether the flag is set.
    bool waitUntil(std::chrono::steady_clock::time_point end) {
        Lock lock(mutex);
        while (!isSet) {
            if (!lock.waitUntil(changed, end)) {
                return isSet;
            }
        }
        return true;
    }
    /// Has another thread set the flag while the mutex, which this thread holds, is released.
    bool setWhileUnlocked(bool throws) {
        const Lock lock(mutex);
        try {
            const Unlock unlocked(mutex);
            std::async(std::launch::async, [this] { set(); }).get();
            if (throws) {
                throw std::runtime_error("an error");
            }
        } catch (const std::runtime_error&) {
            return isSet;
        }
        return isSet;
    }

private:
    Mutex mutex;
    std::condition_variable changed;
    bool isSet GUARDED_BY(mutex) = false;
};

TEST(MutexTest, WaitEndsWhenTheFlagIsSet) {
    Flag flag;
    auto waiting = std::async(std::launch::async, [&] { flag.wait(); });
    flag.set();
    EXPECT_EQ(waiting.wait_for(std::chrono::seconds(60)), std::future_status::ready);
}

TEST(MutexTest, WaitUntilGivesUpAtItsEnd) {
    Flag flag;
    EXPECT_FALSE(flag.waitUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(20)));
    flag.set();
    EXPECT_TRUE(flag.waitUntil(std::chrono::steady_clock::now()));
}

TEST(MutexTest, AnotherThreadCanLockWhatIsUnlockedForAWhile) {
    for (const bool throws : {false, true}) {
        Flag flag;
        EXPECT_TRUE(flag.setWhileUnlocked(throws));
        flag.set(); // not locked any more
    }
}

} // namespace
} // namespace os
