#include "era/EraMetadata.h"

#include "Failure.h"
#include "era/Array.h"
#include "era/Tree.h"

#include <algorithm>
#include <bit>

namespace tolvubd {

namespace {

constexpr std::uint64_t bitsInWord = 64;
constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;
constexpr std::uint32_t leastBlockSectors = era::superblock::leastDataBlockSize;
constexpr std::uint32_t mostBlockSectors = 128;
constexpr std::uint64_t sectorSize = 512;
constexpr std::uint64_t mostBlocks = std::uint64_t{1} << 26;
constexpr std::uint64_t arrays = 3;
constexpr std::uint64_t sets = 16;
constexpr std::uint64_t others = 16 * mebibyte;
constexpr std::uint64_t valuesInHalfNode = 126;

std::uint64_t divideUp(std::uint64_t number, std::uint64_t by) {
    return number / by + (number % by == 0 ? 0 : 1);
}

/// The most blocks of metadata that an array of `values` values takes, including the tree above it.
std::uint64_t arrayBlocks(std::uint64_t values, std::size_t valueSize) {
    std::uint64_t level = divideUp(values, era::array::valuesInBlock(valueSize));
    std::uint64_t total = level;
    do {
        level = divideUp(level, valuesInHalfNode);
        total += level;
    } while (level > 1);
    return total;
}

era::Superblock readSuperblockOf(const os::FileDescriptor& device, std::uint64_t size,
                                 EraMetadata::View view) {
    era::BlockReader reader(device, size);
    era::Superblock superblock = era::readSuperblock(reader, era::superblock::place);
    if (view == EraMetadata::View::snapshot) {
        if (superblock.heldSnapshot == 0) {
            fail(EBADMSG, "no snapshot of the era metadata is held");
        }
        superblock = era::readSuperblock(reader, superblock.heldSnapshot);
        superblock.current = {};
    }
    return superblock;
}

/// Sets the flags of the blocks in a writeset. The set may be larger than the volume, which may have shrunk.
void add(era::BlockReader& reader, const era::Writeset& set, std::vector<bool>& flags) {
    const std::uint64_t words = divideUp(set.bits, bitsInWord);
    const std::uint64_t end = std::min<std::uint64_t>(set.bits, flags.size());
    era::walkArray<std::uint64_t>(reader, set.root, words, [&](std::uint64_t index, std::uint64_t word) {
        for (; word != 0; word &= word - 1) {
            const std::uint64_t bit = index * bitsInWord + static_cast<std::uint64_t>(std::countr_zero(word));
            if (bit < end) {
                flags[bit] = true;
            }
        }
    });
}

} // namespace

EraMetadata::EraMetadata(const os::FileDescriptor& device, std::uint64_t size, View view)
    : device(device), size(size), superblock(readSuperblockOf(device, size, view)) {}

std::vector<bool> EraMetadata::writtenSince(std::uint32_t first) const {
    era::BlockReader reader(device, size);
    std::vector<bool> flags(superblock.blocks);
    era::walkArray<std::uint32_t>(reader, superblock.eraArray, superblock.blocks,
                                  [&](std::uint64_t block, std::uint32_t era) {
                                      if (era >= first) {
                                          flags[block] = true;
                                      }
                                  });
    for (const era::Writeset& set : writesetsSince(reader, first)) {
        add(reader, set, flags);
    }
    return flags;
}

std::vector<era::Writeset> EraMetadata::writesetsSince(era::BlockReader& reader, std::uint32_t first) const {
    std::vector<era::Writeset> sets;
    era::walkTree(reader, superblock.writesetTree, era::writeset::size,
                  [&](std::uint64_t era, const era::Block& node, std::size_t offset) {
                      if (era >= first) {
                          sets.push_back(era::readWriteset(node, offset));
                      }
                  });
    if (superblock.current.root != 0 && superblock.currentEra >= first) {
        sets.push_back(superblock.current);
    }
    return sets;
}

bool wasEraShutDown(std::span<const std::byte, era::blockSize> superblock) {
    return era::superblockIn(era::Block(superblock), 0).current.root == 0;
}

std::uint32_t eraBlockSectors(std::uint64_t volumeBytes) {
    std::uint32_t sectors = leastBlockSectors;
    while (sectors < mostBlockSectors && divideUp(volumeBytes, sectors * sectorSize) > mostBlocks) {
        sectors *= 2;
    }
    return sectors;
}

std::uint64_t eraMetadataSize(std::uint64_t blocks) {
    const std::uint64_t eras = arrayBlocks(blocks, sizeof(std::uint32_t));
    const std::uint64_t bits = arrayBlocks(divideUp(blocks, bitsInWord), sizeof(std::uint64_t));
    return divideUp((arrays * eras + sets * bits) * era::blockSize + others, mebibyte) * mebibyte;
}

} // namespace tolvubd
