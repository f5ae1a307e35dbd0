#include "support/TmpfsMount.h"
#include "unit/db/DataProviderFixture.h"

#include <chrono>
#include <optional>

namespace agent::db {
namespace {

using test::failureOf;
using test::RawDatabase;

/// A validated data provider whose file then becomes unusable. Operations must fail at once, without waiting.
class UnusableDatabaseTest : public testing::Test {
protected:
    // The database is on a small file system of the test's own, which can be filled or made read-only.
    UnusableDatabaseTest() {
        provider.validateProvider();
        provider.setConfigValue("key", "value");
        provider.setVolumeChecksum("vol", 5, ChecksumType::libcrc32c);
        provider.setVolumeJournalChangeId("vol", ChangeContext::Next, 6, 7);
    }

    void expectCommittedValues() {
        std::uint32_t checksum = 0;
        ChecksumType type{};
        std::uint64_t journalId = 0;
        std::uint64_t changeId = 0;
        EXPECT_EQ(provider.getConfigValue("key"), "value");
        provider.getVolumeChecksum("vol", checksum, type);
        EXPECT_EQ(checksum, 5U);
        ASSERT_TRUE(provider.getVolumeJournalChangeId("vol", ChangeContext::Next, journalId, changeId));
        EXPECT_EQ(journalId * 10 + changeId, 67U);
    }

    /// Expects that every writing operation fails, with `reason` unless it reports a text of its own.
    void expectNoWrites(const std::string& reason) {
        EXPECT_EQ(failureOf([&] { provider.setVolumeChecksum("vol", 9, ChecksumType::libcrc32c); }), reason);
        EXPECT_EQ(failureOf([&] { provider.setVolumeJournalChangeId("vol", ChangeContext::Next, 8, 9); }),
                  reason);
        EXPECT_EQ(failureOf([&] { provider.setVolumeIncrementalSizeBlocks("vol", 3); }), reason);
        EXPECT_EQ(failureOf([&] { provider.setDevice(1, "ip", "uuid"); }), reason);
        EXPECT_EQ(failureOf([&] { provider.setConfigValue("key", "other"); }),
                  "Unable to set value other for key key");
        EXPECT_TRUE(recorder.has(info::level::error, "QueryRunner problem: " + reason));
        EXPECT_TRUE(recorder.has(info::level::error, "Unable to set value other for key key: " + reason));
    }

    /// Expects that every reading operation fails with `reason`.
    void expectNoReads(const std::string& reason) {
        std::int32_t id = 0;
        std::uint32_t checksum = 0;
        ChecksumType type{};
        std::uint64_t number = 0;
        std::string text;
        EXPECT_EQ(failureOf([&] { provider.getConfigValue("key"); }), reason);
        EXPECT_EQ(failureOf([&] { provider.getDevice(id, text, text); }), reason);
        EXPECT_EQ(failureOf([&] { provider.getVolumeChecksum("vol", checksum, type); }), reason);
        EXPECT_EQ(failureOf([&] { provider.hasVolume("vol"); }), reason);
        EXPECT_EQ(failureOf([&] { provider.getVolumeUUIDs(); }), reason);
        EXPECT_EQ(failureOf([&] { provider.getVolumeIncrementalSizeBlocks("vol", number); }), reason);
        EXPECT_EQ(
            failureOf([&] { provider.getVolumeJournalChangeId("vol", ChangeContext::Next, number, number); }),
            reason);
    }

    void expectPromptness() {
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
    }

