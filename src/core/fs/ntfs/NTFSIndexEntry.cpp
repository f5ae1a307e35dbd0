#include "core/fs/ntfs/NTFSIndexEntry.h"

#include "core/fs/ntfs/NTFSLayout.h"

#include <optional>

namespace agent::core::fs {

namespace {

namespace layout = ntfs_layout::index_entry;
namespace file_name = ntfs_layout::file_name;

constexpr std::size_t unitSize = sizeof(char16_t);
constexpr std::size_t childSize = sizeof(std::uint64_t);
constexpr std::size_t nameBegin = layout::keyBegin + file_name::characters;

/// The character of a surrogate pair; nullopt if the units are no pair.
std::optional<wchar_t> pairOf(char16_t high, char16_t low) {
    constexpr char16_t firstHigh = 0xD800;
    constexpr char16_t firstLow = 0xDC00;
    constexpr char16_t pairMask = 0xFC00;
    if ((high & pairMask) != firstHigh || (low & pairMask) != firstLow) {
        return std::nullopt;
    }
    return static_cast<wchar_t>(0x10000 + ((high - firstHigh) << 10) + (low - firstLow));
}

} // namespace

bool NTFSIndexEntry::isSound() const {
    const std::size_t room = bytes.size() - layout::size;
    const std::size_t child = hasChild() ? childSize : 0;
    if (isLast()) {
        return child <= room;
    }
    return nameBegin <= bytes.size() && nameBegin + nameBytes() + child <= bytes.size();
}

bool NTFSIndexEntry::isLast() const {
    return (flags() & layout::isLast) != 0;
}

bool NTFSIndexEntry::hasChild() const {
    return (flags() & layout::hasChild) != 0;
}

std::uint64_t NTFSIndexEntry::childVcn() const {
    return littleEndian<std::uint64_t>(bytes, bytes.size() - childSize);
}

std::uint64_t NTFSIndexEntry::record() const {
    return littleEndian<std::uint64_t>(bytes, layout::record) & ntfs_layout::referenceNumber;
}

std::wstring NTFSIndexEntry::name() const {
    const auto unit = [this](std::size_t offset) { return littleEndian<char16_t>(bytes, offset); };
    const std::size_t end = nameBegin + nameBytes();
    std::wstring name;
    for (std::size_t offset = nameBegin; offset < end; offset += unitSize) {
        const std::size_t next = offset + unitSize;
        const auto pair = next < end ? pairOf(unit(offset), unit(next)) : std::nullopt;
        name += pair.value_or(static_cast<wchar_t>(unit(offset)));
        offset += pair ? unitSize : 0;
    }
    return name;
}

std::uint16_t NTFSIndexEntry::flags() const {
    return littleEndian<std::uint16_t>(bytes, layout::flags);
}

std::size_t NTFSIndexEntry::nameBytes() const {
    return bytes[layout::keyBegin + file_name::length] * unitSize;
}

} // namespace agent::core::fs
