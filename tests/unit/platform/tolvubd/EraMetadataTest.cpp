#include "era/EraMetadata.h"

#include "EraImage.h"
#include "ExpectedError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {
namespace {

using enum EraMetadata::View;
using test::EraImage;

std::string eras(const std::string& content) {
    return "<era_array>\n" + content + "</era_array>\n";
}

std::string writtenIn(std::uint32_t era, std::uint64_t block) {
    return "<era block=\"" + std::to_string(block) + "\" era=\"" + std::to_string(era) + "\"/>\n";
}

/// The XML of a writeset, of an era that the era array doesn't contain yet.
std::string writeset(std::uint32_t era, std::uint64_t bits, const std::vector<std::uint64_t>& blocks) {
    std::string text =
        "<writeset era=\"" + std::to_string(era) + "\" nr_bits=\"" + std::to_string(bits) + "\">\n";
    for (const std::uint64_t block : blocks) {
        text += "<bit block=\"" + std::to_string(block) + "\" value=\"true\"/>\n";
    }
    return text + "</writeset>\n";
}

/// XML in which the blocks were written in the eras 0 to 5 in turns. The eras 6 and 7 are still writesets,
/// not in the array.
std::string severalEras(std::uint64_t blocks) {
    std::string array;
    for (std::uint64_t block = 0; block < blocks; ++block) {
        array += writtenIn(static_cast<std::uint32_t>(block % 6), block);
    }
    return writeset(6, blocks, {0}) + writeset(7, blocks, {blocks - 1, blocks / 2}) + eras(array);
}

int errorOfReading(const EraImage& image, EraMetadata::View view = current) {
    return test::errorOf([&] { static_cast<void>(image.writtenSince(0, view)); });
}

std::int64_t count(const std::vector<bool>& flags) {
    return std::count(flags.begin(), flags.end(), true);
}

TEST(EraMetadata, HasTheSizesOfTheVolume) {
    const EraImage image(3000, 2, eras(""));
    EXPECT_EQ(image.writtenSince(1, current), std::vector<bool>(3000));
    EXPECT_EQ(count(image.writtenSince(0, current)), 3000);
}

TEST(EraMetadata, AgreesWithTheToolsInEveryEra) {
    const EraImage image(5000, 8, severalEras(5000));
    for (std::uint32_t first = 0; first < 10; ++first) {
        EXPECT_EQ(image.writtenSince(first, current), image.writtenSinceByTool(first, current)) << first;
    }
    EXPECT_EQ(count(image.writtenSince(6, current)), 3);
    EXPECT_EQ(count(image.writtenSince(7, current)), 2);
}

/// An array block holds 1018 eras or 509 words of bits, and a B-tree node holds 252 block numbers.
class EraMetadataOfSize : public testing::TestWithParam<std::uint64_t> {};

TEST_P(EraMetadataOfSize, AgreesWithTheTools) {
    const std::uint64_t blocks = GetParam();
    const std::string content = writeset(3, blocks, {blocks - 1}) + eras(writtenIn(2, blocks / 2));
    const EraImage image(blocks, 5, content, static_cast<int>(blocks / 128 + 256));
    for (std::uint32_t first = 1; first < 5; ++first) {
        const std::vector<bool> written = image.writtenSince(first, current);
        EXPECT_EQ(written, image.writtenSinceByTool(first, current)) << first;
        EXPECT_EQ(written[blocks - 1], first <= 3);
        EXPECT_EQ(written.size(), blocks);
    }
}

INSTANTIATE_TEST_SUITE_P(AtBoundaries, EraMetadataOfSize,
                         testing::Values(1, 63, 64, 65, 1017, 1018, 1019, 2036, 2037, 64 * 509, 64 * 509 + 1,
                                         252 * 1018, 252 * 1018 + 1));

/// Metadata as the kernel wrote it while a metadata snapshot was held, with a writeset that the array didn't
/// contain yet. The other image is from after the target was closed, which ends the current era.
class EraMetadataOfKernel : public testing::Test {
protected:
    static EraImage image(const std::string& name) {
        return EraImage(std::string(BEKD_ERA_IMAGES) + "/" + name + ".img.zst");
    }
};

TEST_F(EraMetadataOfKernel, HasWhatTheSnapshotHolds) {
    const EraImage live = image("kernel-live");
    for (const std::uint32_t first : {1U, 4U, 5U, 6U}) {
        EXPECT_EQ(live.writtenSince(first, snapshot), live.writtenSinceByTool(first, snapshot)) << first;
    }
    EXPECT_EQ(count(live.writtenSince(5, snapshot)), 65) << "those of the era that isn't in the array";
    EXPECT_EQ(count(live.writtenSince(6, snapshot)), 0);
}

TEST_F(EraMetadataOfKernel, HasWhatTheCurrentEraHasWritten) {
    const EraImage live = image("kernel-live");
    const EraImage closed = image("kernel-closed");
    for (const std::uint32_t first : {1U, 5U, 6U, 7U}) {
        const std::vector<bool> byTool = closed.writtenSinceByTool(first, current);
        EXPECT_EQ(closed.writtenSince(first, current), byTool) << first;
        EXPECT_EQ(live.writtenSince(first, current), byTool) << first;
    }
    EXPECT_EQ(count(closed.writtenSince(6, current)), 9);
}

TEST_F(EraMetadataOfKernel, HasNoSnapshotThatNobodyHolds) {
    EXPECT_EQ(errorOfReading(image("kernel-closed"), snapshot), EBADMSG);
}

bool wasStopped(const std::string& superblock) {
    return wasEraShutDown(std::as_bytes(std::span<const char, era::blockSize>(superblock)));
}

TEST_F(EraMetadataOfKernel, TellsThatTheTargetWasStoppedInOrder) {
    EXPECT_FALSE(wasStopped(image("kernel-live").blockAt(0)));
    EXPECT_TRUE(wasStopped(image("kernel-closed").blockAt(0)));
}

TEST_F(EraMetadataOfKernel, TellsNothingOfTheTargetWhenDamaged) {
    const std::string sound = image("kernel-live").blockAt(0);
    for (std::size_t offset = 0; offset < sound.size(); ++offset) {
        std::string damaged = sound;
        damaged[offset] = static_cast<char>(~damaged[offset]);
        EXPECT_EQ(test::errorOf([&] { wasStopped(damaged); }), EBADMSG) << offset;
    }
}

/// Small enough to damage every part of it: two blocks of eras and two writesets.
class DamagedEraMetadata : public testing::Test {
protected:
    static constexpr std::uint64_t volumeBlocks = 1500;
    static constexpr std::uint64_t oneBlock = era::blockSize;

