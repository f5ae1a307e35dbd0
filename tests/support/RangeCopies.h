#pragma once

#include "core/block/BlockRange.h"

#include <gtest/gtest.h>

namespace agent::test {

/// Expects that a copy of an iterator advances independently. The ranges are the first three that the
/// iterator yields.
template <typename Iterator>
void expectCopiesAdvanceAlone(Iterator iterator, const BlockRange& first, const BlockRange& second,
                              const BlockRange& third) {
    const Iterator before = iterator++;
    EXPECT_EQ(*before, first);
    EXPECT_EQ(*iterator, second);
    EXPECT_FALSE(before == iterator);
    Iterator again(before);
    EXPECT_EQ(*++again, second);
    EXPECT_TRUE(again == iterator);
    EXPECT_EQ(*++again, third);
    EXPECT_EQ(*iterator, second);
}

} // namespace agent::test
