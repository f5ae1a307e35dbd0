#include "common/File.h"
#include "unit/db/DataProviderFixture.h"

#include <algorithm>
#include <limits>
#include <sys/stat.h>

namespace agent::db {
namespace {

using test::failureOf;
using test::RawDatabase;

constexpr const char* volume = "6f0c9f2e-57a5-4a0b-8a1c-000000000001";

/// Counts its calls, and fails or returns what the test sets.
class ScriptedGenerator : public UUIDGenerator {
public:
    [[nodiscard]] std::string generate() const override {
        ++calls;
        return fails ? throw std::runtime_error("no entropy") : text;
    }

    mutable int calls = 0;
    bool fails = false;
    std::string text = "11111111-2222-3333-4444-555555555555";
};

class DataProviderTest : public test::DataProviderFixture {
protected:
    DataProviderTest() { provider.validateProvider(); }

    void execute(const std::string& sql) { RawDatabase(path()).run(sql); }
    std::string checksumFailure() {
        return failureOf([&] { provider.getVolumeChecksum(volume, checksum, type); });
    }
    void storeChecksum(const std::string& sqlValue) {
        execute(
            "INSERT OR REPLACE INTO volumes (volume_uuid, image_checksum, image_checksum_type) VALUES ('" +
            std::string(volume) + "', " + sqlValue + ", 'libcrc32c');");
    }

