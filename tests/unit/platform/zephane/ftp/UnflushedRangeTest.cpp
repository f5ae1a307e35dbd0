#include "zephane/ftp/UnflushedRange.h"

#include <gtest/gtest.h>

namespace zephane {
namespace {

TEST(UnflushedRange, CoversAllThatWasAdded) {
    UnflushedRange unflushed;
    unflushed.add(100, 10);
    unflushed.add(50, 10);
    EXPECT_TRUE(unflushed.overlaps(50, 1));
    EXPECT_TRUE(unflushed.overlaps(70, 1)); // between the two ranges
    EXPECT_TRUE(unflushed.overlaps(109, 1));
    EXPECT_FALSE(unflushed.overlaps(110, 10));
    EXPECT_FALSE(unflushed.overlaps(40, 10));
    EXPECT_EQ(unflushed.bytes(), 20);
}

TEST(UnflushedRange, IsEmptyAfterAFlush) {
    UnflushedRange unflushed;
    EXPECT_TRUE(unflushed.isEmpty());
    unflushed.add(0, 1);
    EXPECT_FALSE(unflushed.isEmpty());
    unflushed.clear();
    EXPECT_TRUE(unflushed.isEmpty());
    EXPECT_FALSE(unflushed.overlaps(0, 1));
    EXPECT_EQ(unflushed.bytes(), 0);
}

} // namespace
} // namespace zephane
