#include "Fields.h"
#include "capture/SpaceMap.h"

#include <algorithm>
#include <bit>

namespace tolvubd {

namespace {

constexpr std::size_t superBlockSize = 512;
constexpr std::uint64_t superMagic = 0x58465342;       // "XFSB"
constexpr std::uint64_t agfMagic = 0x58414746;         // "XAGF"
constexpr std::uint64_t plainMagic = 0x41425442;       // "ABTB"
constexpr std::uint64_t checksummedMagic = 0x41423342; // "AB3B"
constexpr std::uint64_t noBlock = 0xFFFFFFFF;
constexpr std::size_t pointerSize = 4;
constexpr std::size_t pairSize = 8; // a block, and the number of blocks from it on

namespace super_block {
constexpr Field magic{0, 4};
constexpr Field blockSize{4, 4};
constexpr Field blocks{8, 8};
constexpr Field groupBlocks{84, 4};
constexpr Field groups{88, 4};
constexpr Field version{100, 2};
constexpr Field sectorSize{102, 2};
} // namespace super_block

/// The header of an allocation group (AGF) is in the group's second sector, the free list (AGFL) in the
/// fourth.
namespace group_header {
constexpr std::uint64_t sector = 1;
constexpr std::uint64_t listSector = 3;
constexpr Field magic{0, 4};
constexpr Field root{16, 4};
constexpr Field levels{28, 4};
constexpr Field listOldest{40, 4};
constexpr Field listCount{48, 4};
} // namespace group_header

namespace tree_node {
constexpr Field magic{0, 4};
constexpr Field level{4, 2};
constexpr Field records{6, 2};
constexpr Field right{12, 4};
} // namespace tree_node

/// Header sizes of tree nodes and of the free list, in bytes, without and with checksums.
constexpr std::size_t plainNodeHeader = 16;
constexpr std::size_t checksummedNodeHeader = 56;
constexpr std::size_t plainListHeader = 0;
constexpr std::size_t checksummedListHeader = 36;

struct Geometry {
    std::uint64_t blockSize = 0;
    std::uint64_t blocks = 0;
    std::uint64_t groupBlocks = 0;
    std::uint64_t groups = 0;
    std::uint64_t sectorSize = 0;
    bool hasChecksums = false;

    [[nodiscard]] std::uint64_t nodeMagic() const { return hasChecksums ? checksummedMagic : plainMagic; }
    [[nodiscard]] std::size_t nodeHeader() const {
        return hasChecksums ? checksummedNodeHeader : plainNodeHeader;
    }
};

bool isSound(const Geometry& geometry, std::uint64_t size) {
    constexpr std::uint64_t smallest = 512;
    constexpr std::uint64_t largest = 65536;
    return std::has_single_bit(geometry.blockSize) && geometry.blockSize >= smallest &&
           geometry.blockSize <= largest && std::has_single_bit(geometry.sectorSize) &&
           geometry.sectorSize >= smallest && geometry.sectorSize <= geometry.blockSize &&
           geometry.blocks <= size / geometry.blockSize && geometry.groupBlocks > 0 && geometry.groups > 0 &&
           (geometry.groups - 1) * geometry.groupBlocks < geometry.blocks &&
           geometry.blocks <= geometry.groups * geometry.groupBlocks;
}

std::optional<Geometry> readGeometry(const os::FileDescriptor& image, std::uint64_t size) {
    const Fields super(image, 0, superBlockSize);
    if (!super || super.big(super_block::magic) != superMagic) {
        return std::nullopt;
    }
    constexpr std::uint64_t versionBits = 0xF;
    constexpr std::uint64_t withChecksums = 5;
    const Geometry geometry{super.big(super_block::blockSize),
                            super.big(super_block::blocks),
                            super.big(super_block::groupBlocks),
                            super.big(super_block::groups),
                            super.big(super_block::sectorSize),
                            (super.big(super_block::version) & versionBits) == withChecksums};
    return isSound(geometry, size) ? std::optional(geometry) : std::nullopt;
}

/// One allocation group. Its free space is in a B-tree of extents, ordered by position, and in a list of
/// blocks that are reserved for the growth of the trees.
class Group {
public:
    Group(const os::FileDescriptor& image, const Geometry& geometry, std::uint64_t number)
        : image(image),
          geometry(geometry),
          first(number * geometry.groupBlocks),
          blocks(std::min(geometry.groupBlocks, geometry.blocks - first)) {}

