#include "os/AlignedBuffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace os {
namespace {

constexpr std::size_t unobtainable = std::numeric_limits<std::size_t>::max();

bool beginsAtAPage(const AlignedBuffer& buffer) {
    return reinterpret_cast<std::uintptr_t>(buffer.data()) % static_cast<std::uintptr_t>(getpagesize()) == 0;
}

std::ptrdiff_t pagesInMemory(AlignedBuffer& buffer) {
    std::vector<unsigned char> pages(buffer.size() / static_cast<std::size_t>(getpagesize()));
    EXPECT_EQ(mincore(buffer.data(), buffer.size(), pages.data()), 0);
    return std::count_if(pages.begin(), pages.end(), [](unsigned char page) { return (page & 1U) != 0; });
}

TEST(AlignedBuffer, IsZeroedAndBeginsAtAPage) {
    for (const std::size_t size : {1U, 511U, 512U, 4096U, 4097U, 1048576U, 1048577U, 10485760U}) {
        for (int round = 0; round < 3; ++round) { // later rounds reuse memory that was written
            AlignedBuffer buffer(size, 512);
            ASSERT_EQ(buffer.size(), size);
            EXPECT_FALSE(buffer.empty());
            EXPECT_TRUE(beginsAtAPage(buffer)) << size;
            EXPECT_TRUE(std::all_of(buffer.data(), buffer.data() + size, [](std::byte byte) {
                return byte == std::byte{0};
            })) << size;
            std::fill_n(buffer.data(), size, std::byte{0xa5});
        }
    }
}

TEST(AlignedBuffer, TakesMemoryForWhatIsUsedOfALargeOne) {
    AlignedBuffer buffer(std::size_t{40} * 1024 * 1024, 512);
    EXPECT_EQ(pagesInMemory(buffer), 0);
    buffer.data()[buffer.size() / 2] = std::byte{1};
    EXPECT_EQ(pagesInMemory(buffer), 1);
}

TEST(AlignedBuffer, KeepsTheAlignmentThatWasAskedFor) {
    EXPECT_EQ(AlignedBuffer(10, 512).alignment(), 512U);
    EXPECT_TRUE(beginsAtAPage(AlignedBuffer(10, 0)));
    EXPECT_TRUE(beginsAtAPage(AlignedBuffer(10, 3)));
}

TEST(AlignedBuffer, SizeZeroAllocatesNothing) {
    const AlignedBuffer made(0, 4096);
    EXPECT_TRUE(made.empty());
    EXPECT_EQ(made.data(), nullptr);
    const AlignedBuffer unmade;
    EXPECT_TRUE(unmade.empty());
    EXPECT_EQ(unmade.size(), 0U);
}

TEST(AlignedBuffer, MovesItsMemory) {
    AlignedBuffer source(100, 512);
    const std::byte* const memory = source.data();
    AlignedBuffer constructed(std::move(source));
    EXPECT_EQ(constructed.data(), memory);
    EXPECT_EQ(constructed.size(), 100U);
    EXPECT_TRUE(source.empty()); // NOLINT(bugprone-use-after-move): that is what is tested
    EXPECT_EQ(source.data(), nullptr);

    AlignedBuffer assigned(7, 1);
    assigned = std::move(constructed);
    EXPECT_EQ(assigned.data(), memory);
    EXPECT_EQ(assigned.size(), 100U);
    EXPECT_EQ(assigned.alignment(), 512U);
    EXPECT_TRUE(constructed.empty()); // NOLINT(bugprone-use-after-move)
}

TEST(AlignedBuffer, UnobtainableSizeThrows) {
    EXPECT_THROW(AlignedBuffer(unobtainable, 4096), std::bad_alloc);
    EXPECT_THROW(AlignedBuffer(unobtainable / 2 + 1, 4096), std::bad_alloc);
}

} // namespace
} // namespace os
