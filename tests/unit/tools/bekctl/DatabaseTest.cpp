#include "Database.h"

#include "common/UUIDGenerator.h"
#include "db/DataProvider.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace bekctl {
namespace {

/// A database as the agent makes it.
class DatabaseTest : public testing::Test {
protected:
    DatabaseTest() { provider.validateProvider(); }

    agent::test::TestDirectory directory;
    agent::test::RecordingLogger log;
    agent::UUIDGenerator generator;
    agent::db::DataProvider provider{log.logger, generator, directory.path()};
    const std::string path = directory / "agent.sqlite";
};

TEST_F(DatabaseTest, NewOneHasNothing) {
    const Database found = readDatabase(path);
    EXPECT_FALSE(found.pairing);
    EXPECT_TRUE(found.volumes.empty());
    EXPECT_EQ(found.agentUuid, "");
}

TEST_F(DatabaseTest, TellsPairingVolumesAndIdentity) {
    const std::string uuid = provider.getAgentUUID();
    provider.setDevice(4711, "10.0.0.5", uuid);
    provider.setVolumeChecksum("one", 1, agent::db::ChecksumType::libcrc32c);
    provider.setVolumeChecksum("two", 0, agent::db::ChecksumType::libcrc32c);
    const Database found = readDatabase(path);
    ASSERT_TRUE(found.pairing);
    EXPECT_EQ(found.pairing->device, 4711);
    EXPECT_EQ(found.pairing->address, "10.0.0.5");
    EXPECT_EQ(found.volumes, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(found.agentUuid, uuid);
}

TEST_F(DatabaseTest, TellsTheChecksumOfAnImage) {
    using agent::db::ChecksumType;
    provider.setVolumeChecksum("new", 4294967295, ChecksumType::libcrc32c);
    provider.setVolumeChecksum("old", 7, ChecksumType::gcrypt32crc);
    provider.setVolumeChecksum("none", 0, ChecksumType::libcrc32c);
    ASSERT_TRUE(readImageChecksum(path, "new"));
    EXPECT_EQ(readImageChecksum(path, "new")->value, 4294967295);
    EXPECT_EQ(readImageChecksum(path, "new")->type, ChecksumType::libcrc32c);
    ASSERT_TRUE(readImageChecksum(path, "old"));
    EXPECT_EQ(readImageChecksum(path, "old")->value, 7);
    EXPECT_EQ(readImageChecksum(path, "old")->type, ChecksumType::gcrypt32crc);
    EXPECT_FALSE(readImageChecksum(path, "none"));
    EXPECT_FALSE(readImageChecksum(path, "unheard of"));
}

TEST_F(DatabaseTest, FileAndItsTimesStayAsTheyAre) {
    provider.setDevice(1, "", "");
    const std::string before = agent::test::readFile(path);
    readDatabase(path);
    EXPECT_EQ(agent::test::readFile(path), before);
    EXPECT_NE(::access((path + "-journal").c_str(), F_OK), 0);
}

TEST_F(DatabaseTest, DamagedOnesAreRefused) {
    provider.setDevice(1, "address", "");
    const std::string whole = agent::test::readFile(path);
    EXPECT_THROW(parseDatabase(""), std::exception);
    EXPECT_THROW(parseDatabase("SQLite format 3"), std::exception);
    EXPECT_THROW(parseDatabase(whole.substr(0, 4096)), std::exception);
}

/// A truncated file may be accepted only if the missing part was empty.
TEST_F(DatabaseTest, CutOffOnesAreRefusedOrWhole) {
    provider.setDevice(1, "address", "");
    const std::string whole = agent::test::readFile(path);
    for (std::size_t length = 0; length < whole.size(); length += 512) {
        try {
            const Database found = parseDatabase(whole.substr(0, length));
            ASSERT_TRUE(found.pairing) << length;
            EXPECT_EQ(found.pairing->address, "address") << length;
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): refused
        }
    }
}

TEST_F(DatabaseTest, FlippedBytesNeverDoMoreThanFail) {
    provider.setDevice(1, "address", "");
    const std::string whole = agent::test::readFile(path);
    std::size_t refused = 0;
    for (std::size_t position = 0; position < whole.size(); position += 7) {
        std::string damaged = whole;
        damaged[position] = static_cast<char>(damaged[position] ^ 0x55);
        try {
            parseDatabase(damaged);
        } catch (const std::exception&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, 0U);
}

TEST_F(DatabaseTest, IsNotTakenWhileItIsWritten) {
    agent::test::writeFile(path + "-journal", "what was there before");
    EXPECT_THROW(readDatabase(path), std::runtime_error);
    agent::test::writeFile(path + "-journal", "");
    EXPECT_FALSE(readDatabase(path).pairing);
}

TEST_F(DatabaseTest, PipesAndMissingFilesHoldNobodyUp) {
    EXPECT_THROW(readDatabase(directory / "none"), std::runtime_error);
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_THROW(readDatabase(pipe), std::runtime_error);
}

} // namespace
} // namespace bekctl
