#include "core/fs/ntfs/NTFSAttributeCursor.h"

#include "core/fs/ntfs/NTFSError.h"
#include "core/fs/ntfs/NTFSLayout.h"

namespace agent::core::fs {

namespace {

namespace layout = ntfs_layout::attribute;

void require(bool isInside) {
    if (!isInside) {
        throw NTFSError{"NTFS: An attribute isn't within its file record."};
    }
}

} // namespace

NTFSAttributeCursor::NTFSAttributeCursor(info::Logger& logger, const NTFSRecord& record)
    : logger(logger), record(record.bytes), position(record.firstAttribute()) {}

/// Terminates, because each attribute that it passes has a length greater than 0.
bool NTFSAttributeCursor::findAttribute(std::uint32_t wanted) {
    info::LogEntry(logger, info::level::debug) << "Searching for attribute " << wanted;
    if (wanted == 0) {
        return false;
    }
    for (; type() != layout::typeEnd; position += length()) {
        if (type() == wanted) {
            return true;
        }
    }
    return false;
}

bool NTFSAttributeCursor::findNext(std::uint32_t wanted) {
    position += length();
    return findAttribute(wanted);
}

NTFSAttribute NTFSAttributeCursor::attribute() const {
    return NTFSAttribute(record.subspan(position, length()));
}

std::uint32_t NTFSAttributeCursor::type() const {
    require(position + sizeof(std::uint32_t) <= record.size());
    return littleEndian<std::uint32_t>(record, position + layout::type);
}

std::size_t NTFSAttributeCursor::length() const {
    require(position + layout::smallest <= record.size());
    const std::size_t length = littleEndian<std::uint32_t>(record, position + layout::length);
    require(length >= layout::smallest && length <= record.size() - position);
    return length;
}

} // namespace agent::core::fs
