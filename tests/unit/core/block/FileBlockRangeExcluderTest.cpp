#include "support/LoopFileSystem.h"
#include "unit/core/block/FileBlockRangeExcluderFixture.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

namespace agent::core::block {
namespace {

using test::LoopFileSystem;
using test::outputOf;
using testing::HasSubstr;
using testing::IsEmpty;

/// A block of data that differs from any block of a file system's own structures.
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

} // namespace
} // namespace agent::core::block
