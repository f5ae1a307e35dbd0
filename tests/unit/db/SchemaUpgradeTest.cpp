#include "db/SchemaUpgrade.h"

#include "unit/db/ConnectionHook.h"
#include "unit/db/DataProviderFixture.h"

#include <string_view>

namespace agent::db {
namespace {

using test::failureOf;
using test::RawDatabase;

// The statements that each version of the agent ran on a new file.
constexpr const char* versionZero = "create table if not exists config (id integer primary key autoincrement "
                                    "not null, key text not null, value "
                                    "text null);"
                                    "create table if not exists device (id integer not null);"
                                    "CREATE TABLE IF NOT EXISTS volumes ( volume_uuid TEXT PRIMARY KEY NOT "
                                    "NULL, image_checksum TEXT NOT NULL "
                                    "DEFAULT '0', backup_status TEXT NOT NULL DEFAULT 'unknown');";
constexpr const char* toVersionOne = "ALTER TABLE device ADD COLUMN ip TEXT DEFAULT \"\";"
                                     "ALTER TABLE device ADD COLUMN agentUUID TEXT DEFAULT \"\";"
                                     "PRAGMA user_version = 1;";
constexpr const char* toVersionTwo =
    "ALTER TABLE volumes ADD COLUMN image_checksum_type TEXT DEFAULT \"unknown\";"
    "PRAGMA user_version = 2;";
constexpr const char* someRows = "insert into config (key, value) values ('agentUUID', 'old uuid');"
                                 "insert into device (id) values (42);"
                                 "INSERT INTO volumes (volume_uuid, image_checksum) VALUES ('vol', '123');";

class SchemaUpgradeTest : public test::DataProviderFixture {
protected:
    void oldFile(const std::string& statements) { RawDatabase(path()).run(statements); }
    std::string validationFailure() {
        return failureOf([&] { provider.validateProvider(); });
    }
    std::string version() { return stored("PRAGMA user_version;").value(); }
    std::string columns(const std::string& table) {
        return stored("select group_concat(name) from pragma_table_info('" + table + "');").value_or("");
    }

    void expectNewestTables() {
        EXPECT_EQ(version(), "3");
        EXPECT_EQ(columns("config"), "id,key,value");
        EXPECT_EQ(columns("device"), "id,ip,agentUUID");
        EXPECT_EQ(columns("volumes"), "volume_uuid,image_checksum,backup_status,image_checksum_type");
        EXPECT_EQ(columns("change_journal"),
                  "volume_uuid,current_journal_id,current_journal_change_id,next_journal_id,"
                  "next_journal_change_id,incremental_size_blocks");
    }

