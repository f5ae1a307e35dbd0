#include "core/block/BlockRangeProviderFactory.h"
#include "core/block/SizedBlockRangeProvider.h"
#include "core/block/UnchangedBlockRangeExcluder.h"
#include "core/block/UnusedBlockRangeExcluder.h"
#include "support/FixedRanges.h"
#include "support/Messages.h"
#include "support/RangeCopies.h"
#include "support/RecordingLogger.h"
#include "support/ReferenceRanges.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

namespace agent::core::block {
namespace {

using test::allOf;
using testing::ElementsAre;
using testing::IsEmpty;
using Line = test::RecordingLogger::Line;
using Bytes = std::vector<std::uint8_t>;
using Words = std::vector<std::uint64_t>;

std::shared_ptr<const info::BackupableVolume> volumeOf(std::uint32_t blockSize,
                                                       std::uint64_t blockCount = 0) {
    info::VolumeDescription description;
    description.blockSize = blockSize;
    description.blockCount = blockCount;
    description.sectorSize = 512;
    description.mountPoints = {"/mnt/data", "/mnt/other"};
    return std::make_shared<info::BackupableVolume>(description);
}

/// The results of the bitmap provider: these chunks in order, then `last` forever.
struct Answers {
    struct Chunk {
        Bytes bytes;
        std::int64_t elements;
    };

    std::vector<Chunk> chunks;
    std::int64_t last = 0;
    bool msbFirst = false;
    std::vector<std::uint64_t> asked;
    std::size_t bufferBytes = 0;
};

class ScriptedChunkProvider : public fs::IBlockBitmapChunkProvider {
public:
    explicit ScriptedChunkProvider(Answers& answers) : answers(answers) {}

    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                std::size_t bufferBytes) override {
        answers.asked.push_back(startBlock);
        answers.bufferBytes = bufferBytes;
        if (next == answers.chunks.size()) {
            return answers.last;
        }
        const Answers::Chunk& chunk = answers.chunks[next++];
        std::memcpy(buffer, chunk.bytes.data(), chunk.bytes.size());
        return chunk.elements;
    }
    [[nodiscard]] bool isBitmapMsbFirst() const override { return answers.msbFirst; }

private:
    Answers& answers;
    std::size_t next = 0;
};

Bytes bytesOf(const Words& words) {
    Bytes bytes(words.size() * sizeof(std::uint64_t));
    std::memcpy(bytes.data(), words.data(), bytes.size());
    return bytes;
}

class ExcluderTest : public testing::Test {
protected:
    UnusedBlockRangeExcluder unused(std::shared_ptr<const info::BackupableVolume> volume = volumeOf(4096)) {
        return {log.logger, std::move(volume), std::make_unique<ScriptedChunkProvider>(answers),
                BitRangeFinderFactory()};
    }

    UnchangedBlockRangeExcluder unchanged(std::uint32_t blockSize, std::uint64_t blockCount = 0) {
        return {log.logger,
                volumeOf(blockSize, blockCount),
                {"map", 0, 0, 0, 4711},
                std::make_unique<ScriptedChunkProvider>(answers),
                BitRangeFinderFactory()};
    }

    [[nodiscard]] std::vector<std::string> debugLines() const {
        std::vector<std::string> texts;
        for (const Line& line : log.lines()) {
            EXPECT_EQ(line.level, info::level::debug);
            texts.push_back(line.text);
        }
        return texts;
    }

