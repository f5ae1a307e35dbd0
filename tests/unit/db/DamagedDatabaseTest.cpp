#include "unit/db/DataProviderFixture.h"

#include <random>

namespace agent::db {
namespace {

using test::failureOf;

class DamagedDatabaseTest : public test::DataProviderFixture {
protected:
    /// The bytes of an intact database file with some rows.
    std::string wholeFile() {
        provider.validateProvider();
        for (int number = 0; number < 40; ++number) {
            provider.setVolumeChecksum("volume " + std::to_string(number), 1000, ChecksumType::libcrc32c);
        }
        provider.setConfigValue("key", "value");
        return test::readFile(path());
    }

    /// Calls every operation; each must either work or throw std::runtime_error. Returns how many failed.
    int useAll() {
        std::int32_t id = 0;
        ChecksumType type{};
        std::uint64_t number = 0;
        std::string text;
        int failures = 0;
        const auto attempt = [&](const auto& operation) { failures += failureOf(operation).empty() ? 0 : 1; };
        attempt([&] { provider.getVolumeChecksum("volume 7", checksum, type); });
        attempt([&] { provider.getDevice(id, text, text); });
        attempt([&] { provider.getConfigValue("key"); });
        attempt([&] { provider.hasVolume("volume 7"); });
        attempt([&] { provider.getVolumeUUIDs(); });
        attempt([&] { provider.getVolumeIncrementalSizeBlocks("volume 7", number); });
        attempt([&] { provider.setVolumeJournalChangeId("volume 7", ChangeContext::Next, 1, 2); });
        attempt([&] { provider.setDevice(1, "ip", "uuid"); });
        attempt([&] { provider.setVolumeChecksum("volume 7", 1000, ChecksumType::libcrc32c); });
        attempt([&] { provider.validateProvider(); });
        return failures;
    }

    std::uint32_t checksum = 1000; // as stored; after each successful read it must be this value
};

TEST_F(DamagedDatabaseTest, NoDatabaseAtAll) {
    const std::string content = "This is a letter, not a database. " + std::string(5000, '.');
    test::writeFile(path(), content);
    EXPECT_EQ(failureOf([&] { provider.validateProvider(); }),
              "Unable to call prepare in runupdate, sqlite return: 26");
    EXPECT_EQ(failureOf([&] { provider.getConfigValue("key"); }),
              "Unable to call prepare in runquery, sqlite return: file is not a database");
    EXPECT_EQ(useAll(), 10);
    EXPECT_EQ(test::readFile(path()), content);
}

TEST_F(DamagedDatabaseTest, AnEmptyFileIsAFreshOne) {
    test::writeFile(path(), "");
    provider.validateProvider();
    EXPECT_TRUE(provider.getVolumeUUIDs().empty());
}

TEST_F(DamagedDatabaseTest, TruncatedAtManyLengths) {
    const std::string whole = wholeFile();
    ASSERT_EQ(useAll(), 0);
    // The last page belongs to an index without entries, so truncating the file within it loses nothing.
    const std::size_t lastPage = whole.size() - 4096;
    for (std::size_t length = 1; length < whole.size(); length += length < 200 ? 13 : 509) {
        test::writeFile(path(), whole.substr(0, length));
        const int failures = useAll();
        EXPECT_TRUE(failures > 0 || length > lastPage) << length;
        EXPECT_EQ(checksum, 1000U) << length;
    }
}

TEST_F(DamagedDatabaseTest, RandomBytesInside) {
    const std::string whole = wholeFile();
    std::mt19937 random(20240607); // NOLINT(cert-msc51-cpp): the same damage in every run
    for (int run = 0; run < 200; ++run) {
        std::string damaged = whole;
        for (int change = 0; change < 8; ++change) {
            damaged[random() % damaged.size()] = static_cast<char>(random());
        }
        test::writeFile(path(), damaged);
        EXPECT_NO_THROW(useAll());
    }
}

} // namespace
} // namespace agent::db