    void expectOldRows() {
        std::int32_t id = 0;
        std::string ip = "none";
        std::string uuid = "none";
        EXPECT_EQ(provider.getConfigValue("agentUUID"), "old uuid");
        ASSERT_TRUE(provider.getDevice(id, ip, uuid));
        EXPECT_EQ(id, 42);
        EXPECT_EQ(ip + uuid, "");
        EXPECT_EQ(provider.getVolumeUUIDs(), std::vector<std::string>({"vol"}));
        EXPECT_EQ(stored("select image_checksum || backup_status || image_checksum_type from volumes;"),
                  "123unknownunknown");
    }
};

TEST_F(SchemaUpgradeTest, AFreshFileEndsAtTheNewestVersion) {
    provider.validateProvider();
    expectNewestTables();
    EXPECT_TRUE(recorder.has(info::level::debug, "Starting validateProvider."));
    EXPECT_TRUE(recorder.has(info::level::debug, "Found db schema version: 0"));
}

TEST_F(SchemaUpgradeTest, IsSafeToRunAgain) {
    provider.validateProvider();
    provider.setConfigValue("key", "value");
    provider.validateProvider();
    expectNewestTables();
    EXPECT_EQ(provider.getConfigValue("key"), "value");
    EXPECT_TRUE(recorder.has(info::level::debug, "Found db schema version: 3"));
}

TEST_F(SchemaUpgradeTest, VersionZeroKeepsItsRows) {
    oldFile(std::string(versionZero) + someRows);
    provider.validateProvider();
    expectNewestTables();
    expectOldRows();
}

TEST_F(SchemaUpgradeTest, VersionOneKeepsItsRows) {
    oldFile(std::string(versionZero) + toVersionOne + someRows);
    provider.validateProvider();
    expectNewestTables();
    expectOldRows();
}

TEST_F(SchemaUpgradeTest, VersionTwoKeepsItsRows) {
    oldFile(std::string(versionZero) + toVersionOne + toVersionTwo + someRows);
    provider.validateProvider();
    expectNewestTables();
    expectOldRows();
}

TEST_F(SchemaUpgradeTest, AnOldVolumeNeedsAFreshChecksum) {
    oldFile(std::string(versionZero) + someRows);
    provider.validateProvider();
    std::uint32_t checksum = 0;
    ChecksumType type{};
    EXPECT_EQ(failureOf([&] { provider.getVolumeChecksum("vol", checksum, type); }),
              "Invalid checksum type found in volumes table");
    provider.setVolumeChecksum("vol", 9, ChecksumType::libcrc32c);
    provider.getVolumeChecksum("vol", checksum, type);
    EXPECT_EQ(checksum, 9U);
    EXPECT_EQ(stored("select backup_status from volumes;"), "unknown");
}

TEST_F(SchemaUpgradeTest, VersionOneDoesNotGetTheDeviceColumns) {
    oldFile(std::string(versionZero) + "PRAGMA user_version = 1;");
    provider.validateProvider();
    EXPECT_EQ(version(), "3");
    EXPECT_EQ(columns("device"), "id");
    EXPECT_EQ(columns("volumes"), "volume_uuid,image_checksum,backup_status,image_checksum_type");
    EXPECT_NE(columns("change_journal"), "");
}

TEST_F(SchemaUpgradeTest, ANewerVersionIsLeftAlone) {
    oldFile(std::string(versionZero) + someRows + "PRAGMA user_version = 9;");
    const auto before = RawDatabase(path()).run("select sql from sqlite_master order by name;");
    provider.validateProvider();
    EXPECT_EQ(version(), "9");
    EXPECT_EQ(RawDatabase(path()).run("select sql from sqlite_master order by name;"), before);
    EXPECT_TRUE(recorder.has(info::level::warning,
                             "This is a database newer than what this agent is prepared "
                             "for, continue at your own risk"));
}

TEST_F(SchemaUpgradeTest, AVersionBelowZeroGetsEverything) {
    oldFile(std::string(versionZero) + someRows + "PRAGMA user_version = -2147483648;");
    provider.validateProvider();
    expectNewestTables();
    expectOldRows();
}

TEST_F(SchemaUpgradeTest, AFailedStepThrowsAndKeepsWhatWasDone) {
    oldFile("create table device (id integer not null, agentUUID text);");
    EXPECT_EQ(validationFailure(), "upgradeSchema failed!");
    EXPECT_TRUE(recorder.has(info::level::error, "Unable to call prepare in runupdate, sqlite return: 1"));
    EXPECT_EQ(version(), "0");
    EXPECT_EQ(columns("config"), "id,key,value");
    EXPECT_EQ(columns("device"), "id,agentUUID,ip");
}

TEST_F(SchemaUpgradeTest, AFailedCreationThrowsAndKeepsWhatWasDone) {
    oldFile("create table other (a);create index device on other (a);");
    EXPECT_EQ(validationFailure(), "Unable to call prepare in runupdate, sqlite return: 1");
    EXPECT_EQ(columns("config"), "id,key,value");
    EXPECT_EQ(columns("volumes"), "");
}

/// Makes SQLite refuse or ignore one pragma on every connection.
class PragmaAnswer {
public:
    explicit PragmaAnswer(int answer)
        : hook([answer](sqlite3* database) {
              sqlite3_set_authorizer(database, answer == SQLITE_IGNORE ? &ignore : &deny, nullptr);
          }) {}

private:
    static bool isVersion(int action, const char* name) {
        return action == SQLITE_PRAGMA && name != nullptr && std::string_view(name) == "user_version";
    }
    static int ignore(void*, int action, const char* name, const char*, const char*, const char*) {
        return isVersion(action, name) ? SQLITE_IGNORE : SQLITE_OK;
    }
    static int deny(void*, int action, const char* name, const char*, const char*, const char*) {
        return isVersion(action, name) ? SQLITE_DENY : SQLITE_OK;
    }

    test::ConnectionHook hook;
};

TEST_F(SchemaUpgradeTest, AMissingVersionIsLoggedAndThrows) {
    const PragmaAnswer nothing(SQLITE_IGNORE);
    EXPECT_EQ(validationFailure(), "upgradeSchema failed!");
    EXPECT_TRUE(
        recorder.has(info::level::error, "Could not get db schema version: Could not get db user_version."));
}

TEST_F(SchemaUpgradeTest, ARefusedVersionIsLoggedAndThrows) {
    const PragmaAnswer refusal(SQLITE_DENY);
    EXPECT_EQ(validationFailure(), "upgradeSchema failed!");
    EXPECT_TRUE(recorder.has(info::level::error,
                             "Could not get db schema version: Unable to call prepare in runquery, sqlite "
                             "return: not authorized"));
    EXPECT_EQ(columns("volumes"), "volume_uuid,image_checksum,backup_status");
}

} // namespace
} // namespace agent::db
