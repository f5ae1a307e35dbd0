#include "StateStore.h"

#include "Layout.h"
#include "Status.h"
#include "Uuid.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

namespace tolvubd {
namespace {

/// Runs in a mount namespace of its own (lab/namespace), so that it can use the fixed paths.
class StateStoreTest : public ::testing::Test {
protected:
    StateStoreTest() { clear(); }
    StateStoreTest(const StateStoreTest&) = delete;
    StateStoreTest& operator=(const StateStoreTest&) = delete;
    ~StateStoreTest() override { clear(); }

    static Table tableWith(const std::string& blockDevice) {
        Table table;
        table.session = makeUuid();
        table.devices = {{0, Mode::tracking, blockDevice, "/.tolvu", makeUuid(), 4096, 0, {}}};
        return table;
    }

private:
    static void clear() {
        std::filesystem::remove(layout::state);
        std::filesystem::remove_all(layout::runtime);
    }
};

TEST_F(StateStoreTest, BeginsEmpty) {
    const StateStore store;
    EXPECT_TRUE(store.load().devices.empty());
    EXPECT_FALSE(isLive(store.load()));
}

TEST_F(StateStoreTest, KeepsWhatWasWrittenLast) {
    const Table one = tableWith("/dev/one");
    const Table two = tableWith("/dev/two");
    {
        const StateStore store;
        store.write(one);
        store.write(two);
    }
    EXPECT_EQ(StateStore().load(), two);
    EXPECT_EQ(observeTable(), two);
    StateStore().restorePrevious();
    EXPECT_EQ(observeTable(), one);
}

TEST_F(StateStoreTest, TakesGarbageForAnEmptyTable) {
    const StateStore store;
    for (const std::string text : {"", "{", "null", "{\"format\": 1}"}) {
        agent::test::writeFile(layout::state, text);
        EXPECT_TRUE(store.load().devices.empty()) << text;
    }
}

TEST_F(StateStoreTest, KnowsTheRunOfTheMachine) {
    const StateStore store;
    const Table table = tableWith("/dev/one");
    EXPECT_FALSE(isLive(table));
    markLive(table);
    EXPECT_TRUE(isLive(table));
    EXPECT_FALSE(isLive(tableWith("/dev/one")));
    agent::test::writeFile(layout::session, std::string(100'000, 'x'));
    EXPECT_FALSE(isLive(table));
}

TEST_F(StateStoreTest, LetsOneInAtATime) {
    std::atomic<int> inside{0};
    std::atomic<bool> shared{false};
    const auto turns = [&] {
        for (int i = 0; i < 200; ++i) {
            const StateStore store;
            shared = shared || ++inside > 1;
            std::this_thread::yield();
            --inside;
        }
    };
    std::thread one(turns);
    std::thread other(turns);
    one.join();
    other.join();
    EXPECT_FALSE(shared);
}

TEST_F(StateStoreTest, StatusShowsTheDevicesAsTheKernelDriverWould) {
    const StateStore store;
    Table table = tableWith("/dev/disk/by-uuid/\"x\"");
    table.asleep = table.devices;
    publish(table);
    EXPECT_EQ(agent::test::readFile(layout::version), std::string(driverVersion) + "\n");
    EXPECT_EQ(agent::test::readFile(layout::info), R"({
    "version": "0.10.0",
    "devices": [
        {
            "minor": 0,
            "cow_file": "/.tolvu",
            "block_device": "/dev/disk/by-uuid/\"x\"",
            "state": 2,
            "error": 0
        }
    ]
}
)");
}

} // namespace
} // namespace tolvubd
