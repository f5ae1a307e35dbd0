#include "core/fs/ntfs/NTFSAttribute.h"

#include "core/fs/ntfs/NTFSError.h"
#include "core/fs/ntfs/NTFSLayout.h"

#include <algorithm>

namespace agent::core::fs {

namespace {

namespace layout = ntfs_layout::attribute;

} // namespace

std::uint32_t NTFSAttribute::type() const {
    return littleEndian<std::uint32_t>(bytes, layout::type);
}

bool NTFSAttribute::isResident() const {
    return bytes[layout::nonResident] == 0;
}

Bytes NTFSAttribute::value() const {
    const std::size_t offset = littleEndian<std::uint16_t>(bytes, layout::valueOffset);
    const std::size_t length = littleEndian<std::uint32_t>(bytes, layout::valueLength);
    if (offset > bytes.size() || length > bytes.size() - offset) {
        throw NTFSError{"NTFS: The value of an attribute is outside of it."};
    }
    return bytes.subspan(offset, length);
}

std::size_t NTFSAttribute::runListOffset() const {
    requireNonResidentHeader();
    return littleEndian<std::uint16_t>(bytes, layout::runList);
}

const char* NTFSAttribute::whyUnusable() const {
    requireNonResidentHeader();
    if (nameLength() != 0) {
        return "NTFS: The data that was found has a name, so it isn't the content of its file.";
    }
    return lowestVcn() != 0 ? "NTFS: The data that was found isn't the begin of its file." : nullptr;
}

std::uint8_t NTFSAttribute::nameLength() const {
    return bytes[layout::nameLength];
}

std::uint64_t NTFSAttribute::lowestVcn() const {
    if (isResident()) {
        return 0;
    }
    requireNonResidentHeader();
    return littleEndian<std::uint64_t>(bytes, layout::lowestVcn);
}

const char* NTFSAttribute::whyNotPlain() const {
    return littleEndian<std::uint16_t>(bytes, layout::flags) != 0
               ? "NTFS: The data is compressed, encrypted or sparse."
               : nullptr;
}

std::uint64_t NTFSAttribute::allocatedBytes() const {
    requireNonResidentHeader();
    return littleEndian<std::uint64_t>(bytes, layout::allocatedSize);
}

std::uint64_t NTFSAttribute::writtenBytes() const {
    requireNonResidentHeader();
    return std::min(littleEndian<std::uint64_t>(bytes, layout::dataSize),
                    littleEndian<std::uint64_t>(bytes, layout::initializedSize));
}

void NTFSAttribute::requireNonResidentHeader() const {
    if (bytes.size() < layout::nonResidentHeader) {
        throw NTFSError{"NTFS: The header of an attribute is too short."};
    }
}

} // namespace agent::core::fs
