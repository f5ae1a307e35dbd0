#include "db/DataMigrator.h"

#include "app/AgentConfigOptions.h"
#include "common/File.h"
#include "common/config/Config.h"
#include "common/config/JSONConfigDataProvider.h"
#include "info/VolumeProvider.h"
#include "support/FakeDriverController.h"
#include "unit/db/DataProviderFixture.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <random>
#include <sys/mount.h>

namespace agent::db {
namespace {

using info::level::debug;
using info::level::error;
using nlohmann::json;
using test::RawDatabase;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t gib = 1ULL << 30;
const std::string one = "11111111-1111-1111-1111-111111111111";
const std::string two = "22222222-2222-2222-2222-222222222222";

const std::string tables =
    "create table device (id integer not null);"
    "create table config (name text, value text);"
    "create table history (id integer primary key, device text, volume text, result text, "
    "image_chksum integer);";

/// A volume provider with the volumes that the test sets.
class FixedVolumes : public info::VolumeProvider {
public:
    using VolumeProvider::getBackupableVolumes;
    using VolumeProvider::VolumeProvider;

    [[nodiscard]] std::vector<std::shared_ptr<info::BackupableVolume>>
    getBackupableVolumes(const Filter& filter) const override {
        if (!failure.empty()) {
            throw std::runtime_error(failure);
        }
        std::vector<std::shared_ptr<info::BackupableVolume>> found;
        for (const auto& volume : volumes) {
            if (filter(volume)) {
                found.push_back(volume);
            }
        }
        return found;
    }

    void add(const std::string& uuid, std::uint64_t size) {
        info::VolumeDescription description;
        description.uuid = uuid;
        description.size = size;
        volumes.push_back(std::make_shared<info::BackupableVolume>(std::move(description)));
    }

    std::string failure;

private:
    std::vector<std::shared_ptr<info::BackupableVolume>> volumes;
};

/// A driver whose record of calls outlives it.
class NotingDriver : public test::FakeDriverController {
public:
    NotingDriver(std::vector<std::string>& notes, bool withHistory) : notes(notes) {
        hasHistory = withHistory;
    }
    NotingDriver(const NotingDriver&) = delete;
    NotingDriver& operator=(const NotingDriver&) = delete;
    ~NotingDriver() override { notes.insert(notes.end(), calls.begin(), calls.end()); }

private:
    std::vector<std::string>& notes;
};

class DataMigratorTest : public test::DataProviderFixture {
protected:
    DataMigratorTest() {
        dir::make(dir::base());
        provider.validateProvider();
    }
    ~DataMigratorTest() override { dir::remove("/etc/tolvu"); }
    DataMigratorTest(const DataMigratorTest&) = delete;
    DataMigratorTest& operator=(const DataMigratorTest&) = delete;

    static void makeLegacy(const std::string& content) { RawDatabase(legacy).run(tables + content); }

    bool migrate() { return migrator.migrate(config); }

    void expectMigrated() {
        const std::string content = test::readFile(legacy);
        EXPECT_TRUE(migrate());
        EXPECT_FALSE(file::exists(legacy));
        EXPECT_EQ(test::readFile(renamed), content);
    }

    /// Expects that nothing was migrated, as if there had been no legacy database.
    void expectNothingStored() {
        EXPECT_EQ(stored("select id from device;"), std::nullopt);
        EXPECT_EQ(stored("select value from config where key = 'agentUUID';"), std::nullopt);
        EXPECT_THAT(provider.getVolumeUUIDs(), IsEmpty());
        EXPECT_EQ(config.dump(), json::object());
    }

    std::uint32_t checksumOf(const std::string& uuid) {
        std::uint32_t checksum = 0;
        ChecksumType type{};
        provider.getVolumeChecksum(uuid, checksum, type);
        EXPECT_EQ(type, ChecksumType::gcrypt32crc);
        return checksum;
    }

    json sizeOf(const std::string& uuid) {
        return config.dump().value("volumes." + uuid + ".cowFileSizeMiB", json());
    }

    static inline const std::string legacy = dir::base() / "bekd.sqlite";
    static inline const std::string renamed = legacy + ".tolvu-migrated";

