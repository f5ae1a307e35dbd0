#include "support/Messages.h"
#include "support/NoMoreThreads.h"
#include "unit/core/EngineFixture.h"

#include <gmock/gmock.h>

#include <system_error>

namespace agent::core {
namespace {

using test::messageOf;
using testing::ElementsAre;

TEST_F(EngineTest, LifeWithoutABackup) {
    engine->start();
    EXPECT_FALSE(engine->isBackupRunning());
    engine->stop();
    engine.reset();
    using Lines = std::vector<test::RecordingLogger::Line>;
    EXPECT_EQ(record.lines(), (Lines{{4, "Core engine created"},
                                     {4, "Core engine starting"},
                                     {3, "Core engine started"},
                                     {4, "Core engine stopping"},
                                     {3, "Core engine stopped"},
                                     {4, "Core engine destroyed"}}));
}

TEST_F(EngineTest, NeedsAThread) {
    threadsLeft = 0;
    EXPECT_EQ(messageOf<std::runtime_error>([&] { makeEngine(); }),
              "Core engine could not create backup thread");
    EXPECT_THROW(Engine(record.logger, driverInfo, quiesce, manager, {}, {}), std::bad_function_call);
}

TEST_F(EngineTest, ListsTheScriptsOfTheBaseDirectory) {
    EXPECT_THAT(engine->getQuiesceScripts(), ElementsAre("a-first", "b-second"));
    EXPECT_EQ(quiesce.askedFor, "/etc/tolvu/bek/pps");
}

TEST_F(EngineTest, RunsABackup) {
    gate.open();
    EXPECT_EQ(request(), "backup-1");
    EXPECT_TRUE(waitUntilIdle());
    EXPECT_TRUE(record.has(3, "Core engine was asked to create a backup"));
    EXPECT_TRUE(record.has(3, "Driver version: 4.2.0"));
    EXPECT_TRUE(record.has(3, "Validating backup information..."));
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{"backup-1", 3}}));
}

TEST_F(EngineTest, ThreadIsReusedForTheNextBackup) {
    gate.open();
    request();
    EXPECT_TRUE(waitUntilIdle());
    EXPECT_EQ(request(), "backup-2");
    EXPECT_TRUE(waitUntilIdle());
    EXPECT_EQ(threadsLeft, 999);
}

TEST_F(EngineTest, BackupWhoseThreadCannotBeMadeStaysKnown) {
    gate.open();
    {
        const test::NoMoreThreads none;
        EXPECT_THROW(request(), std::system_error);
    }
    EXPECT_TRUE(record.hasPart(1, "Exception occurred while trying to spawn backup thread: "));
    EXPECT_FALSE(engine->isBackupRunning());
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{"backup-1", 0}})); // active, as it was created
    EXPECT_EQ(request(), "backup-2");
    EXPECT_TRUE(waitUntilIdle());
    EXPECT_EQ(states().at("backup-2"), 3U);
    engine->stop();
    EXPECT_TRUE(record.has(3, "Core engine stopped"));
}

TEST_F(EngineTest, BackupWhoseThreadCouldNotBeMadeCanBeCancelled) {
    {
        const test::NoMoreThreads none;
        EXPECT_THROW(request(), std::system_error);
    }
    engine->cancelBackup("backup-1");
    gate.open();
    EXPECT_EQ(request(), "backup-2");
    EXPECT_TRUE(waitUntilIdle());
}

TEST_F(EngineTest, NullSessionIsRefused) {
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { engine->createBackup(nullptr, nullptr, nullptr); }),
              "Cannot start a backup with null backup session object.");
    EXPECT_TRUE(states().empty());
    EXPECT_NO_THROW(request()); // the refused request has released everything
}

TEST_F(EngineTest, WaitForBackupThrowsWhatTheThreadThrew) {
    gate.open();
    request();
    EXPECT_NO_THROW(engine->waitForBackup());
    backupsFail = true;
    request();
    EXPECT_EQ(messageOf<std::runtime_error>([&] { engine->waitForBackup(); }), "post backup failed");
}

} // namespace
} // namespace agent::core
