#include "Fields.h"
#include "capture/SpaceMap.h"

#include <algorithm>

namespace tolvubd {

namespace {

constexpr std::uint64_t superBlockAt = 1024;
constexpr std::size_t superBlockSize = 1024;
constexpr std::uint64_t magic = 0xEF53;
constexpr std::uint64_t metaBlockGroups = 0x10;
constexpr std::uint64_t wide = 0x80;
constexpr std::uint64_t clusters = 0x200;
constexpr std::uint64_t groupFlags = 0x410; // uninit_bg or metadata_csum: the groups' flags are valid
constexpr std::uint64_t neverUsed = 0x2;
constexpr std::uint64_t bitsInByte = 8;

namespace super_block {
constexpr Field blocks{4, 4};
constexpr Field firstBlock{20, 4};
constexpr Field blockShift{24, 4}; ///< block size is 1024 << this
constexpr Field blocksPerGroup{32, 4};
constexpr Field magic{56, 2};
constexpr Field incompatible{96, 4};
constexpr Field readOnly{100, 4};
constexpr Field descriptorSize{254, 2};
constexpr Field blocksHigh{336, 4};
} // namespace super_block

namespace descriptor {
constexpr std::uint64_t narrowSize = 32;
constexpr std::uint64_t wideSize = 64;
constexpr Field bitmap{0, 4};
constexpr Field flags{18, 2};
constexpr Field bitmapHigh{32, 4};
} // namespace descriptor

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
           geometry.descriptorSize >= (geometry.isWide ? descriptor::wideSize : descriptor::narrowSize) &&
           geometry.descriptorSize <= geometry.blockSize;
}

/// None for another file system, and with meta_bg and bigalloc, which change the layout of the group
/// descriptors or of the bitmaps.
std::optional<Geometry> readGeometry(const os::FileDescriptor& image, std::uint64_t size) {
    const Fields super(image, superBlockAt, superBlockSize);
    constexpr std::uint64_t largestShift = 6;
    if (!super || super.little(super_block::magic) != magic ||
        super.little(super_block::blockShift) > largestShift) {
        return std::nullopt;
    }
    const std::uint64_t features = super.little(super_block::incompatible);
    const std::uint64_t readOnlyFeatures = super.little(super_block::readOnly);
    if ((features & metaBlockGroups) != 0 || (readOnlyFeatures & clusters) != 0) {
        return std::nullopt;
    }
    Geometry geometry;
    geometry.isWide = (features & wide) != 0;
    geometry.hasGroupFlags = (readOnlyFeatures & groupFlags) != 0;
    geometry.blocks = super.little(super_block::blocks) |
                      (geometry.isWide ? super.little(super_block::blocksHigh) << 32U : 0);
    geometry.firstBlock = super.little(super_block::firstBlock);
    geometry.blockSize = superBlockSize << super.little(super_block::blockShift);
    geometry.blocksPerGroup = super.little(super_block::blocksPerGroup);
    geometry.descriptorSize =
        geometry.isWide ? super.little(super_block::descriptorSize) : descriptor::narrowSize;
    return isSound(geometry, size) ? std::optional(geometry) : std::nullopt;
}

Fields readDescriptor(const os::FileDescriptor& image, const Geometry& geometry, std::uint64_t group) {
    const std::uint64_t table = (geometry.firstBlock + 1) * geometry.blockSize;
    return {image, table + group * geometry.descriptorSize, geometry.descriptorSize};
}

bool wasUsed(const Geometry& geometry, const Fields& group) {
    return !geometry.hasGroupFlags || (group.little(descriptor::flags) & neverUsed) == 0;
}

/// Marks the blocks that are in use according to a group's bitmap. If the bitmap was never written, marks
/// nothing: the group's own structures come into use with the group.
bool markGroup(const os::FileDescriptor& image, const Geometry& geometry, std::uint64_t group,
               std::vector<bool>& used) {
    const Fields fields = readDescriptor(image, geometry, group);
    if (!fields) {
        return false;
    }
    if (!wasUsed(geometry, fields)) {
        return true;
    }
    const std::uint64_t block = fields.little(descriptor::bitmap) |
                                (geometry.isWide ? fields.little(descriptor::bitmapHigh) << 32U : 0);
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

std::optional<std::vector<bool>> readExtGroups(const os::FileDescriptor& image, std::uint64_t size) {
    const std::optional<Geometry> geometry = readGeometry(image, size);
    if (!geometry) {
        return std::nullopt;
    }
    std::vector<bool> used(geometry->groups());
    for (std::uint64_t group = 0; group < used.size(); ++group) {
        const Fields fields = readDescriptor(image, *geometry, group);
        if (!fields) {
            return std::nullopt;
        }
        used[group] = wasUsed(*geometry, fields);
    }
    return used;
}

std::optional<SpaceMap> readExtSpace(const os::FileDescriptor& image, std::uint64_t size) {
    return readExtSpaceWithout(image, size, {});
}

std::optional<SpaceMap> readExtSpaceWithout(const os::FileDescriptor& image, std::uint64_t size,
                                            const std::vector<bool>& leftOut) {
    const std::optional<Geometry> geometry = readGeometry(image, size);
    if (!geometry) {
        return std::nullopt;
    }
    SpaceMap map{geometry->blockSize, std::vector<bool>(geometry->blocks)};
    for (std::uint64_t group = 0; group < geometry->groups(); ++group) {
        if (group < leftOut.size() && leftOut[group]) {
            continue;
        }
        if (!markGroup(image, *geometry, group, map.used)) {
            return std::nullopt;
        }
    }
    return map;
}

} // namespace tolvubd