    test::TestDirectory directory;
    test::TmpfsMount mount{directory / "store", "size=64k"};
    test::RecordingLogger recorder;
    UUIDGenerator generator;
    DataProvider provider{recorder.logger, generator, directory / "store"};
    std::string path = directory / "store/agent.sqlite";
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

TEST_F(UnusableDatabaseTest, LockedByAnotherWriter) {
    {
        RawDatabase other(path);
        other.run("BEGIN EXCLUSIVE;");
        expectNoWrites("Unable to call prepare in runupdate, sqlite return: 5");
        expectNoReads("Unable to call prepare in runquery, sqlite return: database is locked");
        EXPECT_EQ(failureOf([&] { provider.validateProvider(); }),
                  "Unable to call prepare in runupdate, sqlite return: 5");
    }
    expectPromptness();
    expectCommittedValues();
}

TEST_F(UnusableDatabaseTest, ReservedByAnotherWriter) {
    RawDatabase other(path);
    other.run("BEGIN IMMEDIATE;");
    expectNoWrites("runupdate execution failed, step returned 5");
    expectCommittedValues();
    expectPromptness();
}

TEST_F(UnusableDatabaseTest, AReaderKeepsTheSchemaFromBeingCommitted) {
    RawDatabase other(path);
    other.run("BEGIN; select * from config;");
    provider.validateProvider();
    EXPECT_TRUE(recorder.has(
        info::level::error,
        "Could not finalize schema update transaction: runupdate execution failed, step returned 5"));
    expectCommittedValues();
    expectPromptness();
}

TEST_F(UnusableDatabaseTest, WriteProtected) {
    mount.makeReadOnly();
    expectNoWrites("runupdate execution failed, step returned 8");
    expectCommittedValues();
    EXPECT_EQ(failureOf([&] { provider.validateProvider(); }), "runupdate execution failed, step returned 8");
}

TEST_F(UnusableDatabaseTest, FullDiskKeepsWhatWasCommitted) {
    int written = 0;
    std::string failure;
    while (failure.empty() && written < 1000) {
        const std::string uuid = std::string(1000, 'v') + std::to_string(written);
        failure = failureOf([&] { provider.setVolumeChecksum(uuid, 5, ChecksumType::libcrc32c); });
        written += failure.empty() ? 1 : 0;
    }
    EXPECT_EQ(failure, "runupdate execution failed, step returned 13");
    EXPECT_GT(written, 0);
    expectCommittedValues();
    EXPECT_GE(provider.getVolumeUUIDs().size(), static_cast<std::size_t>(written) + 1);
    EXPECT_EQ(RawDatabase(path).value("PRAGMA integrity_check;"), "ok");

    mount.resize("1m");
    provider.setVolumeChecksum("late", 5, ChecksumType::libcrc32c);
    EXPECT_TRUE(provider.hasVolume("late"));
    expectPromptness();
}

TEST_F(UnusableDatabaseTest, FullDiskFromTheStart) {
    const test::TmpfsMount tiny(directory / "tiny", "size=8k");
    DataProvider fresh(recorder.logger, generator, directory / "tiny");
    EXPECT_EQ(failureOf([&] { fresh.validateProvider(); }), "");
    EXPECT_TRUE(recorder.hasPart(info::level::error, "Could not finalize schema update transaction: "));
    EXPECT_NE(failureOf([&] { fresh.getVolumeUUIDs(); }), "");
}

TEST_F(UnusableDatabaseTest, RemovedDirectory) {
    const std::string gone = directory / "gone";
    DataProvider orphan(recorder.logger, generator, gone);
    dir::remove(gone);
    const std::string reason = "QueryRunner: unable to open database file | ERROR(SQLLite) : 14 (0xe)";
    EXPECT_EQ(failureOf<exception::library_error>([&] { orphan.validateProvider(); }), reason);
    EXPECT_EQ(failureOf<exception::library_error>([&] { orphan.hasVolume("vol"); }), reason);
    EXPECT_EQ(failureOf<exception::library_error>([&] { orphan.setDevice(1, "", ""); }), reason);

    std::uint32_t checksum = 0;
    ChecksumType type{};
    EXPECT_EQ(failureOf([&] { orphan.getVolumeChecksum("vol", checksum, type); }),
              "getVolumeChecksum failed for volume: vol");
    EXPECT_EQ(recorder.count(info::level::error, "QueryRunner problem: " + reason), 2);
}

} // namespace
} // namespace agent::db
