#include "core/block/FileBlockRangeExcluder.h"

#include "support/FixedRanges.h"
#include "support/LoopFileSystem.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/ReferenceRanges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace agent::core::block {
namespace {

using test::allOf;
using test::LoopFileSystem;
using test::outputOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Ranges = std::vector<BlockRange>;

constexpr std::uint32_t blockSize = 4096;

/// A block of data that no file system writes by itself.
std::string block(const std::string& name, std::uint64_t number) {
    std::string text = "content of " + name + ", block " + std::to_string(number) + ".";
    text.resize(blockSize, '~');
    return text;
}

/// Grows two files in turns, one block at a time, so that neither can be contiguous.
void writeInTurns(const LoopFileSystem& fileSystem, std::uint64_t blocks) {
    const os::FileDescriptor first(
        ::open(fileSystem.path("first").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const os::FileDescriptor second(
        ::open(fileSystem.path("second").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    for (std::uint64_t number = 0; number < blocks; ++number) {
        const std::string ofFirst = block("first", number);
        const std::string ofSecond = block("second", number);
        ASSERT_EQ(::write(first.get(), ofFirst.data(), blockSize), blockSize);
        ASSERT_EQ(::fdatasync(first.get()), 0);
        ASSERT_EQ(::write(second.get(), ofSecond.data(), blockSize), blockSize);
        ASSERT_EQ(::fdatasync(second.get()), 0);
    }
    ::sync();
}

/// The extents of a file as filefrag reports them.
Ranges filefrag(const std::string& path) {
    const std::string output = outputOf("filefrag -v -b4096 " + path);
    const std::regex extent(R"(\n +\d+: +\d+\.\. +\d+: +(\d+)\.\. +\d+: +(\d+):)");
    Ranges ranges;
    for (std::sregex_iterator match(output.begin(), output.end(), extent), end; match != end; ++match) {
        ranges.push_back({std::stoull((*match)[1]), std::stoull((*match)[2])});
    }
    std::sort(ranges.begin(), ranges.end());
    return ranges;
}

std::uint64_t blocksOf(const Ranges& ranges) {
    std::uint64_t blocks = 0;
    for (const BlockRange& range : ranges) {
        blocks += range.length;
    }
    return blocks;
}

class FileBlockRangeExcluderTest : public testing::Test {
protected:
    Ranges excluded(const std::string& path, std::uint32_t size = blockSize,
                    const ExtentQuery& query = queryExtents) {
        return allOf(FileBlockRangeExcluder(log.logger, size, path, query));
    }

    /// The text of the single warning.
    [[nodiscard]] std::string warning() const {
        std::string text;
        for (const test::RecordingLogger::Line& line : log.lines()) {
            EXPECT_THAT(line.level, testing::AnyOf(info::level::debug, info::level::warning)) << line.text;
            if (line.level == info::level::warning) {
                EXPECT_EQ(text, "");
                text = line.text;
            }
        }
        return text;
    }

    test::TestDirectory directory;
    test::RecordingLogger log;
};

std::string notExcluded(const std::string& path, const std::string& why) {
    return "Failed to get extents of excluded file \"" + path +
           "\", blocks will not be excluded. Error: " + why;
}

/// File systems of the kernel.
class FileSystemsTest : public FileBlockRangeExcluderTest, public testing::WithParamInterface<const char*> {
protected:
    LoopFileSystem fileSystem{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Kernel, FileSystemsTest,
                         testing::Values("mkfs.ext4 -q -b 4096", "mkfs.ext2 -q -b 4096",
                                         "mkfs.xfs -q -b size=4096"));

/// Excluding a wrong block would leave data out of the image, so the contents of each excluded block are
/// checked.
TEST_P(FileSystemsTest, FragmentedFileIsExcludedWhereItLies) {
    writeInTurns(fileSystem, 60);
    const std::string path = fileSystem.path("second");
    const Ranges ranges = excluded(path);
    EXPECT_EQ(ranges, filefrag(path));
    EXPECT_EQ(blocksOf(ranges), 60U);
    for (const BlockRange& range : ranges) {
        for (std::uint64_t number = range.start; number < range.end(); ++number) {
            EXPECT_THAT(fileSystem.read(number * blockSize, blockSize),
                        testing::StartsWith("content of second"));
        }
    }
    EXPECT_EQ(warning(), "");
    EXPECT_TRUE(log.has(info::level::debug, "FBRE Linux: Block Size = 4096"));
    EXPECT_TRUE(log.has(info::level::debug, "FBRE Linux: Block Count = 60"));
    const std::string count = std::to_string(ranges.size());
    EXPECT_TRUE(log.has(info::level::debug,
                        "FIEMAP IoCtl of file \"" + path + "\" reports " + count + " (pre-merged) extents"));
    EXPECT_TRUE(log.has(info::level::debug, "FBRE Linux: Exclude extent { " +
                                                std::to_string(ranges[0].start) + ", " +
                                                std::to_string(ranges[0].length) + " }"));
    EXPECT_TRUE(
        log.has(info::level::debug, "FBRE Linux: FIEMAP got as many extents as we thought we should have (" +
                                        count + " for file \"" + path + "\")"));
}

TEST_P(FileSystemsTest, HolesAreNotExcluded) {
    const std::string path = fileSystem.path("holes");
    for (const int number : {3, 100, 101, 5000}) {
        outputOf("printf x | dd of=" + path +
                 " bs=4096 conv=notrunc status=none seek=" + std::to_string(number));
    }
    outputOf("sync");
    const Ranges ranges = excluded(path);
    EXPECT_EQ(ranges, filefrag(path));
    EXPECT_LT(blocksOf(ranges), 100U); // XFS preallocates some past the end
}

TEST_P(FileSystemsTest, EmptyFileHasNoExtents) {
    const std::string path = fileSystem.path("empty");
    test::writeFile(path, "");
    EXPECT_THAT(excluded(path), IsEmpty());
    EXPECT_TRUE(log.has(info::level::debug, "FBRE Linux: FIEMAP got as many extents as we thought we should "
                                            "have (0 for file \"" +
                                                path + "\")"));
}

/// FIEMAP reports delayed allocations at block 0, which doesn't belong to the file.
TEST_P(FileSystemsTest, WhatIsStillInMemoryIsNotExcluded) {
    const std::string path = fileSystem.path("fresh");
    test::writeFile(path, block("fresh", 0));
    for (const BlockRange& range : excluded(path)) {
        EXPECT_GT(range.start, 0U);
    }
    EXPECT_EQ(warning(), "");
}

/// Asks the kernel, and runs a command between the two FIEMAP calls.
ExtentQuery interrupted(const std::string& command) {
    return [command, asked = 0](int descriptor, fiemap& request) mutable {
        if (asked++ == 1) {
            outputOf(command);
        }
        return queryExtents(descriptor, request);
    };
}

TEST_P(FileSystemsTest, FileThatGrowsBetweenTheQuestionsIsNamed) {
    writeInTurns(fileSystem, 10);
    const std::string path = fileSystem.path("first");
    const Ranges before = filefrag(path);
    const std::string grow = "printf x | dd of=" + path + " bs=4096 seek=9000 conv=notrunc,fsync status=none";
    EXPECT_EQ(excluded(path, blockSize, interrupted(grow)), before);
    EXPECT_EQ(warning(), "FBRE Linux: identified more extents for file \"" + path +
                             "\" than we thought we should have (expected " + std::to_string(before.size()) +
                             ", but got some amount more); some blocks may not be excluded properly");
}

TEST_P(FileSystemsTest, EmptyFileThatGrowsBetweenTheQuestionsIsNamed) {
    const std::string path = fileSystem.path("empty");
    test::writeFile(path, "");
    EXPECT_THAT(excluded(path, blockSize, interrupted("printf x > " + path + "; sync")), IsEmpty());
    EXPECT_THAT(warning(), HasSubstr("(expected 0, but got some amount more)"));
}

TEST_P(FileSystemsTest, FileThatShrinksBetweenTheQuestionsIsNamed) {
    writeInTurns(fileSystem, 10);
    const std::string path = fileSystem.path("first");
    const std::size_t before = filefrag(path).size();
    const Ranges after = excluded(path, blockSize, interrupted("truncate -s 4096 " + path));
    EXPECT_EQ(after, filefrag(path));
    EXPECT_EQ(warning(), "FBRE Linux: identified fewer extents for file \"" + path +
                             "\" than we thought we should have (expected " + std::to_string(before) +
                             ", got 1)");
}

class ExtentsTest : public FileBlockRangeExcluderTest {};

TEST_F(ExtentsTest, BlocksThatAreOnlyReservedBelongToTheFile) {
    for (const char* make : {"mkfs.ext4 -q -b 4096", "mkfs.xfs -q"}) {
        const LoopFileSystem fileSystem(make);
        const std::string path = fileSystem.path("reserved");
        outputOf("fallocate -l 10M " + path + " && sync");
        const Ranges ranges = excluded(path);
        EXPECT_EQ(ranges, filefrag(path));
        EXPECT_EQ(blocksOf(ranges), 2560U);
    }
}

// A reflink copy of the file, which any user who can read the file can make, uses the same blocks.
TEST_F(ExtentsTest, BlocksThatAReflinkSharesAreNotExcluded) {
    const LoopFileSystem fileSystem("mkfs.xfs -q -b size=4096 -m reflink=1");
    const std::string path = fileSystem.path("file");
    outputOf("head -c 40960 /dev/urandom > " + path + " && sync");
    EXPECT_EQ(blocksOf(excluded(path)), 10U);
    outputOf("cp --reflink=always " + path + " " + fileSystem.path("copy"));
    outputOf("head -c 8192 /dev/urandom | dd of=" + path + " bs=4096 seek=3 conv=notrunc,fsync status=none");
    const Ranges ranges = excluded(path);
    EXPECT_EQ(blocksOf(ranges), 2U); // blocks written since then belong to the file alone again
    EXPECT_THAT(outputOf("filefrag -v " + path), HasSubstr("shared"));
    EXPECT_EQ(warning(), "");
}

TEST_F(ExtentsTest, FileInItsInodeExcludesNothing) {
    const LoopFileSystem fileSystem("mkfs.ext4 -q -b 4096 -I 256 -O inline_data");
    const std::string path = fileSystem.path("tiny");
    outputOf("printf tiny > " + path + " && sync");
    EXPECT_THAT(outputOf("filefrag -v " + path), HasSubstr("inline"));
    EXPECT_EQ(blocksOf(excluded(path)), 0U);
    EXPECT_EQ(FileBlockRangeExcluder(log.logger, blockSize, path).size(), 1U);
}

TEST_F(ExtentsTest, ExtentsShorterThanABlockExcludeNothing) {
    const LoopFileSystem fileSystem("mkfs.ext4 -q -b 1024");
    const std::string path = fileSystem.path("short");
    outputOf("head -c 3000 /dev/urandom > " + path + " && sync");
    const Ranges ranges = excluded(path);
    ASSERT_EQ(ranges.size(), 1U);
    EXPECT_EQ(ranges[0].length, 0U);
    EXPECT_EQ(blocksOf(excluded(path, 1024)), 3U);
}

TEST_F(FileBlockRangeExcluderTest, MissingFileIsNoTrouble) {
    const FileBlockRangeExcluder excluder(log.logger, blockSize, directory / "missing");
    EXPECT_TRUE(excluder.begin() == excluder.end());
    EXPECT_EQ(excluder.size(), 0U);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(FileBlockRangeExcluderTest, SizeIsThatOfTheFileInBlocks) {
    const std::string path = directory / "file";
    for (const auto& [bytes, blocks] : {std::pair{0, 0U}, {1, 1U}, {4096, 1U}, {4097, 2U}}) {
        test::writeFile(path, std::string(static_cast<std::size_t>(bytes), 'x'));
        EXPECT_EQ(FileBlockRangeExcluder(log.logger, blockSize, path).size(), blocks);
    }
    EXPECT_EQ(FileBlockRangeExcluder(log.logger, 0, path).size(), 0U);
}

TEST_F(FileBlockRangeExcluderTest, UnknownBlockSizeExcludesNothing) {
    const std::string path = directory / "file";
    test::writeFile(path, "x");
    EXPECT_THAT(excluded(path, 0), IsEmpty());
    EXPECT_EQ(warning(), notExcluded(path, "the volume's block size is not known"));
}

TEST_F(FileBlockRangeExcluderTest, FileSystemThatCannotTellExcludesNothing) {
    const std::string path = directory / "file"; // on tmpfs
    test::writeFile(path, "x");
    EXPECT_THAT(excluded(path), IsEmpty());
    EXPECT_THAT(warning(),
                testing::StartsWith(notExcluded(path, "FIEMAP IoCtl for file \"" + path +
                                                          "\" failed, error: Operation not supported")));
}

TEST_F(FileBlockRangeExcluderTest, WhatIsNoFileExcludesNothing) {
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_THAT(excluded(pipe), IsEmpty());
    EXPECT_EQ(warning(), notExcluded(pipe, "\"" + pipe + "\" is not a regular file"));
    log.clear();
    EXPECT_THAT(excluded(directory.path()), IsEmpty());
    EXPECT_THAT(warning(), HasSubstr("is not a regular file"));
    log.clear();
    const std::string link = directory / "link";
    std::filesystem::create_symlink("/etc/passwd", link);
    EXPECT_THAT(excluded(link), IsEmpty());
    EXPECT_THAT(warning(),
                HasSubstr("Failed to open handle to file \"" + link + "\", error: Too many levels"));
}

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
