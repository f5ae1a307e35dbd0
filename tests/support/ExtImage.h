#pragma once

#include "support/MemoryVolume.h"

#include <cstdint>
#include <vector>

namespace agent::test {

/// The on-disk structures of ext2, ext3 and ext4 that say which blocks are used, in a volume in memory. The
/// block bitmaps follow the group descriptors, one after the other.
class ExtImage {
public:
    struct Geometry {
        std::uint32_t logBlockSize = 2; ///< 0: blocks of 1 KiB, 2: of 4 KiB
        std::uint32_t blocksPerGroup = 32768;
        std::uint32_t blockCount = 100'000;
        std::uint16_t descriptorSize = 0; ///< 0 without the 64-bit feature
    };

    static constexpr std::uint64_t superBlock = 1024;
    static constexpr std::uint32_t sparseSuper = 1;   ///< ro_compat: not every group has a superblock
    static constexpr std::uint32_t checksums = 0x400; ///< ro_compat: group flags are valid

    explicit ExtImage(Geometry geometry)
        : geometry(geometry),
          blockSize(std::uint64_t{1024} << geometry.logBlockSize),
          firstDataBlock(geometry.logBlockSize == 0 ? 1 : 0),
          groups((geometry.blockCount - firstDataBlock + geometry.blocksPerGroup - 1) /
                 geometry.blocksPerGroup),
          stride(geometry.descriptorSize == 0 ? 32 : geometry.descriptorSize),
          volume(geometry.blockCount * blockSize) {
        volume.writeLittle(superBlock + 4, geometry.blockCount, 4);
        volume.writeLittle(superBlock + 20, firstDataBlock, 4);
        volume.writeLittle(superBlock + 24, geometry.logBlockSize, 4);
        volume.writeLittle(superBlock + 32, geometry.blocksPerGroup, 4);
        volume.writeLittle(superBlock + 56, 0xEF53, 2);
        volume.writeLittle(superBlock + 76, 1, 4); // the revision that has feature flags
        volume.writeLittle(superBlock + 100, sparseSuper | checksums, 4);
        volume.writeLittle(superBlock + 96, geometry.descriptorSize == 0 ? 0 : 0x80, 4);
        volume.writeLittle(superBlock + 254, geometry.descriptorSize, 2);
        const std::uint64_t tableBlocks = (std::uint64_t{groups} * stride + blockSize - 1) / blockSize;
        for (std::uint32_t group = 0; group < groups; ++group) {
            placeBitmap(group, firstDataBlock + 1 + tableBlocks + group);
        }
    }

    [[nodiscard]] std::uint64_t descriptor(std::uint32_t group) const {
        return (firstDataBlock + 1) * blockSize + std::uint64_t{stride} * group;
    }

    void placeBitmap(std::uint32_t group, std::uint64_t block) {
        bitmapBlocks.resize(groups);
        bitmapBlocks[group] = block;
        volume.writeLittle(descriptor(group), block, 4);
    }

    /// Sets where the inode bitmap and the inode table of a group are, and how many blocks the table has.
    void placeInodes(std::uint32_t group, std::uint64_t bitmap, std::uint64_t table, std::uint32_t blocks) {
        volume.writeLittle(descriptor(group) + 4, bitmap, 4);
        volume.writeLittle(descriptor(group) + 8, table, 4);
        volume.writeLittle(superBlock + 88, 256, 2);
        volume.writeLittle(superBlock + 40, blocks * (blockSize / 256), 4);
    }

    void setUninitialized(std::uint32_t group) { volume.writeLittle(descriptor(group) + 18, 2, 2); }

    /// Marks a block as used in the bitmap of its group.
    void setUsed(std::uint32_t block) {
        const std::uint32_t group = (block - firstDataBlock) / geometry.blocksPerGroup;
        const std::uint32_t bit = (block - firstDataBlock) % geometry.blocksPerGroup;
        volume.at(bitmapBlocks[group] * blockSize + bit / 8) |= static_cast<std::uint8_t>(1U << (bit % 8));
    }

    Geometry geometry;
    std::uint64_t blockSize;
    std::uint32_t firstDataBlock;
    std::uint32_t groups;
    std::uint32_t stride;
    MemoryVolume volume;

private:
    std::vector<std::uint64_t> bitmapBlocks;
};

} // namespace agent::test
