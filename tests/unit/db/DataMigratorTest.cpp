#include "unit/db/DataMigratorFixture.h"

#include <random>

namespace agent::db {
namespace {

using info::level::debug;
using info::level::error;
using testing::ElementsAre;

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
