#include "common/Exceptions.h"
#include "support/Messages.h"
#include "unit/core/EngineFixture.h"

#include <future>

namespace agent::core {
namespace {

using test::messageOf;

TEST_F(EngineTest, NewRequestCancelsTheRunningBackupAndDoesNotWaitForIt) {
    request();
    EXPECT_TRUE(engine->isBackupRunning());
    EXPECT_EQ(request(), "backup-2");
    EXPECT_TRUE(record.has(3, "Backup request: Cancelling already running backup first."));
    EXPECT_TRUE(engine->isBackupRunning());
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{"backup-1", 0}, {"backup-2", 0}}));
    gate.open();
    EXPECT_TRUE(waitUntilIdle());
}

TEST_F(EngineTest, BackupThatCancelledItselfIsWaitedFor) {
    request();
    manager.cancelBackup("backup-1"); // as its heartbeat would
    std::future<std::string> next = std::async(std::launch::async, [&] { return request(); });
    while (!record.hasPart(4, "Failed to cancel a backup: Backup with ID backup-1 is already canceled")) {
        std::this_thread::sleep_for(1ms);
    }
    gate.open();
    EXPECT_EQ(next.get(), "backup-2");
    EXPECT_TRUE(waitUntilIdle());
}

TEST_F(EngineTest, CancelMovesTheBackupOutOfTheRunningSlot) {
    const std::string id = request();
    engine->cancelBackup(id);
    EXPECT_FALSE(engine->isBackupRunning());
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{id, 0}}));
    EXPECT_EQ(messageOf<exception::bad_request>([&] { engine->cancelBackup(id); }),
              "Backup with ID " + id + " is already canceled");
    EXPECT_EQ(messageOf<exception::bad_request>([&] { engine->cancelBackup("nobody"); }),
              "A backup with ID nobody does not exist.");
}

TEST_F(EngineTest, CancelOfAnEndedBackupLeavesTheSlotAlone) {
    gate.open();
    const std::string first = request();
    EXPECT_TRUE(waitUntilIdle());
    const std::string second = request();
    EXPECT_TRUE(waitUntilIdle());
    engine->cancelBackup(first);
    EXPECT_EQ(threadsLeft, 999);
}

TEST_F(EngineTest, SlotIsKeptWhenNoThreadCanBeMade) {
    const std::string id = request();
    threadsLeft = 0;
    EXPECT_EQ(messageOf<std::runtime_error>([&] { engine->cancelBackup(id); }),
              "Core engine could not create backup thread");
    EXPECT_TRUE(engine->isBackupRunning());
}

TEST_F(EngineTest, SeventhRequestIsRefusedWhileSixAreWindingDown) {
    for (int i = 1; i <= 7; ++i) {
        request(); // the seventh finds five winding down; with its own there are six
    }
    EXPECT_EQ(messageOf<exception::bad_request>([&] { request(); }),
              "Too many backup requests while waiting for cancelling backup");
    EXPECT_FALSE(record.hasPart(3, "backup-8"));
    EXPECT_TRUE(engine->isBackupRunning());
    BackupStatus status;
    EXPECT_NO_THROW(manager.getStatus("backup-7", status));
    EXPECT_NO_THROW(manager.cancelBackup("backup-7"))
        << "the running one was cancelled by the refused request";
}

TEST_F(EngineTest, EndedCancelledThreadsMakeRoomAgain) {
    for (int i = 1; i <= 7; ++i) {
        request();
    }
    EXPECT_THROW(request(), exception::bad_request);
    gate.open();
    EXPECT_TRUE(waitUntilIdle());
    std::string id;
    for (int i = 0; i < 5000 && id.empty(); ++i) {
        try {
            id = request();
        } catch (const exception::bad_request&) {
            std::this_thread::sleep_for(1ms);
        }
    }
    EXPECT_EQ(id, "backup-8");
}

TEST_F(EngineTest, StopCancelsAndWaits) {
    request();
    request();
    std::future<void> stopping = std::async(std::launch::async, [&] { engine->stop(); });
    EXPECT_EQ(stopping.wait_for(50ms), std::future_status::timeout);
    gate.open();
    stopping.get();
    EXPECT_TRUE(record.has(3, "BackupManager canceled all backups"));
    EXPECT_TRUE(record.has(3, "Waiting for backup thread to exit..."));
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{"backup-1", 1}, {"backup-2", 1}}));
}

TEST_F(EngineTest, StopWaitsForCancelledBackupsToo) {
    engine->cancelBackup(request());
    std::future<void> stopping = std::async(std::launch::async, [&] { engine->stop(); });
    while (!record.has(3, "Waiting for cancelling backups to exit...")) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(stopping.wait_for(0ms), std::future_status::timeout);
    gate.open();
    stopping.get();
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{"backup-1", 1}}));
}

} // namespace
} // namespace agent::core