    /// Clears the flags of the free blocks. Returns false when the free space can't be determined.
    bool clearFree(std::vector<bool>& used) const {
        const Fields header = sector(group_header::sector);
        return header && header.big(group_header::magic) == agfMagic &&
               clearTree(header.big(group_header::root), header.big(group_header::levels), used) &&
               clearList(header, used);
    }

private:
    [[nodiscard]] Fields sector(std::uint64_t number) const {
        return {image, first * geometry.blockSize + number * geometry.sectorSize, geometry.sectorSize};
    }

    [[nodiscard]] std::size_t mostPairs(bool isLeaf) const {
        return (geometry.blockSize - geometry.nodeHeader()) / (isLeaf ? pairSize : pairSize + pointerSize);
    }

    /// A node of the tree; none if the block isn't a node of this level.
    [[nodiscard]] std::optional<Fields> node(std::uint64_t block, std::uint64_t level) const {
        if (block >= blocks) {
            return std::nullopt;
        }
        Fields found(image, (first + block) * geometry.blockSize, geometry.blockSize);
        const bool isNode = found && found.big(tree_node::magic) == geometry.nodeMagic() &&
                            found.big(tree_node::level) == level &&
                            found.big(tree_node::records) <= mostPairs(level == 0);
        return isNode ? std::optional(std::move(found)) : std::nullopt;
    }

    /// Descends to the leftmost leaf, and follows the leaves to the right from there.
    bool clearTree(std::uint64_t root, std::uint64_t levels, std::vector<bool>& used) const {
        constexpr std::uint64_t mostLevels = 9;
        if (levels == 0 || levels > mostLevels) {
            return false;
        }
        std::uint64_t block = root;
        for (std::uint64_t level = levels - 1; level > 0; --level) {
            const std::optional<Fields> parent = node(block, level);
            if (!parent) {
                return false;
            }
            block = parent->big({geometry.nodeHeader() + mostPairs(false) * pairSize, pointerSize});
        }
        for (std::uint64_t leaves = 0; block != noBlock; ++leaves) {
            const std::optional<Fields> leaf = node(block, 0);
            if (!leaf || leaves == blocks || !clearLeaf(*leaf, used)) { // more leaves than blocks: a loop
                return false;
            }
            block = leaf->big(tree_node::right);
        }
        return true;
    }

    bool clearLeaf(const Fields& leaf, std::vector<bool>& used) const {
        const std::uint64_t records = leaf.big(tree_node::records);
        for (std::uint64_t record = 0; record < records; ++record) {
            const std::size_t at = geometry.nodeHeader() + record * pairSize;
            if (!clear(leaf.big({at, pointerSize}), leaf.big({at + pointerSize, pointerSize}), used)) {
                return false;
            }
        }
        return true;
    }

    /// The list is a ring buffer in its sector.
    bool clearList(const Fields& header, std::vector<bool>& used) const {
        const std::size_t begin = geometry.hasChecksums ? checksummedListHeader : plainListHeader;
        const std::uint64_t entries = (geometry.sectorSize - begin) / pointerSize;
        const std::uint64_t oldest = header.big(group_header::listOldest);
        const std::uint64_t count = header.big(group_header::listCount);
        const Fields list = sector(group_header::listSector);
        if (!list || count > entries || oldest >= entries) {
            return false;
        }
        for (std::uint64_t index = 0; index < count; ++index) {
            if (!clear(list.big({begin + (oldest + index) % entries * pointerSize, pointerSize}), 1, used)) {
                return false;
            }
        }
        return true;
    }

    bool clear(std::uint64_t block, std::uint64_t count, std::vector<bool>& used) const {
        if (block > blocks || count > blocks - block) {
            return false;
        }
        const auto begin = used.begin() + static_cast<std::ptrdiff_t>(first + block);
        std::fill(begin, begin + static_cast<std::ptrdiff_t>(count), false);
        return true;
    }

    const os::FileDescriptor& image;
    const Geometry& geometry;
    std::uint64_t first;
    std::uint64_t blocks;
};

} // namespace

std::optional<SpaceMap> readXfsSpace(const os::FileDescriptor& image, std::uint64_t size) {
    const std::optional<Geometry> geometry = readGeometry(image, size);
    if (!geometry) {
        return std::nullopt;
    }
    SpaceMap map{geometry->blockSize, std::vector<bool>(geometry->blocks, true)};
    for (std::uint64_t number = 0; number < geometry->groups; ++number) {
        if (!Group(image, *geometry, number).clearFree(map.used)) {
            return std::nullopt;
        }
    }
    return map;
}

} // namespace tolvubd
