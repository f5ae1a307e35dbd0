#include "info/SimpleCache.h"

#include "info/VSSWriterDetailsProvider.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>

namespace agent::info {
namespace {

using namespace std::chrono_literals;
using Cache = SimpleCache<int>;

class SimpleCacheTest : public testing::Test {
protected:
    Cache::Clock::time_point now;
    int made = 0;
    Cache cache{10s, [this] { return ++made; }, [this] { return now; }};
};

TEST_F(SimpleCacheTest, ValueIsMadeWhenSomebodyAsks) {
    EXPECT_EQ(made, 0);
    EXPECT_EQ(cache.get(), 1);
}

TEST_F(SimpleCacheTest, ValueIsKeptUntilItExpires) {
    EXPECT_EQ(cache.get(), 1);
    now += 10s - 1ns;
    EXPECT_EQ(cache.get(), 1);
    now += 1ns;
    EXPECT_EQ(cache.get(), 2);
    now += 10s - 1ns;
    EXPECT_EQ(cache.get(), 2);
}

TEST_F(SimpleCacheTest, FailureIsNotKept) {
    bool failing = true;
    Cache failed(10s, [&] { return failing ? throw std::runtime_error("none") : 7; });
    EXPECT_THROW(std::ignore = failed.get(), std::runtime_error);
    failing = false;
    EXPECT_EQ(failed.get(), 7);
}

TEST(VSSWriterDetailsProvider, ThereAreNoneOnThisSystem) {
    core::backup::VSSWriterDetailsProvider provider;
    EXPECT_TRUE(provider.getWriters().empty());
    EXPECT_TRUE(provider.getWriters().empty());
}

} // namespace
} // namespace agent::info
