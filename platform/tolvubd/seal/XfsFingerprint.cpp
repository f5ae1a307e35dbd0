#include "seal/Checksum.h"
#include "seal/DirectDevice.h"
#include "seal/FileSystemFingerprints.h"
#include "seal/XfsLog.h"

#include <array>
#include <bit>
#include <sstream>
#include <vector>

namespace tolvubd {

namespace {

constexpr std::size_t superSize = 512;
constexpr std::uint64_t superMagic = 0x58465342; // "XFSB"

/// Fields of the superblock, as in the kernel's fs/xfs/libxfs/xfs_format.h, big endian.
namespace super_block {
constexpr Field magic{0, 4};
constexpr Field blockSize{4, 4};
constexpr Field blocks{8, 8};
constexpr std::size_t uuid = 32;
constexpr Field logStart{48, 8};
constexpr Field groupBlocks{84, 4};
constexpr Field groups{88, 4};
constexpr Field logBlocks{96, 4};
constexpr Field sectorSize{102, 2};
constexpr Field groupBits{124, 1}; // low bits of a block number that count within its group
} // namespace super_block

struct Geometry {
    std::uint64_t blockSize = 0;
    std::uint64_t blocks = 0;
    std::uint64_t groupBlocks = 0;
    std::uint64_t groups = 0;
    std::uint64_t sectorSize = 0;
};

bool isSize(std::uint64_t bytes) {
    constexpr std::uint64_t smallest = 512;
    constexpr std::uint64_t largest = 65536;
    return std::has_single_bit(bytes) && bytes >= smallest && bytes <= largest;
}

std::optional<Geometry> geometryOf(const Fields& super, std::uint64_t size) {
    constexpr std::uint64_t mostGroups = 4096;
    const Geometry found{super.big(super_block::blockSize), super.big(super_block::blocks),
                         super.big(super_block::groupBlocks), super.big(super_block::groups),
                         super.big(super_block::sectorSize)};
    const bool isSound = isSize(found.blockSize) && isSize(found.sectorSize) &&
                         found.blocks <= size / found.blockSize && found.groupBlocks > 0 &&
                         found.groups > 0 && found.groups <= mostGroups &&
                         (found.groups - 1) * found.groupBlocks < found.blocks;
    return isSound ? std::optional(found) : std::nullopt;
}

/// None when the log is on another device, or isn't completely on this one.
std::optional<XfsLogPlace> logOf(const Fields& super, const Geometry& geometry) {
    constexpr std::uint64_t logBlock = 512;
    constexpr std::uint64_t mostBits = 32;
    const std::uint64_t start = super.big(super_block::logStart);
    const std::uint64_t bits = super.big(super_block::groupBits);
    if (start == 0 || bits > mostBits || start >> bits >= geometry.groups) {
        return std::nullopt;
    }
    const std::uint64_t group = start >> bits;
    const std::uint64_t block = group * geometry.groupBlocks + (start - (group << bits));
    const std::uint64_t count = super.big(super_block::logBlocks);
    if (block >= geometry.blocks || count > geometry.blocks - block) {
        return std::nullopt;
    }
    return XfsLogPlace{block * geometry.blockSize, count * geometry.blockSize / logBlock};
}

/// A checksum over the four header sectors of each allocation group: a repair rewrites them without a trace
/// in the log.
std::optional<std::uint64_t> checksumOfGroups(const os::FileDescriptor& device, const Geometry& geometry) {
    constexpr std::size_t sectors = 4;
    std::vector<std::byte> sums;
    for (std::uint64_t group = 0; group < geometry.groups; ++group) {
        const Fields heads = readDirect(device, group * geometry.groupBlocks * geometry.blockSize,
                                        sectors * geometry.sectorSize);
        if (!heads) {
            return std::nullopt;
        }
        const auto sum = std::bit_cast<std::array<std::byte, sizeof(std::uint64_t)>>(checksumOf(heads.all()));
        sums.insert(sums.end(), sum.begin(), sum.end());
    }
    return checksumOf(sums);
}

} // namespace

std::optional<Fingerprint> readXfsFingerprint(const os::FileDescriptor& device, std::uint64_t size) {
    const Fields super = readDirect(device, 0, superSize);
    const bool isXfs = super && super.big(super_block::magic) == superMagic;
    const std::optional<Geometry> geometry = isXfs ? geometryOf(super, size) : std::nullopt;
    const std::optional<XfsLogPlace> log = geometry ? logOf(super, *geometry) : std::nullopt;
    const std::optional<XfsLogHead> head = log ? readXfsLogHead(device, *log) : std::nullopt;
    const std::optional<std::uint64_t> groups = head ? checksumOfGroups(device, *geometry) : std::nullopt;
    if (!groups) {
        return std::nullopt;
    }
    const std::string uuid = uuidAt(super, super_block::uuid);
    std::ostringstream content;
    content << uuid << " log " << head->cycle << ':' << head->block << " record " << head->checksum
            << " groups " << *groups;
    return Fingerprint{"xfs", uuid, content.str(), head->isUnmounted};
}

} // namespace tolvubd
