#include "core/block/BlockRangeIterator.h"

#include "support/FixedRanges.h"
#include "support/Messages.h"
#include "support/ReferenceRanges.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <typeinfo>

namespace agent::core::block {
namespace {

using test::FixedRanges;

TEST(BlockRangeIterator, WithoutIteratorEveryUseIsBadAlloc) {
    const FixedRanges provider({{1, 2}});
    BlockRangeIterator none;
    EXPECT_FALSE(none);
    EXPECT_THROW((void)*none, std::bad_alloc);
    EXPECT_THROW((void)none->length, std::bad_alloc);
    EXPECT_THROW(++none, std::bad_alloc);
    EXPECT_THROW((void)(none == provider.begin()), std::bad_alloc);
    EXPECT_THROW((void)(provider.begin() == none), std::bad_alloc);
    const BlockRangeIterator copy(none);
    EXPECT_FALSE(copy);
}

TEST(BlockRangeIterator, CopyAdvancesOnItsOwn) {
    const FixedRanges provider({{1, 2}, {5, 1}});
    BlockRangeIterator first = provider.begin();
    BlockRangeIterator second(first);
    EXPECT_TRUE(first == second);
    ++second;
    EXPECT_EQ(first->start, 1U);
    EXPECT_EQ(second->start, 5U);
    first = second;
    EXPECT_EQ(*first, (BlockRange{5, 1}));
    EXPECT_EQ(*second++, (BlockRange{5, 1}));
    EXPECT_TRUE(second == provider.end());
    EXPECT_TRUE(first != second);
}

TEST(BlockRangeIterator, AnotherKindIsNotCompared) {
    const FixedRanges provider({{1, 2}});
    const BlockRange range{1, 2};
    const BlockRangeIterator other = handleOf(&range);
    EXPECT_EQ(*other, *provider.begin());
    EXPECT_THROW((void)(provider.begin() == other), std::bad_cast);
}

TEST(BlockRangeIterator, EndSaysWhoseItIs) {
    EXPECT_EQ(test::messageOf<std::out_of_range>([] { (void)*FixedRanges({}).end(); }),
              "Tried to get past-the-end of Fixed Ranges");
}

} // namespace
} // namespace agent::core::block
