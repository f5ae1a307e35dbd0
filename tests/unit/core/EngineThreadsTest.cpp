#include "common/Exceptions.h"
#include "support/BlockingCall.h"
#include "support/Messages.h"
#include "unit/core/EngineFixture.h"

#include <future>

namespace agent::core {
namespace {

using test::messageOf;

TEST_F(EngineTest, SecondRequestWaitsForTheFirst) {
    test::BlockingCall making;
    whileMaking = std::ref(making);
    std::future<std::string> first = std::async(std::launch::async, [&] { return request(); });
    making.waitUntilEntered();
    whileMaking = nullptr;
    std::future<std::string> second = std::async(std::launch::async, [&] { return request(); });
    EXPECT_EQ(second.wait_for(50ms), std::future_status::timeout);
    making.release();
    EXPECT_EQ(first.get(), "backup-1");
    EXPECT_EQ(second.get(), "backup-2");
}

TEST_F(EngineTest, SecondRequestGivesUpAfterFiveSeconds) {
    test::BlockingCall making;
    whileMaking = std::ref(making);
    std::future<std::string> first = std::async(std::launch::async, [&] { return request(); });
    making.waitUntilEntered();
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(messageOf<exception::bad_request>([&] { request(); }),
              "Core engine can't do a backup right now, one is already being started");
    EXPECT_GE(std::chrono::steady_clock::now() - begun, 5s);
    making.release();
    EXPECT_EQ(first.get(), "backup-1");
}

TEST_F(EngineTest, CancelDoesNotWaitForARequest) {
    const std::string running = request();
    test::BlockingCall making;
    whileMaking = std::ref(making);
    std::future<std::string> next = std::async(std::launch::async, [&] { return request(); });
    making.waitUntilEntered();
    EXPECT_THROW(engine->cancelBackup(running), exception::bad_request); // the new request has cancelled it
    EXPECT_FALSE(engine->isBackupRunning());
    making.release();
    EXPECT_EQ(next.get(), "backup-2");
}

TEST_F(EngineTest, RequestsCancelsAndQuestionsMayMeet) {
    gate.open();
    std::atomic<bool> done = false;
    std::thread asking([&] {
        while (!done) {
            (void)engine->isBackupRunning();
        }
    });
    std::thread cancelling([&] {
        while (!done) {
            for (const auto& [id, state] : states()) {
                try {
                    engine->cancelBackup(id);
                } catch (const exception::bad_request&) { // already ended or cancelled
                }
            }
        }
    });
    int accepted = 0;
    for (int i = 0; i < 100; ++i) {
        try {
            request();
            ++accepted;
        } catch (const exception::bad_request&) { // too many backups are winding down
        }
    }
    done = true;
    asking.join();
    cancelling.join();
    engine->stop();
    EXPECT_GT(accepted, 0);
    EXPECT_FALSE(engine->isBackupRunning());
}

} // namespace
} // namespace agent::core
