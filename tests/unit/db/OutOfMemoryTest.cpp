#include "common/Exceptions.h"
#include "db/QueryRunner.h"
#include "unit/db/DataProviderFixture.h"

#include <climits>

namespace agent::db {
namespace {

using test::failureOf;

/// While an object exists, SQLite runs out of memory at a chosen allocation. Only one object may exist at a
/// time, and no connection may be open when it is constructed or destroyed.
class FailingAllocator {
public:
    FailingAllocator() {
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_GETMALLOC, &original);
        sqlite3_mem_methods failing = original;
        failing.xMalloc = [](int bytes) { return fails() ? nullptr : original.xMalloc(bytes); };
        failing.xRealloc = [](void* old, int bytes) {
            return fails() ? nullptr : original.xRealloc(old, bytes);
        };
        sqlite3_config(SQLITE_CONFIG_MALLOC, &failing);
        sqlite3_initialize();
    }
    FailingAllocator(const FailingAllocator&) = delete;
    FailingAllocator& operator=(const FailingAllocator&) = delete;
    ~FailingAllocator() {
        never();
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_MALLOC, &original);
        sqlite3_initialize();
    }

    /// Makes the `number`th allocation from now on fail, counted from 1; if `stays`, all later allocations
    /// fail as well.
    static void failAt(int number, bool stays) {
        left = number;
        permanent = stays;
    }
    static void never() { left = INT_MAX; }
    [[nodiscard]] static bool hasFailed() { return left <= 0; }

private:
    static bool fails() {
        --left;
        return left == 0 || (permanent && left < 0);
    }

    // static, since SQLite passes no context to its allocator
    static inline sqlite3_mem_methods original{};
    static inline int left = INT_MAX;
    static inline bool permanent = false;
};

TEST(OutOfMemory, NoConnection) {
    const test::TestDirectory directory;
    test::RecordingLogger recorder;
    const FailingAllocator allocator;
    allocator.failAt(1, true);
    EXPECT_EQ(failureOf<agent::exception::library_error>(
                  [&] { QueryRunner(recorder.logger, directory / "some.sqlite"); }),
              "SQLite is unable to allocate memory to hold the sqlite3 object");
}

// Fails allocation 1, 2, 3... until the operation needs fewer. Each time it must throw or do its work.
TEST(OutOfMemory, AnyAllocationOfARead) {
    const test::TestDirectory directory;
    test::RecordingLogger recorder;
    UUIDGenerator generator;
    const std::string text(3000, 'x');
    const FailingAllocator allocator;
    // In a UTF-16 database SQLite converts every text that it reads, which needs memory.
    test::RawDatabase(directory / "agent.sqlite").run("PRAGMA encoding = \"UTF-16\"; create table t (a);");
    DataProvider provider(recorder.logger, generator, directory.path());
    provider.validateProvider();
    provider.setConfigValue("key", text);
    int number = 0;
    do {
        ++number;
        allocator.failAt(number, number % 2 == 0);
        std::string value;
        const std::string failure = failureOf([&] { value = provider.getConfigValue("key"); });
        EXPECT_NE(failure.empty(), value.empty()) << number;
        EXPECT_TRUE(value.empty() || value == text) << number;
    } while (allocator.hasFailed() && number < 10000);
    EXPECT_GT(number, 20);
    EXPECT_LT(number, 10000);
}

/// The same for a write: it must be done completely or not at all.
TEST(OutOfMemory, AnyAllocationOfAWrite) {
    const test::TestDirectory directory;
    test::RecordingLogger recorder;
    UUIDGenerator generator;
    const FailingAllocator allocator;
    DataProvider provider(recorder.logger, generator, directory.path());
    provider.validateProvider();
    provider.setVolumeChecksum("vol", 1, ChecksumType::libcrc32c);
    std::uint32_t expected = 1;
    bool failed = true;
    for (int number = 1; failed && number < 10000; ++number) {
        const auto next = static_cast<std::uint32_t>(number + 1);
        allocator.failAt(number, number % 2 == 0);
        const std::string failure =
            failureOf([&] { provider.setVolumeChecksum("vol", next, ChecksumType::libcrc32c); });
        failed = allocator.hasFailed();
        allocator.never();

        std::uint32_t checksum = 0;
        ChecksumType type{};
        provider.getVolumeChecksum("vol", checksum, type);
        EXPECT_TRUE(checksum == next || (!failure.empty() && checksum == expected)) << number;
        expected = checksum;
    }
    EXPECT_FALSE(failed);
    EXPECT_EQ(test::RawDatabase(directory / "agent.sqlite").value("PRAGMA integrity_check;"), "ok");
}

} // namespace
} // namespace agent::db