    [[nodiscard]] std::uint64_t eraRoot() const {
        return image.number<std::uint64_t>(0, era::superblock::eraArrayOffset);
    }
    [[nodiscard]] std::uint64_t setsRoot() const {
        return image.number<std::uint64_t>(0, era::superblock::writesetTreeOffset);
    }
    /// The offset at which the B-tree of the eras stores the number of an array block. Its root is its only
    /// node.
    [[nodiscard]] std::size_t valueOffset(std::size_t entry) const {
        const auto room = image.number<std::uint32_t>(eraRoot(), era::node::mostEntriesOffset);
        return era::node::keysOffset + (room + entry) * sizeof(std::uint64_t);
    }
    [[nodiscard]] std::uint64_t eraBlock(std::size_t entry) const {
        return image.number<std::uint64_t>(eraRoot(), valueOffset(entry));
    }
    template <class Number>
    void putIntoSuperblock(std::size_t offset, Number value) {
        image.put(0, era::superblock::kind, offset, value);
    }
    template <class Number>
    void putIntoEraRoot(std::size_t offset, Number value) {
        image.put(eraRoot(), era::node::kind, offset, value);
    }
    template <class Number>
    void putIntoEraBlock(std::size_t entry, std::size_t offset, Number value) {
        image.put(eraBlock(entry), era::array::kind, offset, value);
    }
    void expectEachFlipFound(std::uint64_t block, std::size_t bytes) {
        for (std::size_t offset = 0; offset < bytes; ++offset) {
            image.flip(block, offset);
            EXPECT_EQ(errorOfReading(image), EBADMSG) << block << ", " << offset;
            image.flip(block, offset);
        }
    }

