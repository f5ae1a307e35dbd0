#include "core/fs/ntfs/NTFSRecord.h"

#include "core/fs/ntfs/NTFSLayout.h"

#include <algorithm>

namespace agent::core::fs {

namespace {

namespace layout = ntfs_layout::file_record;

constexpr std::size_t halfSize = sizeof(std::uint16_t);

} // namespace

bool NTFSRecord::hasMagic(std::uint32_t magic) const {
    return littleEndian<std::uint32_t>(bytes, layout::magic) == magic;
}

bool NTFSRecord::applyFixups() {
    if (!hasUpdateSequence()) {
        return false;
    }
    const std::size_t sequence = half(layout::updateSequenceOffset);
    const std::uint16_t number = half(sequence);
    for (std::size_t end = layout::sector; end <= bytes.size(); end += layout::sector) {
        if (half(end - halfSize) != number) {
            for (std::size_t i = 0; i < sizeof(layout::magicTorn); ++i) {
                bytes[layout::magic + i] = static_cast<std::uint8_t>(layout::magicTorn >> (8 * i));
            }
            return false;
        }
    }
    for (std::size_t sector = 1; sector * layout::sector <= bytes.size(); ++sector) {
        copyHalf(sector * layout::sector - halfSize, sequence + sector * halfSize);
    }
    return true;
}

bool NTFSRecord::mayHaveNumber(std::uint64_t inode) const {
    return half(layout::updateSequenceOffset) != layout::headWithNumber ||
           littleEndian<std::uint32_t>(bytes, layout::number) == inode;
}

std::uint64_t NTFSRecord::baseRecord() const {
    return littleEndian<std::uint64_t>(bytes, layout::baseRecord) & ntfs_layout::referenceNumber;
}

std::size_t NTFSRecord::firstAttribute() const {
    return half(layout::firstAttribute);
}

/// Whether the update sequence has an entry for each sector and lies within the record.
bool NTFSRecord::hasUpdateSequence() const {
    const std::size_t offset = half(layout::updateSequenceOffset);
    const std::size_t count = half(layout::updateSequenceCount);
    return bytes.size() % layout::sector == 0 && offset % halfSize == 0 &&
           offset + count * halfSize <= bytes.size() && bytes.size() / layout::sector + 1 == count;
}

std::uint16_t NTFSRecord::half(std::size_t offset) const {
    return littleEndian<std::uint16_t>(bytes, offset);
}

void NTFSRecord::copyHalf(std::size_t target, std::size_t source) {
    std::copy_n(bytes.data() + source, halfSize, bytes.data() + target);
}

} // namespace agent::core::fs
