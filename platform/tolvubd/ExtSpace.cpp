#include "Fields.h"
#include "SpaceMap.h"

#include <algorithm>

namespace tolvubd {

namespace {

constexpr std::uint64_t superBlockAt = 1024;
constexpr std::size_t superBlockSize = 1024;
constexpr std::uint64_t magic = 0xEF53;
constexpr std::uint64_t metaBlockGroups = 0x10;
constexpr std::uint64_t wide = 0x80;
constexpr std::uint64_t clusters = 0x200;
constexpr std::uint64_t groupFlags = 0x410; // either of two features with which those of a group count
constexpr std::uint64_t neverUsed = 0x2;
constexpr std::uint64_t bitsInByte = 8;

struct Geometry {
    std::uint64_t blocks = 0;
    std::uint64_t firstBlock = 0;
    std::uint64_t blockSize = 0;
    std::uint64_t blocksPerGroup = 0;
    std::uint64_t descriptorSize = 0;
    bool isWide = false;
    bool hasGroupFlags = false;

    [[nodiscard]] std::uint64_t groups() const {
        return (blocks - firstBlock + blocksPerGroup - 1) / blocksPerGroup;
    }
};

bool isSound(const Geometry& geometry, std::uint64_t size) {
    return geometry.blocks <= size / geometry.blockSize && geometry.firstBlock < geometry.blocks &&
           geometry.blocksPerGroup > 0 && geometry.blocksPerGroup <= geometry.blockSize * bitsInByte &&
           geometry.descriptorSize >= (geometry.isWide ? 64 : 32) &&
           geometry.descriptorSize <= geometry.blockSize;
}

std::optional<Geometry> readGeometry(const os::FileDescriptor& image, std::uint64_t size) {
    const Fields super(image, superBlockAt, superBlockSize);
    constexpr std::uint64_t largestShift = 6;
    if (!super || super.little(56, 2) != magic || super.little(24, 4) > largestShift) {
        return std::nullopt;
    }
    const std::uint64_t features = super.little(96, 4);
    if ((features & metaBlockGroups) != 0 || (super.little(100, 4) & clusters) != 0) {
        return std::nullopt;
    }
    Geometry geometry;
    geometry.isWide = (features & wide) != 0;
    geometry.hasGroupFlags = (super.little(100, 4) & groupFlags) != 0;
    geometry.blocks = super.little(4, 4) | (geometry.isWide ? super.little(336, 4) << 32U : 0);
    geometry.firstBlock = super.little(20, 4);
    geometry.blockSize = superBlockSize << super.little(24, 4);
    geometry.blocksPerGroup = super.little(32, 4);
    geometry.descriptorSize = geometry.isWide ? super.little(254, 2) : 32;
    return isSound(geometry, size) ? std::optional(geometry) : std::nullopt;
}

/// Marks what a group's bitmap says is in use. Of a group whose bitmap was never written nothing is marked:
/// its structures come into use with the group.
bool markGroup(const os::FileDescriptor& image, const Geometry& geometry, std::uint64_t group,
               std::vector<bool>& used) {
    const std::uint64_t table = (geometry.firstBlock + 1) * geometry.blockSize;
    const Fields descriptor(image, table + group * geometry.descriptorSize, geometry.descriptorSize);
    if (!descriptor) {
        return false;
    }
    if (geometry.hasGroupFlags && (descriptor.little(18, 2) & neverUsed) != 0) {
        return true;
    }
    const std::uint64_t block =
        descriptor.little(0, 4) | (geometry.isWide ? descriptor.little(32, 4) << 32U : 0);
    if (block == 0 || block >= geometry.blocks) {
        return false;
    }
    const Fields bitmap(image, block * geometry.blockSize, geometry.blockSize);
    if (!bitmap) {
        return false;
    }
    const std::uint64_t first = geometry.firstBlock + group * geometry.blocksPerGroup;
    const std::uint64_t count = std::min(geometry.blocksPerGroup, geometry.blocks - first);
    for (std::uint64_t bit = 0; bit < count; ++bit) {
        used[first + bit] = (bitmap.byte(bit / bitsInByte) >> bit % bitsInByte & 1U) != 0;
    }
    return true;
}

} // namespace

std::optional<SpaceMap> readExtSpace(const os::FileDescriptor& image, std::uint64_t size) {
    const std::optional<Geometry> geometry = readGeometry(image, size);
    if (!geometry) {
        return std::nullopt;
    }
    SpaceMap map{geometry->blockSize, std::vector<bool>(geometry->blocks)};
    for (std::uint64_t group = 0; group < geometry->groups(); ++group) {
        if (!markGroup(image, *geometry, group, map.used)) {
            return std::nullopt;
        }
    }
    return map;
}

} // namespace tolvubd
