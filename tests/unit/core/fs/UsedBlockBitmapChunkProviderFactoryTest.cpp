#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"

#include "core/fs/ext/EXTParser.h"
#include "core/fs/hfs/HFSParser.h"
#include "core/fs/ntfs/NTFSParser.h"
#include "core/fs/xfs/XFSParser.h"
#include "support/ExtImage.h"
#include "support/HfsImage.h"
#include "support/MemoryVolume.h"
#include "support/NtfsImage.h"
#include "support/RecordingLogger.h"
#include "support/XfsImage.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace agent::core::fs {
namespace {

class UsedBlockBitmapChunkProviderFactoryTest : public testing::Test {
protected:
    std::unique_ptr<IBlockBitmapChunkProvider> create(IVolumeReader& volume) {
        return UsedBlockBitmapChunkProviderFactory(record.logger, 512, &volume).create();
    }

    test::RecordingLogger record;
};

TEST_F(UsedBlockBitmapChunkProviderFactoryTest, MakesAParserThatIsReady) {
    test::ExtImage image({.blockCount = 1000});
    const auto provider = create(image.volume);
    ASSERT_NE(dynamic_cast<EXTParser*>(provider.get()), nullptr);
    EXPECT_EQ(record.lines(),
              (std::vector<test::RecordingLogger::Line>{{info::level::debug, "Creating EXT Parser."}}));
    std::vector<std::uint8_t> buffer(125);
    EXPECT_EQ(provider->getBitmapChunk(0, buffer.data(), buffer.size()), 1000);
    EXPECT_FALSE(provider->isBitmapMsbFirst());
}

TEST_F(UsedBlockBitmapChunkProviderFactoryTest, MakesAParserOfXfs) {
    test::XfsImage image({});
    const auto provider = create(image.volume);
    EXPECT_NE(dynamic_cast<XFSParser*>(provider.get()), nullptr);
    EXPECT_TRUE(record.has(info::level::debug, "Creating XFS Parser."));
}

TEST_F(UsedBlockBitmapChunkProviderFactoryTest, MakesAParserOfNtfsBeforeAllOthers) {
    test::NtfsImage image({});
    image.volume.writeLittle(1024 + 56, 0xEF53, 2);
    EXPECT_NE(dynamic_cast<NTFSParser*>(create(image.volume).get()), nullptr);
    EXPECT_TRUE(record.has(info::level::debug, "Creating NTFS Parser."));
    EXPECT_FALSE(record.has(info::level::debug, "Creating EXT Parser."));
}

TEST_F(UsedBlockBitmapChunkProviderFactoryTest, TheFirstThatKnowsTheVolumeIsTaken) {
    test::XfsImage image({});
    image.volume.writeLittle(1024 + 56, 0xEF53, 2);
    EXPECT_NE(dynamic_cast<EXTParser*>(create(image.volume).get()), nullptr);
    EXPECT_FALSE(record.has(info::level::debug, "Creating XFS Parser."));
}

TEST_F(UsedBlockBitmapChunkProviderFactoryTest, UnknownFileSystemHasNoParser) {
    test::MemoryVolume volume(1024UL * 1024);
    EXPECT_EQ(create(volume), nullptr);
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(UsedBlockBitmapChunkProviderFactoryTest, MakesAParserOfHfs) {
    test::HfsImage image({});
    const auto provider = create(image.volume);
    EXPECT_NE(dynamic_cast<HFSParser*>(provider.get()), nullptr);
    EXPECT_TRUE(record.has(info::level::debug, "Creating HFS Parser."));
    EXPECT_TRUE(provider->isBitmapMsbFirst());
}

TEST_F(UsedBlockBitmapChunkProviderFactoryTest, TellsOfHfsWithItsHeaderElsewhere) {
    test::HfsImage image({});
    image.copyHeader();
    image.set(0, 0, 2);
    UsedBlockBitmapChunkProviderFactory factory(record.logger, 512, &image.volume);
    EXPECT_EQ(factory.create(), nullptr);
    EXPECT_EQ(factory.nearMiss(), "its HFS+ header is at byte 1024, and HFS+ is known by one at byte 0 only");
    image.volume.writeBig(1024, 0, 2);
    EXPECT_EQ(factory.nearMiss(), "");
}

TEST_F(UsedBlockBitmapChunkProviderFactoryTest, EmptyDeviceHasNoParser) {
    test::MemoryVolume volume(0);
    EXPECT_EQ(create(volume), nullptr);
    EXPECT_TRUE(record.has(info::level::error, "Can't read ntfs boot sector"));
    EXPECT_TRUE(record.has(info::level::error, "Could not read EXT super block."));
    EXPECT_TRUE(record.has(info::level::error, "Can't read super block."));
}

} // namespace
} // namespace agent::core::fs
