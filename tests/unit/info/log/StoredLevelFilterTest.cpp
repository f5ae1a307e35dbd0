#include "info/log/StoredLevelFilter.h"

#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <thread>

namespace agent::info {
namespace {

class MemoryStore : public ILogLevelStore {
public:
    std::string getConfigValue(const std::string& key) override { return values.at(key); }
    void setConfigValue(const std::string& key, const std::string& value) override { values[key] = value; }
    std::map<std::string, std::string> values;
};

class StoredLevelFilterTest : public testing::Test {
protected:
    int loaded(const std::string& stored) {
        store.values["log_level"] = stored;
        filter.load(record.logger, store);
        return filter.threshold();
    }

    StoredLevelFilter filter;
    MemoryStore store;
    test::RecordingLogger record;
};

TEST_F(StoredLevelFilterTest, StartsAtInfo) {
    EXPECT_EQ(filter.threshold(), 3);
    EXPECT_TRUE(filter.pass("", 3, {}));
    EXPECT_FALSE(filter.pass("", 4, {}));
}

TEST_F(StoredLevelFilterTest, EndsOfTheScale) {
    filter.setLevel(-1);
    EXPECT_FALSE(filter.pass("", 0, {}));
    for (const int threshold : {4, 5}) {
        filter.setLevel(threshold);
        EXPECT_TRUE(filter.pass("", 4, {}));
    }
}

TEST_F(StoredLevelFilterTest, WithoutAStoreALevelIsJustSet) {
    EXPECT_NO_THROW(filter.setLevel(1));
    EXPECT_EQ(filter.threshold(), 1);
}

TEST_F(StoredLevelFilterTest, EveryNameIsLoaded) {
    const std::vector<std::string> names = {"min", "critical", "error", "warning", "info", "debug", "max"};
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(loaded(names[i]), static_cast<int>(i) - 1);
        EXPECT_TRUE(record.has(4, "Logger level loaded from database: " + names[i]));
        EXPECT_EQ(store.values["log_level"], names[i]);
    }
}

TEST_F(StoredLevelFilterTest, CaseDoesNotMatterAndTheStoredTextStays) {
    EXPECT_EQ(loaded("DEBUG"), 4);
    EXPECT_TRUE(record.has(4, "Logger level loaded from database: debug"));
    EXPECT_EQ(store.values["log_level"], "DEBUG");
}

TEST_F(StoredLevelFilterTest, UnknownNameIsReplaced) {
    EXPECT_EQ(loaded("verbose"), 3);
    EXPECT_TRUE(record.has(2, "Database entry for log_level was not valid, updating to default: info"));
    EXPECT_EQ(store.values["log_level"], "info");
}

TEST_F(StoredLevelFilterTest, MissingOrEmptyValueChangesNothing) {
    filter.load(record.logger, store);
    EXPECT_EQ(filter.threshold(), 3);
    EXPECT_TRUE(store.values.empty());
    EXPECT_EQ(loaded(""), 3);
    EXPECT_EQ(store.values["log_level"], "");
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(StoredLevelFilterTest, ChangesAreStoredByName) {
    filter.load(record.logger, store);
    filter.setLevel(1);
    EXPECT_EQ(store.values["log_level"], "error");
    filter.setLevel(-1);
    EXPECT_EQ(store.values["log_level"], "min");
    filter.setLevel(9);
    EXPECT_EQ(store.values["log_level"], "unknown");
}

TEST_F(StoredLevelFilterTest, ThresholdMayChangeWhileMessagesPass) {
    std::thread setter([&] {
        for (int i = 0; i < 10'000; ++i) {
            filter.setLevel(i % 2 == 0 ? -1 : 5);
        }
    });
    for (int i = 0; i < 10'000; ++i) {
        (void)filter.pass("", 3, {});
    }
    setter.join();
    EXPECT_EQ(filter.threshold(), 5);
}

} // namespace
} // namespace agent::info