    std::uint32_t checksum = 77;
    ChecksumType type = ChecksumType::gcrypt32crc;
    std::uint64_t journalId = 77;
    std::uint64_t changeId = 77;
};

TEST(DataProviderLife, MakesItsDirectoryAndLogs) {
    const test::TestDirectory directory;
    test::RecordingLogger recorder;
    UUIDGenerator generator;
    {
        const DataProvider provider(recorder.logger, generator, directory / "a/b");
    }
    const std::vector<test::RecordingLogger::Line> expected = {
        {info::level::debug, "DataProvider created"},
        {info::level::debug, "Database filename: " + (directory / "a/b/agent.sqlite").str()},
        {info::level::debug, "DataProvider destroyed"}};
    EXPECT_EQ(recorder.lines(), expected);
    EXPECT_TRUE(dir::list(directory / "a/b").empty());
}

TEST_F(DataProviderTest, AValueIsStoredAndReplaced) {
    provider.setConfigValue("key", "first");
    provider.setConfigValue("key", "second");
    EXPECT_EQ(provider.getConfigValue("key"), "second");
    EXPECT_EQ(stored("select count(*) from config;"), "1");
}

TEST_F(DataProviderTest, AValueMayHoldAnyBytes) {
    const std::string value("'; drop table config; --\0\xff\n\"", 29);
    provider.setConfigValue("ke'y", value);
    EXPECT_EQ(provider.getConfigValue("ke'y"), value);
}

TEST_F(DataProviderTest, ANullValueIsEmpty) {
    execute("insert into config (key, value) values ('key', NULL);");
    EXPECT_EQ(provider.getConfigValue("key"), "");
}

TEST_F(DataProviderTest, AMissingKeyThrows) {
    EXPECT_EQ(failureOf([&] { provider.getConfigValue("absent"); }), "No value found for config key absent");
}

TEST_F(DataProviderTest, AFailedSetIsLoggedAndNamed) {
    execute("drop table config;");
    EXPECT_EQ(failureOf([&] { provider.setConfigValue("key", "word"); }),
              "Unable to set value word for key key");
    EXPECT_TRUE(recorder.has(info::level::error,
                             "Unable to set value word for key key: Unable to call prepare in runupdate, "
                             "sqlite return: 1"));
}

TEST_F(DataProviderTest, NoDeviceIsFalse) {
    std::int32_t id = 5;
    std::string ip = "old";
    std::string uuid = "old";
    EXPECT_FALSE(provider.getDevice(id, ip, uuid));
    EXPECT_EQ(id, 5);
    EXPECT_EQ(ip + uuid, "oldold");
    EXPECT_TRUE(recorder.has(info::level::debug, "No value found for device id"));
}

TEST_F(DataProviderTest, ADeviceIsStoredAndReplaced) {
    std::int32_t id = 0;
    std::string ip;
    std::string uuid;
    provider.setDevice(1, "10.0.0.1", "one");
    provider.setDevice(std::numeric_limits<std::int32_t>::min(), "10.0.0.2", "two");
    ASSERT_TRUE(provider.getDevice(id, ip, uuid));
    EXPECT_EQ(id, std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(ip, "10.0.0.2");
    EXPECT_EQ(uuid, "two");
    EXPECT_EQ(stored("select count(*) from device;"), "1");
}

TEST_F(DataProviderTest, AFailedSetDeviceIsLoggedAndRethrown) {
    execute("drop table device;");
    const std::string failure = "Unable to call prepare in runupdate, sqlite return: 1";
    EXPECT_EQ(failureOf([&] { provider.setDevice(1, "", ""); }), failure);
    EXPECT_TRUE(recorder.has(info::level::error, "QueryRunner problem: " + failure));
}

TEST_F(DataProviderTest, ChecksumsOfBothTypesComeBackWhole) {
    for (const ChecksumType written : {ChecksumType::gcrypt32crc, ChecksumType::libcrc32c}) {
        for (const std::uint32_t value : {0U, 1U, 4294967295U}) {
            provider.setVolumeChecksum(volume, value, written);
            provider.getVolumeChecksum(volume, checksum, type);
            EXPECT_EQ(checksum, value);
            EXPECT_EQ(type, written);
        }
    }
    EXPECT_TRUE(
        recorder.has(info::level::info, "DataProvider: Setting checksum to '4294967295' for volume '" +
                                            std::string(volume) + "'"));
}

TEST_F(DataProviderTest, ChecksumAndTypeAreStoredAsTexts) {
    provider.setVolumeChecksum("a", 4294967295U, ChecksumType::gcrypt32crc);
    provider.setVolumeChecksum("b", 1, ChecksumType::libcrc32c);
    EXPECT_EQ(stored("select group_concat(typeof(image_checksum) || image_checksum || image_checksum_type) "
                     "from (select * from volumes order by volume_uuid);"),
              "text4294967295gcrypt32crc,text1libcrc32c");
}

TEST_F(DataProviderTest, AnUnknownVolumeHasNoChecksum) {
    EXPECT_EQ(checksumFailure(), "No valid checksum found for volume UUID: " + std::string(volume));
    EXPECT_FALSE(provider.hasVolume(volume));
}

TEST_F(DataProviderTest, AChecksumOfUnknownTypeThrows) {
    execute("INSERT INTO volumes (volume_uuid, image_checksum) VALUES ('" + std::string(volume) +
            "', '12');");
    EXPECT_EQ(checksumFailure(), "Invalid checksum type found in volumes table");
    EXPECT_EQ(checksum, 77U);
}

TEST_F(DataProviderTest, WhatIsNoChecksumThrowsAndNamesTheVolume) {
    const std::string expected =
        "Invalid checksum found in volumes table for volume UUID: " + std::string(volume) +
        ", expected a decimal number below 4294967296";
    for (const char* value : {"''", "'stoul'", "'4294967296'", "'99999999999999999999999999'", "'-1'", "'+1'",
                              "' 1'", "'1 '", "'0x10'", "'1.5'", "x'31'", "'1' || char(0) || '2'"}) {
        storeChecksum(value);
        EXPECT_EQ(checksumFailure(), expected) << value;
        EXPECT_EQ(checksum, 77U) << value;
    }
}

TEST_F(DataProviderTest, AChecksumIsDecimalAlsoWithLeadingZeros) {
    storeChecksum("'0017'");
    provider.getVolumeChecksum(volume, checksum, type);
    EXPECT_EQ(checksum, 17U);
    EXPECT_EQ(type, ChecksumType::libcrc32c);
}

TEST_F(DataProviderTest, AFailedQueryOfAChecksumReachesTheCaller) {
    execute("drop table volumes;");
    EXPECT_EQ(checksumFailure(), "Unable to call prepare in runquery, sqlite return: no such table: volumes");
}

TEST_F(DataProviderTest, VolumesAreListed) {
    EXPECT_TRUE(provider.getVolumeUUIDs().empty());
    provider.setVolumeChecksum("a", 1, ChecksumType::libcrc32c);
    provider.setVolumeChecksum("b", 2, ChecksumType::libcrc32c);
    std::vector<std::string> uuids = provider.getVolumeUUIDs();
    std::sort(uuids.begin(), uuids.end());
    EXPECT_EQ(uuids, std::vector<std::string>({"a", "b"}));
    EXPECT_TRUE(provider.hasVolume("a"));
    EXPECT_FALSE(provider.hasVolume("c"));
}

TEST_F(DataProviderTest, AVolumeWithoutATextThrows) {
    execute("INSERT INTO volumes (volume_uuid) VALUES (x'6162');");
    EXPECT_EQ(failureOf([&] { provider.getVolumeUUIDs(); }),
              "DataProvider::getVolumeUUIDs(): Unexpected response.");
}

TEST_F(DataProviderTest, AnUnknownJournalIsFalseAndStaysUnknown) {
    EXPECT_FALSE(provider.getVolumeJournalChangeId(volume, ChangeContext::Current, journalId, changeId));
    EXPECT_FALSE(provider.getVolumeJournalChangeId(volume, ChangeContext::Next, journalId, changeId));
    EXPECT_EQ(journalId, 77U);
    EXPECT_EQ(stored("select count(*) from change_journal;"), "0");
    const std::string text = " Did not find record for volume UUID: " + std::string(volume);
    EXPECT_TRUE(recorder.has(info::level::debug, "DataProvider::getVolumeCurrentJournalChangeId():" + text));
    EXPECT_TRUE(recorder.has(info::level::debug, "DataProvider::getVolumeNextJournalChangeId():" + text));
}

TEST_F(DataProviderTest, JournalPositionsAreKeptApart) {
    constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
    provider.setVolumeJournalChangeId(volume, ChangeContext::Current, 1, largest);
    provider.setVolumeJournalChangeId(volume, ChangeContext::Next, largest - 1, 4);
    ASSERT_TRUE(provider.getVolumeJournalChangeId(volume, ChangeContext::Current, journalId, changeId));
    EXPECT_EQ(journalId, 1U);
    EXPECT_EQ(changeId, largest);
    ASSERT_TRUE(provider.getVolumeJournalChangeId(volume, ChangeContext::Next, journalId, changeId));
    EXPECT_EQ(journalId, largest - 1);
    EXPECT_EQ(changeId, 4U);
    EXPECT_EQ(stored("select count(*) from change_journal;"), "1");
    EXPECT_TRUE(
        recorder.has(info::level::debug,
                     "DataProvider::setVolumeCurrentJournalChangeId(): Setting journal id '1' change id "
                     "'18446744073709551615' for volume (" +
                         std::string(volume) + ")"));
    EXPECT_TRUE(recorder.hasPart(info::level::debug,
                                 "DataProvider::setVolumeNextJournalChangeId(): Setting journal id '"));
}

TEST_F(DataProviderTest, AnUnknownContextThrowsAndWritesNothing) {
    const auto odd = static_cast<ChangeContext>(2);
    EXPECT_EQ(failureOf([&] { provider.setVolumeJournalChangeId(volume, odd, 1, 2); }),
              "Unrecognized change context.");
    EXPECT_EQ(failureOf([&] { provider.getVolumeJournalChangeId(volume, odd, journalId, changeId); }),
              "Unrecognized change context.");
    EXPECT_EQ(stored("select count(*) from change_journal;"), "0");
}

TEST_F(DataProviderTest, AJournalColumnThatIsNoNumberIsZero) {
    provider.setVolumeJournalChangeId(volume, ChangeContext::Current, 1, 2);
    execute("update change_journal set current_journal_id = 'text';");
    ASSERT_TRUE(provider.getVolumeJournalChangeId(volume, ChangeContext::Current, journalId, changeId));
    EXPECT_EQ(journalId, 0U);
    EXPECT_EQ(changeId, 2U);
}

TEST_F(DataProviderTest, TheIncrementalSizeCreatesItsRow) {
    std::uint64_t blocks = 77;
    EXPECT_FALSE(provider.getVolumeIncrementalSizeBlocks(volume, blocks));
    EXPECT_EQ(blocks, 77U);
    EXPECT_TRUE(recorder.has(info::level::debug,
                             "getVolumeIncrementalSizeBlocks() Did not find record for volume UUID: " +
                                 std::string(volume)));
    provider.setVolumeIncrementalSizeBlocks(volume, std::numeric_limits<std::uint64_t>::max());
    ASSERT_TRUE(provider.getVolumeIncrementalSizeBlocks(volume, blocks));
    EXPECT_EQ(blocks, std::numeric_limits<std::uint64_t>::max());
    EXPECT_TRUE(recorder.has(info::level::debug, "setVolumeIncrementalSizeBlocks() Setting incremental size "
                                                 "'18446744073709551615' for volume (" +
                                                     std::string(volume) + ")"));
    ASSERT_TRUE(provider.getVolumeJournalChangeId(volume, ChangeContext::Next, journalId, changeId));
    EXPECT_EQ(journalId + changeId, 0U);
}

class AgentUUIDTest : public test::DataProviderFixture {
protected:
    AgentUUIDTest() { scripted.validateProvider(); }

    ScriptedGenerator source;
    DataProvider scripted{recorder.logger, source, directory.path()};
};

TEST_F(AgentUUIDTest, IsMadeOnce) {
    EXPECT_EQ(scripted.getAgentUUID(), source.text);
    EXPECT_TRUE(recorder.has(info::level::info, "Generated new agentUUID: " + source.text));
    EXPECT_EQ(scripted.getAgentUUID(), source.text);
    EXPECT_TRUE(recorder.has(info::level::info, "Agent installation UUID: " + source.text));
    EXPECT_EQ(source.calls, 1);
    EXPECT_EQ(scripted.getConfigValue("agentUUID"), source.text);
}

TEST_F(AgentUUIDTest, AnEmptyStoredOneCountsAsNone) {
    scripted.setConfigValue("agentUUID", "");
    EXPECT_EQ(scripted.getAgentUUID(), source.text);
}

TEST_F(AgentUUIDTest, IsEmptyWhenNoneCanBeMade) {
    source.fails = true;
    EXPECT_EQ(scripted.getAgentUUID(), "");
    EXPECT_TRUE(recorder.has(info::level::info, "Failed to generate new agentUUID"));
    EXPECT_EQ(stored("select count(*) from config;"), "0");
}

/// A data provider whose database is locked by another connection for one query.
class BrieflyLockedProvider : public DataProvider {
public:
    BrieflyLockedProvider(info::Logger& logger, UUIDGenerator& generator, const Path& directory)
        : DataProvider(logger, generator, directory), path((directory / "agent.sqlite").str()) {}

    std::string getConfigValue(const std::string& key) override {
        RawDatabase other(path);
        other.run("BEGIN EXCLUSIVE;");
        return DataProvider::getConfigValue(key);
    }

private:
    std::string path;
};

TEST_F(AgentUUIDTest, AStoredOneThatCannotBeReadIsNotReplaced) {
    scripted.setConfigValue("agentUUID", "the-first");
    BrieflyLockedProvider locked(recorder.logger, source, directory.path());
    EXPECT_EQ(locked.getAgentUUID(), "the-first");
    EXPECT_EQ(scripted.getConfigValue("agentUUID"), "the-first");
    EXPECT_TRUE(recorder.has(info::level::info, "Agent installation UUID: the-first"));
    EXPECT_EQ(stored("select count(*) from config where key = 'agentUUID';"), "1");
}

TEST_F(AgentUUIDTest, AMissingOneIsMadeAlsoIfThatCannotBeReadAtFirst) {
    BrieflyLockedProvider locked(recorder.logger, source, directory.path());
    EXPECT_EQ(locked.getAgentUUID(), source.text);
    EXPECT_EQ(scripted.getConfigValue("agentUUID"), source.text);
    RawDatabase(path()).run("update config set value = null;");
    EXPECT_EQ(locked.getAgentUUID(), source.text);
    EXPECT_EQ(stored("select count(*) from config;"), "1");
}

TEST_F(AgentUUIDTest, ALockedStoreKeepsItsOwn) {
    scripted.setConfigValue("agentUUID", "the-first");
    {
        RawDatabase other(path());
        other.run("BEGIN EXCLUSIVE;");
        EXPECT_NE(failureOf([&] { scripted.getAgentUUID(); }), "");
    }
    EXPECT_EQ(scripted.getAgentUUID(), "the-first");
}

class PrivateDatabaseTest : public test::DataProviderFixture {
protected:
    mode_t modeOf(const std::string& companion = "") {
        return file::status(path() + companion).st_mode & 07777U;
    }
};

TEST_F(PrivateDatabaseTest, FileIsForRootAlone) {
    provider.validateProvider();
    EXPECT_EQ(modeOf(), 0600U);
}

TEST_F(PrivateDatabaseTest, FilesOfAnEarlierVersionAreClosedToOthers) {
    provider.validateProvider();
    RawDatabase other(path());
    other.run("PRAGMA journal_mode = wal; insert into config (key, value) values ('one', '1');");
    for (const std::string companion : {"", "-wal", "-shm"}) {
        ASSERT_EQ(::chmod((path() + companion).c_str(), 0664), 0) << companion;
    }
    provider.validateProvider();
    for (const std::string companion : {"", "-wal", "-shm"}) {
        EXPECT_EQ(modeOf(companion), 0600U) << companion;
    }
    EXPECT_EQ(provider.getConfigValue("one"), "1");
}

TEST_F(PrivateDatabaseTest, TheJournalIsForRootAloneToo) {
    provider.validateProvider();
    RawDatabase other(path());
    other.run("BEGIN; insert into config (key, value) values ('one', '1');");
    EXPECT_EQ(modeOf("-journal"), 0600U);
    ASSERT_EQ(::chmod((path() + "-journal").c_str(), 0644), 0);
    provider.hasVolume("any");
    EXPECT_EQ(modeOf("-journal"), 0600U);
}

TEST_F(PrivateDatabaseTest, FileThatWasOpenedAgainStaysClosedToOthersAtTheNextUse) {
    provider.validateProvider();
    ASSERT_EQ(::chmod(path().c_str(), 0644), 0);
    provider.setDevice(1, "", "");
    EXPECT_EQ(modeOf(), 0600U);
    file::remove(path());
    EXPECT_THROW(provider.hasVolume("any"), std::runtime_error);
    EXPECT_EQ(modeOf(), 0600U);
}

TEST_F(AgentUUIDTest, ThrowsWhenItCannotBeStored) {
    RawDatabase(path()).run("drop table config;");
    EXPECT_EQ(failureOf([&] { scripted.getAgentUUID(); }),
              "Unable to set value " + source.text + " for key agentUUID");
}

} // namespace
} // namespace agent::db