    Answers answers;
    test::RecordingLogger log;
};

using UnusedBlockRangeExcluderTest = ExcluderTest;
using UnchangedBlockRangeExcluderTest = ExcluderTest;

constexpr const char* fetching =
    "Unused BRE for /mnt/data: Advanced to the last cached range - fetching more...";

std::string gotChunk(std::uint64_t blocks, std::uint64_t start) {
    return "Unused BRE for /mnt/data got a bitmap chunk to find ranges in next " + std::to_string(blocks) +
           " blocks starting at block " + std::to_string(start);
}

TEST_F(UnusedBlockRangeExcluderTest, ClearBitsAreExcludedChunkByChunk) {
    answers.chunks = {{{0xfe, 0x7f}, 16}, {{0xfe}, 8}, {{0xf3}, 6}};
    EXPECT_THAT(allOf(unused()),
                ElementsAre(BlockRange{0, 1}, BlockRange{15, 1}, BlockRange{16, 1}, BlockRange{26, 2}));
    EXPECT_THAT(answers.asked, ElementsAre(0, 16, 24, 30));
    EXPECT_EQ(answers.bufferBytes, 0x2800000U);
    EXPECT_THAT(debugLines(), ElementsAre(fetching, gotChunk(16, 0), fetching, gotChunk(8, 16), fetching,
                                          gotChunk(6, 24), fetching));
}

TEST_F(UnusedBlockRangeExcluderTest, OrderOfBitsIsAskedOfTheMap) {
    answers.msbFirst = true;
    answers.chunks = {{{0x7f}, 8}};
    EXPECT_THAT(allOf(unused()), ElementsAre(BlockRange{0, 1}));
}

TEST_F(UnusedBlockRangeExcluderTest, FullFileSystemIsFetchedToItsEnd) {
    answers.chunks = {{{0xff}, 8}, {{0xff}, 8}, {{0xff}, 3}};
    const UnusedBlockRangeExcluder excluder = unused();
    EXPECT_TRUE(excluder.begin() == excluder.end());
    EXPECT_THAT(answers.asked, ElementsAre(0, 8, 16, 19));
}

TEST_F(UnusedBlockRangeExcluderTest, NothingIsFetchedBeforeItIsNeeded) {
    answers.chunks = {{{0xfe}, 8}, {{0xfe}, 8}};
    const UnusedBlockRangeExcluder excluder = unused();
    EXPECT_THAT(answers.asked, IsEmpty());
    BlockRangeIterator iterator = excluder.begin();
    EXPECT_THAT(answers.asked, ElementsAre(0));
    EXPECT_TRUE(iterator != excluder.end());
    EXPECT_THAT(answers.asked, ElementsAre(0));
    ++iterator;
    EXPECT_THAT(answers.asked, ElementsAre(0, 8));
}

TEST_F(UnusedBlockRangeExcluderTest, FailureOfTheFirstFetchLeavesNoRanges) {
    answers.last = -1;
    const UnusedBlockRangeExcluder excluder = unused();
    EXPECT_TRUE(excluder.begin() == excluder.end());
    EXPECT_EQ(answers.asked.size(), 1U);
}

TEST_F(UnusedBlockRangeExcluderTest, FailureOfALaterFetchIsTheEnd) {
    answers.chunks = {{{0xfa}, 8}};
    answers.last = -5;
    EXPECT_THAT(allOf(unused()), ElementsAre(BlockRange{0, 1}, BlockRange{2, 1}));
    EXPECT_THAT(answers.asked, ElementsAre(0, 8));
}

TEST_F(UnusedBlockRangeExcluderTest, EndStaysTheEnd) {
    answers.chunks = {{{0xfe}, 8}};
    const UnusedBlockRangeExcluder excluder = unused();
    BlockRangeIterator iterator = excluder.begin();
    ++iterator;
    ++iterator;
    EXPECT_TRUE(iterator == excluder.end());
    EXPECT_THAT(answers.asked, ElementsAre(0, 8));
    EXPECT_EQ(test::messageOf<std::out_of_range>([&] { (void)*iterator; }),
              "Tried to get past-the-end of Unused BRE for /mnt/data");
}

TEST_F(UnusedBlockRangeExcluderTest, CopiesAdvanceOnTheirOwn) {
    answers.chunks = {{{0xf5}, 8}, {{0xfe}, 8}};
    const UnusedBlockRangeExcluder excluder = unused();
    test::expectCopiesAdvanceAlone(ChunkedBitmapBlockRangeExcluder::iterator(excluder), {1, 1}, {3, 1},
                                   {8, 1});
}

TEST_F(UnusedBlockRangeExcluderTest, MapWithoutEndEndsWithTheVolume) {
    answers.chunks.assign(100, {{0xff}, 8});
    EXPECT_THAT(allOf(unused(volumeOf(4096, 20))), IsEmpty());
    EXPECT_THAT(answers.asked, ElementsAre(0, 8, 16, 24));
}

TEST_F(UnusedBlockRangeExcluderTest, MoreElementsThanTheBufferHoldsAreAFailure) {
    answers.chunks = {{{0xfe}, 8}, {{0xfe}, 0x2800000LL * 8 + 1}, {{0xfe}, 8}};
    EXPECT_THAT(allOf(unused()), ElementsAre(BlockRange{0, 1}));
    EXPECT_THAT(answers.asked, ElementsAre(0, 8));
}

TEST_F(UnusedBlockRangeExcluderTest, VolumeNeedsNoMountPointForItsName) {
    EXPECT_EQ(unused().name(), "Unused BRE for /mnt/data");
    const auto nowhere = std::make_shared<info::BackupableVolume>(info::VolumeDescription());
    EXPECT_EQ(unused(nowhere).name(), "Unused BRE for ");
    EXPECT_EQ(unused(nowhere).size(), 0U);
}

TEST_F(UnusedBlockRangeExcluderTest, SizeIsTheSpaceThatIsFree) {
    class HalfFree : public info::BackupableVolume {
    public:
        explicit HalfFree(info::VolumeDescription description) : BackupableVolume(std::move(description)) {}
        [[nodiscard]] std::uint64_t getSpaceFree() const override { return 10'000; }
    };
    info::VolumeDescription description;
    description.blockSize = 1024;
    EXPECT_EQ(unused(std::make_shared<HalfFree>(description)).size(), 9U);
}

TEST_F(UnchangedBlockRangeExcluderTest, ZeroWordsAreExcluded) {
    answers.chunks = {{bytesOf({0, 0, 1, 0, 7}), 5}, {bytesOf({0, 9}), 2}};
    EXPECT_THAT(allOf(unchanged(4096)), ElementsAre(BlockRange{0, 2}, BlockRange{3, 1}, BlockRange{5, 1}));
    EXPECT_THAT(answers.asked, ElementsAre(0, 5, 7));
    EXPECT_EQ(answers.bufferBytes, 0x100000U);
}

TEST_F(UnchangedBlockRangeExcluderTest, SmallBlocksShareAUnit) {
    answers.chunks = {{bytesOf({0, 1, 0}), 3}, {bytesOf({0, 1}), 2}};
    EXPECT_THAT(allOf(unchanged(1024)), ElementsAre(BlockRange{0, 4}, BlockRange{8, 4}, BlockRange{12, 4}));
}

TEST_F(UnchangedBlockRangeExcluderTest, LargeBlocksNeedAllOfTheirUnits) {
    answers.chunks = {{bytesOf({0, 0, 0, 1, 1, 0, 0, 0}), 8}, {bytesOf({0, 0, 1, 0}), 4}};
    EXPECT_THAT(allOf(unchanged(8192)),
                ElementsAre(BlockRange{0, 1}, BlockRange{3, 1}, BlockRange{4, 1}, BlockRange{6, 0}));
}

TEST_F(UnchangedBlockRangeExcluderTest, BlocksThatDoNotFitTheUnitsAreAllCopied) {
    for (const std::uint32_t blockSize : {0U, 3000U, 6144U}) {
        answers.chunks = {{bytesOf({0, 0, 1, 0}), 4}};
        std::vector<std::unique_ptr<IBlockRangeProvider>> excluders;
        excluders.push_back(std::make_unique<UnchangedBlockRangeExcluder>(
            log.logger, volumeOf(blockSize), IncrementalBitmapInfo(),
            std::make_unique<ScriptedChunkProvider>(answers), BitRangeFinderFactory()));
        const auto included = BlockRangeProviderFactory(log.logger, volumeOf(blockSize))
                                  .createIncludedProvider(std::move(excluders), 50);
        EXPECT_THAT(allOf(*included), ElementsAre(BlockRange{0, 50})) << blockSize;
    }
}

TEST_F(UnchangedBlockRangeExcluderTest, MapWithoutEndEndsWithTheVolume) {
    answers.chunks.assign(100, {bytesOf({1, 1}), 2});
    EXPECT_THAT(allOf(unchanged(1024, 17)), IsEmpty());
    EXPECT_THAT(answers.asked, ElementsAre(0, 2, 4, 6));
}

TEST_F(UnchangedBlockRangeExcluderTest, SizeAndNameAreKnownBeforehand) {
    EXPECT_EQ(unchanged(4096).size(), 4711U);
    EXPECT_EQ(unchanged(4096).name(), "Unchanged BRE");
}

class FactoryTest : public testing::Test {
protected:
    /// The ranges of a volume of `total` blocks that are copied if only the bitmap of changes excludes
    /// blocks.
    std::vector<BlockRange> changed(const Words& map, std::uint64_t entries, std::uint64_t total) {
        test::writeFile(directory / "map", std::string(100, 'x') + asText(map));
        const BlockRangeProviderFactory factory(log.logger, volumeOf(4096, total));
        std::vector<std::unique_ptr<IBlockRangeProvider>> excluders;
        excluders.push_back(
            factory.createUnchangedExcluder({(directory / "map").str(), 100, entries * 8, entries, 0}));
        return allOf(*factory.createChunkProvider(factory.createIncludedProvider(std::move(excluders), total),
                                                  1'000'000));
    }

    static std::string asText(const Words& words) {
        const Bytes bytes = bytesOf(words);
        return {bytes.begin(), bytes.end()};
    }

    test::TestDirectory directory;
    test::RecordingLogger log;
};

TEST_F(FactoryTest, MapOfZerosCopiesNothing) {
    EXPECT_THAT(changed(Words(300'000), 300'000, 300'000), IsEmpty());
}

TEST_F(FactoryTest, MapWithoutZerosCopiesAll) {
    EXPECT_THAT(changed(Words(300'000, 1), 300'000, 300'000), ElementsAre(BlockRange{0, 300'000}));
}

TEST_F(FactoryTest, BlocksBehindAShortMapAreCopied) {
    Words map(200'000);
    map[131'072] = 5;
    EXPECT_THAT(changed(map, 300'000, 300'000),
                ElementsAre(BlockRange{131'072, 1}, BlockRange{200'000, 100'000}));
    EXPECT_TRUE(log.has(info::level::info, "Incremental bitmap read request: 131072, Data read: 68928"));
    EXPECT_TRUE(log.has(info::level::info, "Incremental bitmap read request: 100000, Data read: 0"));
}

TEST_F(FactoryTest, SizedExcludersDoNotCount) {
    Answers answers;
    const BlockRangeProviderFactory factory(log.logger, volumeOf(4096));
    const std::string path = directory / "file";
    test::writeFile(path, std::string(10'000, 'x'));
    EXPECT_EQ(factory.createFileExcluder(path, false)->size(), 3U);
    EXPECT_EQ(factory.createFileExcluder(path, true)->size(), 0U);
    EXPECT_EQ(factory.createFileExcluder(path, true)->name(), "File Block Range Excluder (\"" + path + "\")");
    const auto excluder =
        factory.createUnusedExcluder(std::make_unique<ScriptedChunkProvider>(answers), true);
    EXPECT_EQ(excluder->size(), 0U);
    EXPECT_EQ(excluder->name(), "Unused BRE for /mnt/data");
    EXPECT_TRUE(excluder->begin() == excluder->end());
    EXPECT_NE(
        dynamic_cast<const UnusedBlockRangeExcluder*>(
            factory.createUnusedExcluder(std::make_unique<ScriptedChunkProvider>(answers), false).get()),
        nullptr);
}

TEST_F(FactoryTest, SizeNeedsABase) {
    EXPECT_EQ(test::messageOf<std::invalid_argument>([] { SizedBlockRangeProvider(nullptr, 0); }),
              "SizedBlockRangeProvider requires a base");
}

TEST_F(FactoryTest, ChunksNeedRoomForABlock) {
    const BlockRangeProviderFactory factory(log.logger, volumeOf(4096));
    EXPECT_EQ(test::messageOf<std::invalid_argument>([&] { (void)factory.createChunkProvider(nullptr, 0); }),
              "Invalid max blocks per chunk!");
}

} // namespace
} // namespace agent::core::block
