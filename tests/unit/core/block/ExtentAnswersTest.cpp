#include "support/Messages.h"
#include "unit/core/block/FileBlockRangeExcluderFixture.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <unistd.h>

namespace agent::core::block {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// A query with scripted answers: those that the kernel never gives, or can't be made to give.
ExtentQuery answering(std::uint32_t first, std::uint32_t second,
                      const std::vector<fiemap_extent>& extents = {}) {
    return [=, asked = 0](int, fiemap& request) mutable {
        request.fm_mapped_extents = asked++ == 0 ? first : second;
        std::copy_n(extents.begin(), std::min<std::size_t>(request.fm_extent_count, extents.size()),
                    static_cast<fiemap_extent*>(request.fm_extents));
        return 0;
    };
}

fiemap_extent extentOf(std::uint64_t physical, std::uint64_t length, std::uint32_t flags) {
    fiemap_extent extent{};
    extent.fe_physical = physical;
    extent.fe_length = length;
    extent.fe_flags = flags;
    return extent;
}

class ExtentAnswersTest : public FileBlockRangeExcluderTest {
protected:
    void SetUp() override { test::writeFile(path, "x"); }
    std::string path = directory / "file";
};

TEST_F(ExtentAnswersTest, RangesAreSortedAndNotMerged) {
    const std::vector<fiemap_extent> extents = {extentOf(90'000, 9000, 0), extentOf(8192, 8191, 0),
                                                extentOf(16'384, 4096, 0),
                                                extentOf(8192, 4096, FIEMAP_EXTENT_LAST)};
    EXPECT_THAT(excluded(path, blockSize, answering(4, 4, extents)),
                ElementsAre(BlockRange{2, 1}, BlockRange{2, 1}, BlockRange{4, 1}, BlockRange{21, 2}));
    EXPECT_EQ(warning(), "");
}

TEST_F(ExtentAnswersTest, LastExtentEndsTheWalk) {
    const std::vector<fiemap_extent> extents = {extentOf(4096, 4096, FIEMAP_EXTENT_LAST),
                                                extentOf(8192, 4096, 0)};
    EXPECT_THAT(excluded(path, blockSize, answering(2, 2, extents)), ElementsAre(BlockRange{1, 1}));
    EXPECT_THAT(warning(), HasSubstr("(expected 2, got 1)"));
}

TEST_F(ExtentAnswersTest, UnknownPlacesAreNotExcluded) {
    const std::vector<fiemap_extent> extents = {
        extentOf(0, 8192, FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC),
        extentOf(4096, 4096, FIEMAP_EXTENT_UNKNOWN),
        extentOf(8192, 4096, FIEMAP_EXTENT_UNWRITTEN | FIEMAP_EXTENT_LAST)};
    EXPECT_THAT(excluded(path, blockSize, answering(3, 3, extents)), ElementsAre(BlockRange{2, 1}));
    EXPECT_EQ(warning(), "");
}

TEST_F(ExtentAnswersTest, BlocksThatOthersHaveAShareInAreNotExcluded) {
    const std::vector<fiemap_extent> extents = {
        extentOf(4096, 4096, FIEMAP_EXTENT_SHARED),
        extentOf(8192, 4096, FIEMAP_EXTENT_SHARED | FIEMAP_EXTENT_UNWRITTEN),
        extentOf(12'288, 4096, FIEMAP_EXTENT_NOT_ALIGNED | FIEMAP_EXTENT_DATA_TAIL),
        extentOf(16'384, 4096, FIEMAP_EXTENT_LAST)};
    EXPECT_THAT(excluded(path, blockSize, answering(4, 4, extents)), ElementsAre(BlockRange{4, 1}));
    EXPECT_EQ(warning(), "");
}

TEST_F(ExtentAnswersTest, MoreExtentsThanRoomAreNotRead) {
    const std::vector<fiemap_extent> extents = {extentOf(4096, 4096, 0), extentOf(8192, 4096, 0)};
    EXPECT_THAT(excluded(path, blockSize, answering(1, 1'000'000, extents)), ElementsAre(BlockRange{1, 1}));
    EXPECT_THAT(warning(), HasSubstr("(expected 1, but got some amount more)"));
}

TEST_F(ExtentAnswersTest, AbsurdNumbersOfExtentsAreRefused) {
    for (const std::uint32_t count : {(1U << 20U) + 1, 0xffffffffU}) {
        log.clear();
        EXPECT_THAT(excluded(path, blockSize, answering(count, 0)), IsEmpty());
        EXPECT_EQ(warning(), notExcluded(path, "the file lies in too many pieces"));
    }
}

TEST_F(ExtentAnswersTest, FailureOfTheSecondQuestionExcludesNothing) {
    const ExtentQuery query = [asked = 0](int, fiemap& request) mutable {
        request.fm_mapped_extents = 1;
        errno = EIO;
        return asked++ == 0 ? 0 : -1;
    };
    EXPECT_THAT(excluded(path, blockSize, query), IsEmpty());
    EXPECT_THAT(warning(), testing::StartsWith(notExcluded(path, "FIEMAP IoCtl for excluded file \"" + path +
                                                                     "\" failed, error Input/output error")));
}

TEST_F(ExtentAnswersTest, FailureToCloseIsOnlyAWarning) {
    const ExtentQuery query = [asked = 0](int descriptor, fiemap& request) mutable {
        request.fm_mapped_extents = 0;
        return asked++ == 0 ? 0 : ::close(descriptor);
    };
    EXPECT_THAT(excluded(path, blockSize, query), IsEmpty());
    EXPECT_EQ(warning(),
              "Failed to close file handle to excluded file \"" + path + "\": Bad file descriptor");
}

TEST_F(ExtentAnswersTest, IteratorsWalkByPosition) {
    const std::vector<fiemap_extent> extents = {extentOf(4096, 4096, 0),
                                                extentOf(8192, 4096, FIEMAP_EXTENT_LAST)};
    const FileBlockRangeExcluder excluder(log.logger, blockSize, path, answering(2, 2, extents));
    FileBlockRangeExcluder::iterator iterator(excluder, 0);
    const FileBlockRangeExcluder::iterator before = iterator++;
    EXPECT_EQ(*before, (BlockRange{1, 1}));
    EXPECT_EQ(*iterator, (BlockRange{2, 1}));
    ++iterator;
    ++iterator;
    EXPECT_EQ(test::messageOf<std::out_of_range>([&] { (void)*iterator; }),
              "Tried to get past-the-end of File Block Range Excluder (\"" + path + "\")");
    EXPECT_TRUE(iterator == FileBlockRangeExcluder::iterator(excluder, 2));
}

} // namespace
} // namespace agent::core::block