    FixedVolumes volumes{recorder.logger};
    std::vector<std::string> driverCalls;
    bool hasHistory = false;
    JSONConfigDataProvider configFile{dir::base() / "config.json"};
    Config config{recorder.logger, configFile, app::agentConfigOptions()};
    DataMigrator migrator{recorder.logger, provider, volumes,
                          [this] { return std::make_unique<NotingDriver>(driverCalls, hasHistory); }};
};

TEST_F(DataMigratorTest, NothingToMigrate) {
    volumes.failure = "nobody may ask";
    EXPECT_TRUE(migrate());
    EXPECT_TRUE(recorder.has(debug,
                             "The legacy database (/etc/tolvu/bek/bekd.sqlite) doesn't exist (it may have "
                             "been already migrated). There is no database migration needed."));
    EXPECT_FALSE(file::exists(renamed));
    expectNothingStored();
}

/// On Linux only the `device` column of the history names a volume, so the second volume's row doesn't count.
/// Failed backups and rows without a checksum don't count either; the last of the others wins.
TEST_F(DataMigratorTest, EverythingThatMatters) {
    volumes.add(one, 100 * gib);
    volumes.add(two, 10 * gib);
    makeLegacy(
        "insert into device values (4711);"
        "insert into config values ('agentUUID', 'the-uuid'), ('cow_percent', '20'), ('max_cow_megs', '0'),"
        "('os_version', 'none of ours');"
        "insert into history (device, result, image_chksum) values "
        "('/dev/disk/by-uuid/" +
        one +
        "', 'success', 100), "
        "('/dev/disk/by-uuid/" +
        one +
        "', 'success', 200), "
        "('/dev/disk/by-uuid/" +
        one +
        "', 'failed', 300), "
        "('/dev/disk/by-uuid/" +
        one +
        "', 'success', null);"
        "insert into history (volume, result, image_chksum) values ('" +
        two + "', 'success', 400);");
    expectMigrated();
    EXPECT_EQ(stored("select id || ip || agentUUID from device;"), "4711");
    EXPECT_EQ(provider.getConfigValue("agentUUID"), "the-uuid");
    EXPECT_EQ(stored("select value from config where key = 'last_win_ver';"), std::nullopt);
    EXPECT_EQ(checksumOf(one), 200U);
    EXPECT_FALSE(provider.hasVolume(two));
    EXPECT_TRUE(
        recorder.has(debug, "No last image checksum value found for volume " + two + " from legacy DB"));
    EXPECT_THAT(driverCalls, ElementsAre("makeEmptyHistory " + one, "makeEmptyHistory " + two));
    EXPECT_EQ(sizeOf(one), 20480);
    EXPECT_EQ(sizeOf(two), 2048);
}

TEST_F(DataMigratorTest, SizesOutliveTheProcess) {
    volumes.add(one, 100 * gib);
    makeLegacy("insert into config values ('cow_percent', '10'), ('max_cow_megs', '500');");
    expectMigrated();
    EXPECT_EQ(json::parse(test::readFile(dir::base() / "config.json")),
              json({{"volumes." + one + ".cowFileSizeMiB", 500}}));
}

TEST_F(DataMigratorTest, ASecondStartFindsNothing) {
    makeLegacy("insert into device values (4711);");
    expectMigrated();
    provider.setDevice(4712, "", "");
    EXPECT_TRUE(migrate());
    EXPECT_EQ(stored("select id from device;"), "4712");
}

TEST_F(DataMigratorTest, EmptyTables) {
    volumes.add(one, gib);
    makeLegacy("");
    expectMigrated();
    expectNothingStored();
    EXPECT_THAT(driverCalls, ElementsAre("makeEmptyHistory " + one));
    EXPECT_TRUE(recorder.has(debug, "No value found for device id from legacy DB"));
    EXPECT_TRUE(recorder.has(info::level::info, "There was no device ID to migrate in the legacy DB."));
    EXPECT_TRUE(recorder.has(debug, "No value found for agentUUID from legacy DB"));
    EXPECT_TRUE(
        recorder.has(info::level::info, "There was no agent installation UUID to migrate in the legacy DB."));
    EXPECT_TRUE(recorder.has(debug, "No value found for max_cow_megs from legacy DB"));
    EXPECT_TRUE(
        recorder.has(debug, "Failed to get cow file size related entries from legacy DB. Error: stoul"));
}

TEST_F(DataMigratorTest, NoTables) {
    volumes.add(one, gib);
    RawDatabase(legacy).run("create table other (id integer);");
    expectMigrated();
    expectNothingStored();
    const std::string reason = "Unable to call prepare in runquery, sqlite return: no such table: ";
    EXPECT_TRUE(recorder.has(error, "Failed to select device ID from legacy DB: " + reason + "device"));
    EXPECT_TRUE(recorder.has(debug, "Failed to select agentUUID from legacy DB: " + reason + "config"));
    EXPECT_TRUE(
        recorder.has(error, "Failed to get last image checksum from legacy DB: " + reason + "history"));
}

TEST_F(DataMigratorTest, AnEmptyFileIsADatabaseWithoutTables) {
    test::writeFile(legacy, "");
    expectMigrated();
    expectNothingStored();
}

TEST_F(DataMigratorTest, NoDatabaseAtAll) {
    volumes.add(one, gib);
    test::writeFile(legacy, "This is a letter, not a database. " + std::string(5000, '.'));
    expectMigrated();
    expectNothingStored();
}

TEST_F(DataMigratorTest, DamagedDatabases) {
    volumes.add(one, gib);
    makeLegacy(
        "insert into device values (4711);"
        "insert into config values ('agentUUID', 'the-uuid'), ('cow_percent', '10'), ('max_cow_megs', '5');"
        "insert into history (device, result, image_chksum) values ('" +
        one + "', 'success', 200);");
    const std::string whole = test::readFile(legacy);
    std::mt19937 random(20240611); // NOLINT(cert-msc51-cpp): the same damage in every run
    for (std::size_t run = 0; run < 60; ++run) {
        std::string damaged = whole;
        for (int change = 0; change < 8; ++change) {
            damaged[random() % damaged.size()] = static_cast<char>(random());
        }
        test::writeFile(legacy, run % 2 == 0 ? damaged : whole.substr(0, random() % whole.size()));
        EXPECT_NO_THROW(migrate()) << run;
    }
}

TEST_F(DataMigratorTest, NullsAndValuesOfAnotherType) {
    volumes.add(one, gib);
    volumes.add(two, gib);
    RawDatabase(legacy).run("create table device (id);"
                            "create table config (name, value);"
                            "create table history (id, device, volume, result, image_chksum);"
                            "insert into device values ('4711');"
                            "insert into config values ('agentUUID', null), ('cow_percent', 10), "
                            "('max_cow_megs', 1.5);"
                            "insert into history values (1, '" +
                            one +
                            "', null, 'success', '200');"
                            "insert into history values ('x', '" +
                            two + "', null, 'success', x'00ff');");
    expectMigrated();
    expectNothingStored();
}

TEST_F(DataMigratorTest, NumbersThatDoNotFit) {
    for (const std::string number : {"0", "-1", "2147483648", "9223372036854775807", "1.5", "null"}) {
        RawDatabase(legacy).run("create table device (id); insert into device values (" + number + ");");
        expectMigrated();
        EXPECT_EQ(stored("select id from device;"), std::nullopt) << number;
    }
    RawDatabase(legacy).run("create table device (id); insert into device values (2147483647);");
    expectMigrated();
    EXPECT_EQ(stored("select id from device;"), "2147483647");
}

TEST_F(DataMigratorTest, ChecksumsHave32Bits) {
    volumes.add(one, gib);
    const auto migrated = [&](const std::string& checksum) {
        makeLegacy("insert into history (device, result, image_chksum) values ('" + one + "', 'success', " +
                   checksum + ");");
        expectMigrated();
        const std::uint32_t found = provider.hasVolume(one) ? checksumOf(one) : 77;
        RawDatabase(path()).run("delete from volumes;");
        return found;
    };
    EXPECT_EQ(migrated("4294967295"), 4294967295U);
    EXPECT_EQ(migrated("-1"), 4294967295U);
    EXPECT_EQ(migrated("-2147483648"), 2147483648U);
    EXPECT_EQ(migrated("0"), 77U);
    EXPECT_EQ(migrated("4294967296"), 77U);
    EXPECT_EQ(migrated("-2147483649"), 77U);
    EXPECT_EQ(migrated("9223372036854775807"), 77U);
}

TEST_F(DataMigratorTest, AUuidIsAPatternButNeverAStatement) {
    const std::string quote = "'; drop table history; --";
    volumes.add(quote, gib);
    volumes.add("50%", gib);
    makeLegacy("insert into history (device, result, image_chksum) values ('/dev/" + one +
               "', 'success', 100), ('x50 and more', 'success', 200);");
    expectMigrated();
    EXPECT_FALSE(provider.hasVolume(quote));
    EXPECT_EQ(checksumOf("50%"), 200U);
    EXPECT_EQ(RawDatabase(renamed).value("select count(*) from history;"), "2");
}

TEST_F(DataMigratorTest, AVolumeWithoutUuidTakesNothingFromOthers) {
    volumes.add("", gib);
    makeLegacy("insert into config values ('cow_percent', '10'), ('max_cow_megs', '5');"
               "insert into history (device, result, image_chksum) values ('" +
               one + "', 'success', 200);");
    expectMigrated();
    expectNothingStored();
    EXPECT_THAT(driverCalls, IsEmpty());
}

struct Size {
    std::string percent;
    std::string most;
    std::uint64_t volume;
    json expected;
};

class CowSizeTest : public DataMigratorTest, public testing::WithParamInterface<Size> {};

TEST_P(CowSizeTest, IsWhatTheEarlierVersionUsed) {
    volumes.add(one, GetParam().volume);
    makeLegacy("insert into config values ('cow_percent', '" + GetParam().percent + "'), ('max_cow_megs', '" +
               GetParam().most + "');");
    expectMigrated();
    EXPECT_EQ(sizeOf(one), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(All, CowSizeTest,
                         testing::Values(Size{"0", "0", 100 * gib, 10240}, Size{"0", "500", 100 * gib, 500},
                                         Size{"15", "0", 10 * gib, 1536}, Size{"10", "0", 10485759, 0},
                                         Size{"10", "0", 10485760, 1}, Size{"33", "0", 1000000000, 314},
                                         Size{"10 of 100", " 7", 100 * gib, 7},
                                         Size{"100", "0", 1ULL << 60, 1ULL << 40},
                                         Size{"18446744073709551615", "0", ~0ULL, 1ULL << 44},
                                         Size{"-1", "9", ~0ULL, 9},
                                         Size{"18446744073709551616", "0", gib, nullptr},
                                         Size{"", "0", gib, nullptr}, Size{"ten", "0", gib, nullptr},
                                         Size{"10", "", gib, nullptr}, Size{"10", "much", gib, nullptr}));

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

/// The migrator as it behaves on an operating system other than Linux.
class OtherSystemMigrator : public DataMigrator {
public:
    using DataMigrator::DataMigrator;

protected:
    [[nodiscard]] bool isLinux() const override { return false; }
};

TEST_F(DataMigratorTest, OnTheOtherSystem) {
    OtherSystemMigrator other(recorder.logger, provider, volumes,
                              [this] { return std::make_unique<NotingDriver>(driverCalls, hasHistory); });
    volumes.add(one, gib);
    makeLegacy("insert into config values ('os_version', '10.0');"
               "insert into history (device, volume, result, image_chksum) values "
               "('" +
               one + "', '', 'success', 100), ('', '" + one +
               "', 'success', 200), "
               "('" +
               one + "', '', 'success', 300);");
    EXPECT_TRUE(other.migrate(config));
    EXPECT_EQ(provider.getConfigValue("last_win_ver"), "10.0");
    EXPECT_EQ(checksumOf(one), 200U);
    makeLegacy("");
    EXPECT_TRUE(other.migrate(config));
    EXPECT_TRUE(recorder.has(info::level::info, "There was no Windows version to migrate in the legacy DB."));
}

} // namespace
} // namespace agent::db
