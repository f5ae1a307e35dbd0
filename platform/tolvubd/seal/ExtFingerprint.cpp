#include "seal/DirectDevice.h"
#include "seal/FileSystemFingerprints.h"

#include <array>
#include <span>
#include <sstream>

namespace tolvubd {

namespace {

constexpr std::uint64_t superOffset = 1024;
constexpr std::size_t superSize = 1024;
constexpr std::uint64_t superMagic = 0xEF53;

/// Fields of the superblock, as in the kernel's fs/ext4/ext4.h, little endian.
namespace super_block {
constexpr Field blockSizeBits{0x18, 4}; // block size is 1 KiB << this
constexpr Field magic{0x38, 2};
constexpr Field compatible{0x5C, 4};
constexpr Field incompatible{0x60, 4};
constexpr std::size_t uuid = 0x68;
constexpr Field journalDevice{0xE4, 4};
constexpr Field journalCopied{0xFD, 1};     // 1: journalPlace is valid
constexpr std::size_t journalPlace = 0x10C; // copy of the journal inode's block map
} // namespace super_block

struct NamedField {
    const char* name;
    Field field;
};

/// Each time has an additional high byte elsewhere, because 32 bits became too few.
constexpr auto mountFields = std::to_array<NamedField>({{"mounted", {0x2C, 4}},
                                                        {"mounted_high", {0x275, 1}},
                                                        {"mounts", {0x34, 2}},
                                                        {"checked", {0x40, 4}},
                                                        {"checked_high", {0x277, 1}}});
constexpr auto contentFields = std::to_array<NamedField>({{"written", {0x30, 4}},
                                                          {"written_high", {0x274, 1}},
                                                          {"state", {0x3A, 2}},
                                                          {"features", {0x60, 4}},
                                                          {"free", {0x0C, 4}},
                                                          {"free_high", {0x158, 4}},
                                                          {"inodes", {0x10, 4}},
                                                          {"orphan", {0xE8, 4}},
                                                          {"kibibytes", {0x178, 8}},
                                                          {"errors", {0x194, 4}},
                                                          {"checksum", {0x3FC, 4}}});

constexpr std::uint64_t hasJournal = 0x4;
constexpr std::uint64_t needsRecovery = 0x4;

std::string textOf(const Fields& super, std::span<const NamedField> fields) {
    std::ostringstream text;
    for (const auto& [name, field] : fields) {
        text << ' ' << name << ' ' << super.little(field);
    }
    return text.str();
}

/// The first block of the journal, if the superblock's copy of the journal's inode shows it: the first entry
/// of a block list, or of an extent tree without inner nodes.
std::optional<std::uint64_t> firstBlockOfJournal(const Fields& super) {
    constexpr std::uint64_t extentMagic = 0xF30A;
    constexpr std::size_t root = super_block::journalPlace;
    if (super.little(super_block::journalCopied) != 1) {
        return std::nullopt;
    }
    if (super.little({root, 2}) != extentMagic) {
        return super.little({root, 4});
    }
    const std::uint64_t entries = super.little({root + 2, 2});
    const std::uint64_t levels = super.little({root + 6, 2});
    const std::uint64_t firstOfFile = super.little({root + 12, 4});
    if (entries == 0 || levels != 0 || firstOfFile != 0) {
        return std::nullopt;
    }
    constexpr unsigned lowBits = 32;
    return super.little({root + 18, 2}) << lowBits | super.little({root + 20, 4});
}

/// The journal's start block and first sequence number; empty if the superblock doesn't show where the
/// journal is.
std::string journalOf(const os::FileDescriptor& device, const Fields& super, std::uint64_t size) {
    constexpr std::uint64_t journalMagic = 0xC03B3998;
    constexpr std::size_t headSize = 0x20;
    constexpr unsigned largestBits = 6;
    constexpr std::uint64_t smallestBlock = 1024;
    const std::uint64_t bits = super.little(super_block::blockSizeBits);
    const std::optional<std::uint64_t> block = firstBlockOfJournal(super);
    if (!block || bits > largestBits || *block == 0 || *block >= size / (smallestBlock << bits)) {
        return {};
    }
    const Fields head = readDirect(device, *block * (smallestBlock << bits), headSize);
    if (!head || head.big({0, 4}) != journalMagic) {
        return {};
    }
    return std::to_string(head.big({0x18, 4})) + ":" + std::to_string(head.big({0x1C, 4}));
}

} // namespace

std::optional<Fingerprint> readExtFingerprint(const os::FileDescriptor& device, std::uint64_t size) {
    const Fields super = readDirect(device, superOffset, superSize);
    if (!super || super.little(super_block::magic) != superMagic ||
        (super.little(super_block::compatible) & hasJournal) == 0 ||
        super.little(super_block::journalDevice) != 0) {
        return std::nullopt;
    }
    const std::string mount = uuidAt(super, super_block::uuid) + textOf(super, mountFields);
    const std::string content =
        mount + textOf(super, contentFields) + " journal " + journalOf(device, super, size);
    return Fingerprint{"ext", mount, content, (super.little(super_block::incompatible) & needsRecovery) == 0};
}

} // namespace tolvubd
