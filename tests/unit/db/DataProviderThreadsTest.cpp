#include "unit/db/DataProviderFixture.h"

#include <atomic>
#include <thread>

namespace agent::db {
namespace {

constexpr int threadCount = 6;
constexpr std::uint32_t rounds = 40;

class DataProviderThreadsTest : public test::DataProviderFixture {
protected:
    DataProviderThreadsTest() { provider.validateProvider(); }

    /// Runs `work` concurrently on several threads; the argument is the thread's number. An exception ends
    /// the test program.
    template <typename Work>
    void inParallel(const Work& work) {
        std::vector<std::jthread> threads;
        for (int number = 0; number < threadCount; ++number) {
            threads.emplace_back([&, number] { work(number); });
        }
    }
};

TEST_F(DataProviderThreadsTest, EachThreadReadsWhatItWrote) {
    std::atomic<int> mismatches = 0;
    inParallel([&](int number) {
        const std::string name = "volume " + std::to_string(number);
        for (std::uint32_t round = 1; round <= rounds; ++round) {
            std::uint32_t checksum = 0;
            ChecksumType type{};
            std::uint64_t journalId = 0;
            std::uint64_t changeId = 0;
            provider.setVolumeChecksum(name, round, ChecksumType::libcrc32c);
            provider.setVolumeJournalChangeId(name, ChangeContext::Next, round, round + 1);
            provider.setConfigValue(name, std::to_string(round));
            provider.getVolumeChecksum(name, checksum, type);
            provider.getVolumeJournalChangeId(name, ChangeContext::Next, journalId, changeId);
            const bool same = checksum == round && journalId == round && changeId == round + 1 &&
                              provider.getConfigValue(name) == std::to_string(round);
            mismatches += same ? 0 : 1;
        }
    });
    EXPECT_EQ(mismatches, 0);
    EXPECT_EQ(provider.getVolumeUUIDs().size(), static_cast<std::size_t>(threadCount));
}

TEST_F(DataProviderThreadsTest, OneKeyIsNeverMissingOrDoubled) {
    provider.setConfigValue("key", "start");
    provider.setDevice(-1, "-1", "-1");
    std::atomic<int> torn = 0;
    inParallel([&](int number) {
        for (std::uint32_t round = 0; round < rounds; ++round) {
            std::int32_t id = 0;
            std::string ip;
            std::string uuid;
            provider.setConfigValue("key", std::to_string(number));
            provider.setDevice(number, std::to_string(number), std::to_string(number));
            const bool found = provider.getDevice(id, ip, uuid);
            torn += found && ip == std::to_string(id) && uuid == ip ? 0 : 1;
            torn += provider.getConfigValue("key").empty() ? 1 : 0;
        }
    });
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(stored("select count(*) from config where key = 'key';"), "1");
    EXPECT_EQ(stored("select count(*) from device;"), "1");
}

} // namespace
} // namespace agent::db
