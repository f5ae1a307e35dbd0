#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/ext/EXTLayout.h"

#include <array>
#include <cstdint>
#include <string>

namespace agent::core::fs {

/// What is read of the super block of ext2, ext3 and ext4, and what follows from it.
/// Owns:    copies of the numbers.
/// Threads: a value.
/// Fails:   nothing fails. What follows from the numbers can be relied on where `objection` has none.
struct EXTSuperBlock {
    /// From the bytes of a super block, whose magic has been looked at.
    static EXTSuperBlock decode(Bytes bytes);

    /// Why the super block can't be believed, or the map can't be read as one of blocks; empty if it can.
    [[nodiscard]] std::string objection() const;

    [[nodiscard]] bool hasIncompat(std::uint32_t feature) const { return (incompatFeatures & feature) != 0; }
    [[nodiscard]] bool hasRoCompat(std::uint32_t feature) const { return (roCompatFeatures & feature) != 0; }
    /// Without it, nothing that follows from the size of a block can be asked for.
    [[nodiscard]] bool hasPossibleBlockSize() const { return logBlockSize <= largestLogBlockSize; }
    [[nodiscard]] std::uint64_t blockSize() const { return std::uint64_t{1024} << logBlockSize; }
    [[nodiscard]] std::uint64_t groupBitmapBytes() const { return ((blocksPerGroup - 1) >> 3U) + 1; }
    [[nodiscard]] std::uint64_t groupCount() const;
    /// The first block of a group.
    [[nodiscard]] std::uint64_t firstBlockOf(std::uint64_t group) const;
    /// From one descriptor to the next, in bytes.
    [[nodiscard]] std::uint64_t stride() const;
    /// Whether the flags in the descriptors mean anything: without checksums over them no kernel looks at
    /// them.
    [[nodiscard]] bool groupsHaveFlags() const;
    /// How many blocks a group's inode table has.
    [[nodiscard]] std::uint64_t inodeTableBlocks() const;
    /// How many blocks at the start of a group are a super block, descriptors, and room for more of them.
    [[nodiscard]] std::uint64_t headBlocksOf(std::uint64_t group) const;

    std::uint16_t descriptorSize = 0;
    std::uint32_t blocksPerGroup = 0;
    std::uint32_t blockCount = 0;
    std::uint32_t logBlockSize = 0;
    std::uint32_t firstDataBlock = 0;
    std::uint32_t incompatFeatures = 0;
    // Only to tell what can't be read safely:
    std::uint32_t roCompatFeatures = 0;
    std::uint32_t blockCountHigh = 0;
    // Only to find the structures of groups whose bitmap was never written:
    std::uint32_t compatFeatures = 0;
    std::uint32_t firstMetaBlock = 0;
    std::uint32_t inodesPerGroup = 0;
    std::uint16_t inodeSize = 0;
    std::uint16_t reservedDescriptors = 0;
    std::array<std::uint32_t, 2> backupGroups{};

private:
    static constexpr std::uint32_t largestLogBlockSize = 6; // blocks of 64 KiB

    [[nodiscard]] const char* impossibleGeometry() const;
    [[nodiscard]] bool descriptorsLieInOnePlace() const;
    [[nodiscard]] std::uint64_t descriptorBlocks() const;
    [[nodiscard]] std::uint64_t metaDescriptorBlocksOf(std::uint64_t group) const;
    [[nodiscard]] bool hasSuperBlock(std::uint64_t group) const;
};

} // namespace agent::core::fs
