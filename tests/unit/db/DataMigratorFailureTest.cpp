#include "unit/db/DataMigratorFixture.h"

#include <chrono>
#include <sys/mount.h>

namespace agent::db {
namespace {

using info::level::debug;
using info::level::error;
using testing::ElementsAre;

TEST_F(DataMigratorTest, AnUnreadableSizeSaysWhy) {
    makeLegacy("insert into config values ('cow_percent', '10'), ('max_cow_megs', 'much');");
    expectMigrated();
    EXPECT_TRUE(
        recorder.has(debug, "Failed to get cow file size related entries from legacy DB. Error: stoull"));
}

TEST_F(DataMigratorTest, ALockedDatabaseIsOneThatHoldsNothing) {
    makeLegacy("insert into device values (4711);");
    RawDatabase other(legacy);
    other.run("BEGIN EXCLUSIVE;");
    const auto started = std::chrono::steady_clock::now();
    expectMigrated();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    expectNothingStored();
    EXPECT_TRUE(recorder.has(error, "Failed to select device ID from legacy DB: Unable to call prepare in "
                                    "runquery, sqlite return: database is locked"));
}

TEST_F(DataMigratorTest, ADirectoryInPlaceOfTheDatabase) {
    dir::make(legacy);
    EXPECT_FALSE(migrate());
    EXPECT_TRUE(recorder.hasPart(error, "Exception caught while attempting to migrate the legacy database: "
                                        "QueryRunner: unable to open database file"));
    EXPECT_TRUE(recorder.has(error, "Failed to migrate the legacy database data!"));
    EXPECT_TRUE(file::exists(legacy));
}

TEST_F(DataMigratorTest, WithoutVolumesTheNextStartTriesAgain) {
    makeLegacy("insert into device values (4711);");
    volumes.failure = "no volumes to be had";
    EXPECT_FALSE(migrate());
    EXPECT_TRUE(recorder.has(
        error, "Exception caught while attempting to migrate the legacy database: no volumes to be had"));
    EXPECT_EQ(stored("select id from device;"), "4711");
    volumes.failure.clear();
    expectMigrated();
}

TEST_F(DataMigratorTest, AStoreThatCannotBeWritten) {
    makeLegacy("insert into device values (4711);");
    file::remove(path());
    dir::make(path());
    EXPECT_FALSE(migrate());
    EXPECT_TRUE(file::exists(legacy));
    EXPECT_FALSE(file::exists(renamed));
}

TEST_F(DataMigratorTest, ADirectoryInTheWayOfTheNewName) {
    makeLegacy("insert into device values (4711);");
    dir::make(renamed);
    for (int start = 0; start < 2; ++start) {
        EXPECT_FALSE(migrate());
        EXPECT_EQ(stored("select id from device;"), "4711");
    }
    EXPECT_EQ(recorder.count(error, "Failed to rename the legacy database to " + renamed), 2);
    EXPECT_EQ(recorder.count(error, "Failed to rename the legacy database file! Delete this file to prevent "
                                    "unnecessary data migration!"),
              2);
    EXPECT_TRUE(file::exists(legacy));
}

TEST_F(DataMigratorTest, WhatExistsAlreadyStaysWhenItRunsAgain) {
    volumes.add(one, 100 * gib);
    volumes.add(two, 100 * gib);
    makeLegacy("insert into device values (4711);"
               "insert into config values ('agentUUID', 'the-uuid'), ('cow_percent', '10'), "
               "('max_cow_megs', '500');"
               "insert into history (device, result, image_chksum) values ('" +
               one + "', 'success', 200), ('" + two + "', 'success', 300);");
    dir::make(renamed);
    hasHistory = false;
    EXPECT_FALSE(migrate());
    EXPECT_THAT(driverCalls, ElementsAre("makeEmptyHistory " + one, "makeEmptyHistory " + two));

    // The agent is paired again, one volume is backed up, another backup only begins, and a size is set.
    driverCalls.clear();
    provider.setDevice(4712, "10.0.0.1", "of-the-appliance");
    provider.setVolumeChecksum(one, 201, ChecksumType::gcrypt32crc);
    provider.setVolumeChecksum(two, 0, ChecksumType::gcrypt32crc);
    config.set({{"volumes." + one + ".cowFileSizeMiB", 700U}});
    dir::remove(renamed);
    EXPECT_TRUE(migrate());
    EXPECT_EQ(stored("select id || ip || agentUUID from device;"), "471210.0.0.1of-the-appliance");
    EXPECT_EQ(provider.getConfigValue("agentUUID"), "the-uuid");
    EXPECT_EQ(checksumOf(one), 201U);
    EXPECT_EQ(checksumOf(two), 0U);
    EXPECT_THAT(driverCalls, IsEmpty()); // blocks owed since then must not be forgotten
    EXPECT_EQ(sizeOf(one), 700);
    EXPECT_EQ(sizeOf(two), 500);
    EXPECT_TRUE(recorder.has(
        info::level::info, "The agent is paired with device 4712 already, so the one of the legacy DB stays "
                           "unused."));
    EXPECT_TRUE(recorder.has(info::level::info, "What is known about volume " + one +
                                                    " is newer than the legacy DB, and stays."));
}

TEST_F(DataMigratorTest, AHistoryThatIsThereStays) {
    volumes.add(one, gib);
    makeLegacy("");
    hasHistory = true;
    expectMigrated();
    EXPECT_THAT(driverCalls, IsEmpty());
}

TEST_F(DataMigratorTest, AWriteProtectedDirectory) {
    const std::string base = dir::base();
    ASSERT_EQ(::mount("tmpfs", base.c_str(), "tmpfs", 0, "size=1m"), 0);
    makeLegacy("insert into device values (4711);");
    ASSERT_EQ(::mount("tmpfs", base.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, ""), 0);
    EXPECT_FALSE(migrate());
    EXPECT_EQ(stored("select id from device;"), "4711");
    EXPECT_TRUE(file::exists(legacy));
    ASSERT_EQ(::umount(base.c_str()), 0);
}

TEST_F(DataMigratorTest, AnEarlierMigratedFileIsReplaced) {
    test::writeFile(renamed, "older");
    makeLegacy("insert into device values (4711);");
    expectMigrated();
}

} // namespace
} // namespace agent::db
