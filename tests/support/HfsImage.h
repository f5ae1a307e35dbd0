#pragma once

#include "support/MemoryVolume.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace agent::test {

/// The on-disk structures of HFS+ that say which blocks are used, in a volume in memory: a volume header at
/// byte 0, the allocation bitmap, and an extents tree, which is initially empty. The bitmap marks the blocks
/// of these structures as used.
class HfsImage {
public:
    using Extent = std::pair<std::uint32_t, std::uint32_t>; ///< first block, and count
    using Extents = std::vector<Extent>;
    using Bytes = std::vector<std::uint8_t>;
    using Records = std::vector<Bytes>;

    struct Geometry {
        std::uint32_t blockSize = 4096;
        std::uint32_t totalBlocks = 1000;
        Extents bitmap = {{5, 1}}; ///< extents after the eighth belong in the extents tree
        Extents tree = {{100, 8}};
        std::uint16_t nodeSize = 512;
    };

    static constexpr std::uint64_t allocationFork = 112; ///< offset in the header
    static constexpr std::uint64_t extentsFork = 192;    ///< offset in the header
    static constexpr std::uint8_t index = 0;             ///< kind of node, like leaf
    static constexpr std::uint8_t leaf = 0xFF;

    explicit HfsImage(Geometry made)
        : geometry(std::move(made)), volume(std::uint64_t{geometry.totalBlocks} * geometry.blockSize) {
        writeHeader(0);
        setFork(allocationFork, geometry.bitmap, (geometry.totalBlocks + 7) / 8);
        setFork(extentsFork, geometry.tree, std::uint64_t{geometry.blockSize} * blocksOf(geometry.tree));
        setRoot(1);
        volume.writeBig(tree() + 14 + 18, geometry.nodeSize, 2);
        setUsed(0);
        for (const Extents& extents : {geometry.bitmap, geometry.tree}) {
            for (const auto& [first, count] : extents) {
                for (std::uint32_t block = first; block < first + count; ++block) {
                    setUsed(block);
                }
            }
        }
    }

    /// Sets a field of the header.
    void set(std::uint64_t offset, std::uint64_t value, unsigned width = 4) {
        volume.writeBig(offset, value, width);
    }

    /// Copies the header, as it is now, to its usual place on a volume as well.
    void copyHeader() {
        for (std::uint64_t offset = 0; offset < 512; ++offset) {
            volume.at(1024 + offset) = volume.at(offset);
        }
    }

    void setFork(std::uint64_t fork, const Extents& extents, std::uint64_t logicalSize) {
        volume.writeBig(fork, logicalSize, 8);
        volume.writeBig(fork + 12, blocksOf(extents), 4);
        for (std::size_t i = 0; i < 8; ++i) {
            const auto& [first, count] = i < extents.size() ? extents[i] : Extent{};
            volume.writeBig(fork + 16 + 8 * i, first, 4);
            volume.writeBig(fork + 20 + 8 * i, count, 4);
        }
    }

    /// Sets or clears the bit of a block.
    void setUsed(std::uint32_t block, bool isUsed = true) {
        const auto mask = static_cast<std::uint8_t>(0x80U >> (block % 8));
        std::uint8_t& byte = volume.at(placeOfBit(block));
        byte = static_cast<std::uint8_t>(isUsed ? byte | mask : byte & ~mask);
    }

    /// Offset of the extents tree on the volume.
    [[nodiscard]] std::uint64_t tree() const {
        return std::uint64_t{geometry.tree[0].first} * geometry.blockSize;
    }
    [[nodiscard]] std::uint64_t node(std::uint32_t number) const {
        return tree() + std::uint64_t{number} * geometry.nodeSize;
    }
    void setRoot(std::uint32_t number) { volume.writeBig(tree() + 14 + 2, number, 4); }

    void setNode(std::uint32_t number, std::uint8_t kind, const Records& records) {
        const std::uint64_t begin = node(number);
        volume.at(begin + 8) = kind;
        volume.writeBig(begin + 10, records.size(), 2);
        std::uint64_t offset = 14;
        for (std::size_t i = 0; i < records.size(); ++i) {
            setRecordOffset(number, i, offset);
            volume.write(begin + offset, records[i]);
            offset += records[i].size();
        }
        setRecordOffset(number, records.size(), offset);
    }

    void setRecordOffset(std::uint32_t number, std::size_t record, std::uint64_t offset) {
        volume.writeBig(node(number) + geometry.nodeSize - 2 - 2 * record, offset, 2);
    }

    /// A record of an index node, which points to node `number`.
    static Bytes child(std::uint32_t number) {
        Bytes bytes = key(0, 0);
        append(bytes, number, 4);
        return bytes;
    }

    /// A leaf record: extents of a file.
    static Bytes extentsOf(std::uint32_t file, std::uint32_t startBlock, const Extents& extents) {
        Bytes bytes = key(file, startBlock);
        for (const auto& [first, count] : extents) {
            append(bytes, first, 4);
            append(bytes, count, 4);
        }
        bytes.resize(12 + 64);
        return bytes;
    }

    /// A leaf record: up to eight extents of the bitmap, starting with extent number `first`.
    [[nodiscard]] Bytes bitmapFrom(std::size_t first) const {
        const auto begin = geometry.bitmap.begin() + static_cast<std::ptrdiff_t>(first);
        const auto end = geometry.bitmap.begin() +
                         static_cast<std::ptrdiff_t>(std::min(first + 8, geometry.bitmap.size()));
        return extentsOf(6, blocksOf({geometry.bitmap.begin(), begin}), {begin, end});
    }

    Geometry geometry;
    MemoryVolume volume;

private:
    void writeHeader(std::uint64_t at) {
        volume.writeBig(at, 0x482B, 2);
        volume.writeBig(at + 2, 4, 2);
        volume.writeBig(at + 4, 0x100, 4);
        volume.writeBig(at + 40, geometry.blockSize, 4);
        volume.writeBig(at + 44, geometry.totalBlocks, 4);
    }

    [[nodiscard]] std::uint64_t placeOfBit(std::uint32_t block) const {
        std::uint64_t byte = block / 8;
        for (const auto& [first, count] : geometry.bitmap) {
            const std::uint64_t length = std::uint64_t{count} * geometry.blockSize;
            if (byte < length) {
                return std::uint64_t{first} * geometry.blockSize + byte;
            }
            byte -= length;
        }
        return volume.size; // past the end of the volume, where nothing is read
    }

    static std::uint32_t blocksOf(const Extents& extents) {
        std::uint32_t blocks = 0;
        for (const auto& [first, count] : extents) {
            blocks += count;
        }
        return blocks;
    }

    static Bytes key(std::uint32_t file, std::uint32_t startBlock) {
        Bytes bytes;
        append(bytes, 10, 2);
        append(bytes, 0, 2);
        append(bytes, file, 4);
        append(bytes, startBlock, 4);
        return bytes;
    }

    static void append(Bytes& bytes, std::uint64_t value, unsigned width) {
        for (unsigned i = width; i-- > 0;) {
            bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
    }
};

} // namespace agent::test
