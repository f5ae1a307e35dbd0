#pragma once

#include "support/MemoryVolume.h"

#include <cstdint>
#include <utility>
#include <vector>

namespace agent::test {

/// The on-disk structures of XFS that say which blocks are free, in a volume in memory. Initially an
/// allocation group has no free blocks: an empty free list, and an empty leaf in its block 16.
class XfsImage {
public:
    struct Geometry {
        std::uint32_t blockSize = 4096;
        std::uint32_t agBlocks = 1000;
        std::uint32_t agCount = 2;
        std::uint64_t totalBlocks = 2000;
        bool crc = true;
        std::uint32_t sectorSize = 512; ///< of the file system; the device's sectors may be smaller
    };
    using Record = std::pair<std::uint32_t, std::uint32_t>; ///< first block of the group, and count
    using Records = std::vector<Record>;
    using Children = std::vector<std::uint32_t>;

    static constexpr std::uint32_t none = 0xFFFFFFFF;
    static constexpr std::uint32_t emptyLeaf = 16;

    explicit XfsImage(Geometry geometry)
        : geometry(geometry), volume(geometry.totalBlocks * geometry.blockSize) {
        volume.writeBig(0, 0x58465342, 4);
        volume.writeBig(4, geometry.blockSize, 4);
        volume.writeBig(8, geometry.totalBlocks, 8);
        volume.writeBig(84, geometry.agBlocks, 4);
        volume.writeBig(88, geometry.agCount, 4);
        volume.writeBig(102, geometry.sectorSize, 2);
        volume.writeBig(100, geometry.crc ? 0xb4a5 : 0xb4a4, 2);
        for (std::uint32_t group = 0; group < geometry.agCount; ++group) {
            volume.writeBig(freeSpaceInfo(group), 0x58414746, 4);
            setFreeList(group, 1, 0, 0);
            setLeaf(group, emptyLeaf, {});
            setRoot(group, emptyLeaf);
        }
    }

    [[nodiscard]] std::uint64_t address(std::uint32_t group, std::uint32_t block) const {
        return (std::uint64_t{group} * geometry.agBlocks + block) * geometry.blockSize;
    }
    [[nodiscard]] std::uint64_t freeSpaceInfo(std::uint32_t group) const {
        return address(group, 0) + geometry.sectorSize;
    }
    [[nodiscard]] std::uint64_t freeListEntry(std::uint32_t group, std::uint32_t index) const {
        return address(group, 0) + 3UL * geometry.sectorSize + (geometry.crc ? 36 : 0) + 4UL * index;
    }
    [[nodiscard]] std::uint32_t headerSize() const { return geometry.crc ? 56 : 16; }

    void setRoot(std::uint32_t group, std::uint32_t block) {
        volume.writeBig(freeSpaceInfo(group) + 16, block, 4);
    }

    void setFreeList(std::uint32_t group, std::uint32_t first, std::uint32_t last, std::uint32_t count) {
        volume.writeBig(freeSpaceInfo(group) + 40, first, 4);
        volume.writeBig(freeSpaceInfo(group) + 44, last, 4);
        volume.writeBig(freeSpaceInfo(group) + 48, count, 4);
    }

    void setFreeListEntry(std::uint32_t group, std::uint32_t index, std::uint32_t block) {
        volume.writeBig(freeListEntry(group, index), block, 4);
    }

    void setLeaf(std::uint32_t group, std::uint32_t block, const Records& records,
                 std::uint32_t rightSib = none) {
        setNode(group, block, 0, records, rightSib);
    }

    void setInternal(std::uint32_t group, std::uint32_t block, std::uint16_t level, const Children& children,
                     std::uint32_t rightSib = none) {
        setNode(group, block, level, Records(children.size()), rightSib);
        const std::uint32_t keys = (geometry.blockSize - headerSize()) / 12;
        for (std::size_t i = 0; i < children.size(); ++i) {
            volume.writeBig(address(group, block) + headerSize() + keys * 8UL + 4 * i, children[i], 4);
        }
    }

    Geometry geometry;
    MemoryVolume volume;

private:
    void setNode(std::uint32_t group, std::uint32_t block, std::uint16_t level, const Records& records,
                 std::uint32_t rightSib) {
        const std::uint64_t node = address(group, block);
        volume.writeBig(node, geometry.crc ? 0x41423342 : 0x41425442, 4);
        volume.writeBig(node + 4, level, 2);
        volume.writeBig(node + 6, records.size(), 2);
        volume.writeBig(node + 8, none, 4);
        volume.writeBig(node + 12, rightSib, 4);
        for (std::size_t i = 0; i < records.size(); ++i) {
            volume.writeBig(node + headerSize() + 8 * i, records[i].first, 4);
            volume.writeBig(node + headerSize() + 8 * i + 4, records[i].second, 4);
        }
    }
};

} // namespace agent::test