    EraImage image{volumeBlocks, 8, severalEras(volumeBlocks), 128};
    const std::vector<bool> whole = image.writtenSince(4, current);
};

TEST_F(DamagedEraMetadata, IsRefusedWithAnyByteOfItsSuperblockChanged) {
    expectEachFlipFound(0, era::blockSize);
}

TEST_F(DamagedEraMetadata, IsRefusedWithAnyByteOfANodeChanged) {
    expectEachFlipFound(eraRoot(), era::blockSize);
    expectEachFlipFound(setsRoot(), era::blockSize);
}

TEST_F(DamagedEraMetadata, IsRefusedWithAByteOfAnArrayChanged) {
    for (const std::size_t entry : {0, 1}) {
        expectEachFlipFound(eraBlock(entry), 64);
        image.flip(eraBlock(entry), era::blockSize - 1);
        EXPECT_EQ(errorOfReading(image), EBADMSG);
        image.flip(eraBlock(entry), era::blockSize - 1);
    }
}

TEST_F(DamagedEraMetadata, EndsInAnErrorOrInTheSameSetWhateverBlockIsDamaged) {
    std::uint64_t refused = 0;
    for (std::uint64_t block = 0; block < image.blocks(); ++block) {
        image.flip(block, 2000);
        if (errorOfReading(image) == EBADMSG) {
            ++refused;
        } else {
            EXPECT_EQ(image.writtenSince(4, current), whole) << block;
        }
        image.flip(block, 2000);
    }
    EXPECT_EQ(refused, 9U)
        << "the superblock, two trees with two and two blocks, and the roots of the two sets";
}

TEST_F(DamagedEraMetadata, IsRefusedWhereAnythingOfItIsCutOff) {
    std::uint64_t needed = 0;
    for (std::uint64_t blocks = 0; blocks <= image.blocks(); ++blocks) {
        const int error =
            test::errorOf([&] { static_cast<void>(image.writtenSince(4, current, blocks * oneBlock)); });
        if (error != 0) {
            EXPECT_EQ(error, EBADMSG) << blocks;
            EXPECT_EQ(needed, blocks) << "nothing is missing any more, but something is wrong";
            needed = blocks + 1;
        }
    }
    EXPECT_GT(needed, std::max({eraRoot(), setsRoot(), eraBlock(0), eraBlock(1)}));
    EXPECT_LE(needed, image.blocks());
    image.cut(needed * oneBlock - 1);
    EXPECT_EQ(errorOfReading(image), EBADMSG) << "the device is shorter than was said";
}

TEST_F(DamagedEraMetadata, IsRefusedWithASuperblockOfAnotherFormat) {
    putIntoSuperblock(era::superblock::magicOffset, era::superblock::magic + 1);
    EXPECT_EQ(errorOfReading(image), EBADMSG);
    putIntoSuperblock(era::superblock::magicOffset, era::superblock::magic);
    putIntoSuperblock(era::superblock::versionOffset, era::superblock::version + 1);
    EXPECT_EQ(errorOfReading(image), EBADMSG);
    putIntoSuperblock(era::superblock::versionOffset, era::superblock::version);
    for (const std::uint32_t sectors : {0U, 4U, 12U}) {
        putIntoSuperblock(era::superblock::dataBlockSizeOffset, sectors);
        EXPECT_EQ(errorOfReading(image), EBADMSG) << sectors;
    }
    putIntoSuperblock(era::superblock::dataBlockSizeOffset, 24U);
    EXPECT_EQ(image.writtenSince(4, current), whole);
}

TEST_F(DamagedEraMetadata, IsRefusedWithAnotherCountOfBlocks) {
    for (const std::uint32_t blocks : {0U, 1U, 1018U, 1499U, 1501U, 2037U, ~0U}) {
        putIntoSuperblock(era::superblock::blocksOffset, blocks);
        EXPECT_EQ(errorOfReading(image), EBADMSG) << blocks;
    }
}

TEST_F(DamagedEraMetadata, IsRefusedWithRootsThatAreNone) {
    const std::vector<std::uint64_t> places = {0, setsRoot(), eraBlock(0), image.blocks(), ~std::uint64_t{0}};
    for (const std::uint64_t place : places) {
        putIntoSuperblock(era::superblock::eraArrayOffset, place);
        EXPECT_EQ(errorOfReading(image), EBADMSG) << place;
    }
}

TEST_F(DamagedEraMetadata, IsRefusedWithAHeldSnapshotThatIsNone) {
    for (const std::uint64_t place : {eraRoot(), image.blocks(), ~std::uint64_t{0}, std::uint64_t{0}}) {
        putIntoSuperblock(era::superblock::heldSnapshotOffset, place);
        EXPECT_EQ(errorOfReading(image, snapshot), EBADMSG) << place;
    }
    EXPECT_EQ(image.writtenSince(4, current), whole);
}

TEST_F(DamagedEraMetadata, IsRefusedWithAnImpossibleNode) {
    const std::string before = image.blockAt(eraRoot());
    const std::vector<std::pair<std::size_t, std::uint32_t>> changes = {
        {era::node::flagsOffset, 0},         {era::node::flagsOffset, 3},
        {era::node::entriesOffset, 1},       {era::node::entriesOffset, 253},
        {era::node::entriesOffset, ~0U},     {era::node::mostEntriesOffset, 255},
        {era::node::mostEntriesOffset, ~0U}, {era::node::mostEntriesOffset, 1},
        {era::node::valueSizeOffset, 4},     {era::node::valueSizeOffset, 0},
    };
    for (const auto& [offset, value] : changes) {
        putIntoEraRoot(offset, value);
        EXPECT_EQ(errorOfReading(image), EBADMSG) << offset << ", " << value;
        image.putBlock(eraRoot(), era::node::kind, before);
    }
    EXPECT_EQ(image.writtenSince(4, current), whole);
}

TEST_F(DamagedEraMetadata, IsRefusedWithABlockOfAnArrayTwiceOrTooMany) {
    const std::size_t secondKey = era::node::keysOffset + sizeof(std::uint64_t);
    for (const std::uint64_t key : {std::uint64_t{0}, std::uint64_t{2}, ~std::uint64_t{0}}) {
        putIntoEraRoot(secondKey, key);
        EXPECT_EQ(errorOfReading(image), EBADMSG) << key;
    }
    putIntoEraRoot(secondKey, std::uint64_t{1});
    const std::uint64_t second = eraBlock(1);
    for (const std::uint64_t place : {eraBlock(0), eraRoot(), image.blocks(), ~std::uint64_t{0}}) {
        putIntoEraRoot(valueOffset(1), place);
        EXPECT_EQ(errorOfReading(image), EBADMSG) << place;
    }
    putIntoEraRoot(valueOffset(1), second);
    EXPECT_EQ(image.writtenSince(4, current), whole);
}

TEST_F(DamagedEraMetadata, IsRefusedWithAnImpossibleBlockOfAnArray) {
    const std::string before = image.blockAt(eraBlock(1));
    for (const std::size_t offset :
         {era::array::entriesOffset, era::array::mostEntriesOffset, era::array::valueSizeOffset}) {
        const auto right = image.number<std::uint32_t>(eraBlock(1), offset);
        for (const std::uint32_t value : {right - 1, right + 1, 0U, ~0U}) {
            putIntoEraBlock(1, offset, value);
            EXPECT_EQ(errorOfReading(image), EBADMSG) << offset << ", " << value;
        }
        image.putBlock(eraBlock(1), era::array::kind, before);
    }
    EXPECT_EQ(image.writtenSince(4, current), whole);
}

TEST_F(DamagedEraMetadata, EndsWhereATreeHasACycle) {
    putIntoEraRoot(era::node::flagsOffset, era::node::isInternal);
    putIntoEraRoot(era::node::entriesOffset, 1U);
    putIntoEraRoot(valueOffset(0), eraRoot());
    EXPECT_EQ(errorOfReading(image), EBADMSG);
}

/// Adds nodes with one child each above the former root.
TEST_F(DamagedEraMetadata, MayBeEightLevelsDeepButNotNine) {
    std::uint64_t child = eraRoot();
    std::uint64_t place = image.blocks();
    for (int levels = 2; levels <= 9; ++levels) {
        image.putBlock(--place, era::node::kind, image.blockAt(eraRoot()));
        image.put(place, era::node::kind, era::node::flagsOffset, era::node::isInternal);
        image.put(place, era::node::kind, era::node::entriesOffset, 1U);
        image.put(place, era::node::kind, valueOffset(0), child);
        child = place;
        putIntoSuperblock(era::superblock::eraArrayOffset, place);
        EXPECT_EQ(errorOfReading(image), levels <= 8 ? 0 : EBADMSG) << levels;
    }
}

TEST_F(DamagedEraMetadata, HasNoBitsBehindTheVolume) {
    const std::uint32_t first = 7;
    const auto room = image.number<std::uint32_t>(setsRoot(), era::node::mostEntriesOffset);
    const std::size_t secondSet = era::node::keysOffset + room * sizeof(std::uint64_t) + era::writeset::size;
    for (const std::uint32_t bits : {1U, 1536U, 1537U, ~0U}) {
        image.put(setsRoot(), era::node::kind, secondSet, bits);
        const bool isAsLarge = bits == 1536;
        EXPECT_EQ(test::errorOf([&] { static_cast<void>(image.writtenSince(first, current)); }),
                  isAsLarge ? 0 : EBADMSG)
            << bits;
    }
    image.put(setsRoot(), era::node::kind, secondSet, 1536U);
    EXPECT_EQ(image.writtenSince(first, current).size(), volumeBlocks);
}

TEST(EraBlockSectors, KeepTheBlocksToAFewMillion) {
    constexpr std::uint64_t gibibyte = std::uint64_t{1} << 30;
    EXPECT_EQ(eraBlockSectors(0), 8U);
    EXPECT_EQ(eraBlockSectors(256 * gibibyte), 8U);
    EXPECT_EQ(eraBlockSectors(256 * gibibyte + 1), 16U);
    EXPECT_EQ(eraBlockSectors(1024 * gibibyte), 32U);
    EXPECT_EQ(eraBlockSectors(4096 * gibibyte), 128U);
    EXPECT_EQ(eraBlockSectors(4096 * gibibyte + 1), 128U);
    EXPECT_EQ(eraBlockSectors(~std::uint64_t{0}), 128U);
}

/// The space that the kernel needs is tested on a real machine, by the usage in the target's status.
TEST(EraMetadataSize, HasRoomForThreeArraysAndSixteenSets) {
    constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;
    EXPECT_EQ(eraMetadataSize(0), 16 * mebibyte);
    EXPECT_EQ(eraMetadataSize(std::uint64_t{1} << 20), 31 * mebibyte);
    for (const std::uint64_t blocks : {std::uint64_t{13'107'200}, std::uint64_t{1} << 26}) {
        const std::uint64_t size = eraMetadataSize(blocks);
        EXPECT_EQ(size % mebibyte, 0U);
        EXPECT_GE(size, 14 * blocks + 16 * mebibyte);
        EXPECT_LE(size, 15 * blocks + 17 * mebibyte);
    }
}

} // namespace
} // namespace tolvubd
