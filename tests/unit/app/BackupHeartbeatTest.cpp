#include "app/BackupHeartbeat.h"

#include "db/DataProvider.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <string>

namespace agent::app {
namespace {

constexpr const char* key = "disable_ordak_ping_timeout";

class BackupHeartbeatTest : public testing::Test {
protected:
    test::TestDirectory directory;
    test::RecordingLogger log;
    UUIDGenerator generator;
    db::DataProvider database{log.logger, generator, directory.path()};
};

TEST_F(BackupHeartbeatTest, IsThereUnlessItIsSwitchedOff) {
    database.validateProvider();
    EXPECT_NE(makeBackupHeartbeat(database), nullptr);
    for (const std::string value : {"", "false", "0", "yes", "TRUE", "true ", "11"}) {
        database.setConfigValue(key, value);
        EXPECT_NE(makeBackupHeartbeat(database), nullptr) << value;
    }
    for (const std::string value : {"true", "1"}) {
        database.setConfigValue(key, value);
        EXPECT_EQ(makeBackupHeartbeat(database), nullptr) << value;
    }
    database.setConfigValue(key, "false"); // applies to backups created from now on
    EXPECT_NE(makeBackupHeartbeat(database), nullptr);
}

TEST_F(BackupHeartbeatTest, IsThereWhenTheDatabaseCannotBeRead) {
    EXPECT_NE(makeBackupHeartbeat(database), nullptr); // the database has no tables yet
}

TEST_F(BackupHeartbeatTest, DoesNotCallRightAfterAPing) {
    database.validateProvider();
    const auto heartbeat = makeBackupHeartbeat(database);
    bool hasCalled = false;
    heartbeat->setCallback([&] { hasCalled = true; });
    heartbeat->ping();
    heartbeat->check();
    EXPECT_FALSE(hasCalled);
}

} // namespace
} // namespace agent::app
