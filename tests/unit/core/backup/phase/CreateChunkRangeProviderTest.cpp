#include "core/backup/phase/CreateChunkRangeProvider.h"

#include "support/FixedBitmap.h"
#include "support/FixedRanges.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/ReferenceRanges.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <unistd.h>

namespace agent::core::backup::phase {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t totalBlocks = 100;

std::string sizedText(bool sized) {
    return sized ? " sized" : "";
}

/// Records the layers that were requested, in order. Each layer excludes one block: the first layer block 10,
/// the second block 20 and so on.
class RecordingRanges : public block::BlockRangeProviderFactory {
public:
    using BlockRangeProviderFactory::BlockRangeProviderFactory;

    [[nodiscard]] ProviderPointer createFileExcluder(const std::string& path, bool sized) const override {
        return keep("file " + path + sizedText(sized));
    }
    [[nodiscard]] ProviderPointer
    createUnchangedExcluder(const block::IncrementalBitmapInfo& bitmapInfo) const override {
        return keep("unchanged by " + bitmapInfo.fileName);
    }
    [[nodiscard]] ProviderPointer
    createUnusedExcluder(std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider,
                         bool sized) const override {
        return keep((chunkProvider ? "unused" : "unused by nobody") + sizedText(sized));
    }

    mutable std::vector<std::string> layers;

private:
    ProviderPointer keep(const std::string& layer) const {
        layers.push_back(layer);
        return std::make_unique<test::FixedRanges>(std::vector<BlockRange>{{10 * layers.size(), 1}});
    }
};

/// Recognizes every file system, or none.
class AnyFileSystem : public fs::UsedBlockBitmapChunkProviderFactory {
public:
    explicit AnyFileSystem(info::Logger& logger)
        : UsedBlockBitmapChunkProviderFactory(logger, 512, nullptr) {}

    std::unique_ptr<fs::IBlockBitmapChunkProvider> create() override {
        ++asked;
        return recognizes ? std::make_unique<test::FixedBitmap>(std::vector<bool>()) : nullptr;
    }

    bool recognizes = true;
    int asked = 0;
};

class CreateChunkRangeProviderTest : public testing::Test {
protected:
    /// Creates a file at the root of the snapshot.
    std::string file(const std::string& name) {
        test::writeFile(directory / name, "");
        return directory / name;
    }

    void run(bool isIncremental) {
        CreateChunkRangeProvider phase(
            {incrementalBitmap, excludedFiles, totalBlocks, isIncremental, isWhole}, provider, ranges,
            fileSystems, maxBlocksPerChunk);
        EXPECT_EQ(phase.getName(), "Create Chunk Range Provider");
        phase.execute();
    }

    test::TestDirectory directory;
    test::RecordingLogger log;
    block::IncrementalBitmapInfo incrementalBitmap;
    std::vector<std::string> excludedFiles;
    bool isWhole = false;
    RecordingRanges ranges{log.logger, std::make_shared<info::BackupableVolume>(info::VolumeDescription{})};
    AnyFileSystem fileSystems{log.logger};
    std::uint64_t maxBlocksPerChunk = 1024;
    CreateChunkRangeProvider::ProviderPointer provider;
};

TEST_F(CreateChunkRangeProviderTest, WholeCopyLeavesOutFilesAndUnusedBlocks) {
    excludedFiles = {file(".tolvu"), file(".tolvu1"), file(".tolvu.inc")};
    incrementalBitmap.fileName = "/mnt/.tolvu1";
    run(false);
    EXPECT_THAT(ranges.layers, ElementsAre("file " + excludedFiles[0], "file " + excludedFiles[1],
                                           "file " + excludedFiles[2], "unused"));
    EXPECT_EQ(fileSystems.asked, 1);
    EXPECT_EQ(provider->size(), totalBlocks - 4);
}

TEST_F(CreateChunkRangeProviderTest, IncrementalCopyLeavesOutTheUnchangedBlocksToo) {
    excludedFiles = {file(".tolvu"), file(".tolvu1"), file(".tolvu.inc")};
    incrementalBitmap.fileName = "/mnt/.tolvu1";
    run(true);
    EXPECT_THAT(ranges.layers,
                ElementsAre("file " + excludedFiles[0] + " sized", "file " + excludedFiles[1],
                            "file " + excludedFiles[2], "unchanged by /mnt/.tolvu1", "unused sized"));
}

TEST_F(CreateChunkRangeProviderTest, OtherCowFileIsTheOneThatTheChangesAreNotReadFrom) {
    excludedFiles = {file(".tolvu"), file(".tolvu1")};
    incrementalBitmap.fileName = "/another/place/.tolvu";
    run(true);
    EXPECT_EQ(ranges.layers[0], "file " + excludedFiles[0]);
    EXPECT_EQ(ranges.layers[1], "file " + excludedFiles[1] + " sized");
}

TEST_F(CreateChunkRangeProviderTest, FilesOfOtherNamesAreNoCowFiles) {
    excludedFiles = {file("a.tolvu"), file(".tolvu12"), file(".tolvu.inc")};
    incrementalBitmap.fileName = ".tolvu1";
    run(true);
    EXPECT_THAT(ranges.layers,
                ElementsAre("file " + excludedFiles[0], "file " + excludedFiles[1],
                            "file " + excludedFiles[2], "unchanged by .tolvu1", "unused sized"));
}

TEST_F(CreateChunkRangeProviderTest, FileThatIsNotThereHasNoExcluder) {
    excludedFiles = {file(".tolvu"), file(".tolvu1"), directory / ".tolvu.inc"};
    run(false);
    EXPECT_THAT(ranges.layers, ElementsAre("file " + excludedFiles[0], "file " + excludedFiles[1], "unused"));
}

TEST_F(CreateChunkRangeProviderTest, WholeVolumeLeavesOutNothing) {
    excludedFiles = {file(".tolvu"), file(".tolvu1")};
    incrementalBitmap.fileName = "/mnt/.tolvu1";
    isWhole = true;
    run(false);
    EXPECT_THAT(ranges.layers, IsEmpty());
    run(true);
    EXPECT_THAT(ranges.layers, IsEmpty());
}

TEST_F(CreateChunkRangeProviderTest, LinkToNowhereIsAFile) {
    excludedFiles = {directory / ".tolvu"};
    ASSERT_EQ(::symlink("nowhere", excludedFiles[0].c_str()), 0);
    run(false);
    EXPECT_THAT(ranges.layers, ElementsAre("file " + excludedFiles[0], "unused"));
}

TEST_F(CreateChunkRangeProviderTest, VolumeThatIsNotRecognizedAnyMoreIsCopiedWithItsUnusedBlocks) {
    fileSystems.recognizes = false;
    run(false);
    EXPECT_THAT(ranges.layers, IsEmpty());
    EXPECT_THAT(test::allOf(*provider), ElementsAre(BlockRange{0, totalBlocks}));
}

TEST_F(CreateChunkRangeProviderTest, WhatIsLeftComesInChunks) {
    maxBlocksPerChunk = 40;
    excludedFiles = {file(".tolvu")};
    run(false);
    EXPECT_THAT(test::allOf(*provider),
                ElementsAre(BlockRange{0, 10}, BlockRange{11, 9}, BlockRange{21, 40}, BlockRange{61, 39}));
}

TEST_F(CreateChunkRangeProviderTest, ChunksOfNothingAreRefused) {
    maxBlocksPerChunk = 0;
    EXPECT_EQ(test::messageOf<std::invalid_argument>([&] { run(false); }), "Invalid max blocks per chunk!");
    EXPECT_FALSE(provider);
}

} // namespace
} // namespace agent::core::backup::phase
