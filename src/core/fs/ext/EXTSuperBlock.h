#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/ext/EXTLayout.h"

#include <array>
#include <cstdint>
#include <string>

namespace agent::core::fs {

/// The fields that are read from the superblock of ext2, ext3 and ext4, and the values derived from them.
/// Owns:    copies of the fields.
/// Threads: a plain value; const calls are safe from any thread.
/// Fails:   never. The derived values are only reliable if `whyUnusable` returns an empty string.
struct EXTSuperBlock {
    /// Decodes the bytes of a superblock, whose magic number the caller has checked.
    static EXTSuperBlock decode(Bytes bytes);

    /// Why the superblock isn't plausible, or why its bitmaps can't be read; empty if all is well.
    [[nodiscard]] std::string whyUnusable() const;

    [[nodiscard]] bool hasIncompat(std::uint32_t feature) const { return (incompatFeatures & feature) != 0; }
    [[nodiscard]] bool hasRoCompat(std::uint32_t feature) const { return (roCompatFeatures & feature) != 0; }
    /// If false, no method that depends on the block size may be called.
    [[nodiscard]] bool hasPossibleBlockSize() const { return logBlockSize <= maxLogBlockSize; }
    [[nodiscard]] std::uint64_t blockSize() const { return std::uint64_t{1024} << logBlockSize; }
    [[nodiscard]] std::uint64_t groupBitmapBytes() const { return ((blocksPerGroup - 1) >> 3U) + 1; }
    [[nodiscard]] std::uint64_t groupCount() const;
    /// The first block of a group.
    [[nodiscard]] std::uint64_t firstBlockOf(std::uint64_t group) const;
    /// The distance from one descriptor to the next, in bytes.
    [[nodiscard]] std::uint64_t stride() const;
    /// Whether the flags in the descriptors are valid: without checksums of the descriptors, no kernel uses
    /// the flags.
    [[nodiscard]] bool groupsHaveFlags() const;
    /// How many blocks a group's inode table has.
    [[nodiscard]] std::uint64_t inodeTableBlocks() const;
    /// How many blocks at the start of a group hold a superblock, descriptors and space reserved for more
    /// descriptors.
    [[nodiscard]] std::uint64_t headBlocksOf(std::uint64_t group) const;

    std::uint16_t descriptorSize = 0;
    std::uint32_t blocksPerGroup = 0;
    std::uint32_t blockCount = 0;
    std::uint32_t logBlockSize = 0;
    std::uint32_t firstDataBlock = 0;
    std::uint32_t incompatFeatures = 0;
    // Used only to detect what can't be read safely:
    std::uint32_t roCompatFeatures = 0;
    std::uint32_t blockCountHigh = 0;
    // Used only to find the metadata of groups whose bitmap was never written:
    std::uint32_t compatFeatures = 0;
    std::uint32_t firstMetaBlock = 0;
    std::uint32_t inodesPerGroup = 0;
    std::uint16_t inodeSize = 0;
    std::uint16_t reservedDescriptors = 0;
    std::array<std::uint32_t, 2> backupGroups{};

private:
    static constexpr std::uint32_t maxLogBlockSize = 6; // blocks of 64 KiB

    [[nodiscard]] const char* impossibleGeometry() const;
    [[nodiscard]] bool areDescriptorsContiguous() const;
    [[nodiscard]] std::uint64_t descriptorBlocks() const;
    [[nodiscard]] std::uint64_t metaDescriptorBlocksOf(std::uint64_t group) const;
    [[nodiscard]] bool hasSuperBlock(std::uint64_t group) const;
};

} // namespace agent::core::fs
