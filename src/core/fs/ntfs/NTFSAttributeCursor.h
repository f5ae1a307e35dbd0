#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/ntfs/NTFSAttribute.h"
#include "core/fs/ntfs/NTFSRecord.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// Walks over the attributes of a file record, from the first one on.
/// Owns:    nothing; the record must outlive it.
/// Threads: one at a time.
/// Fails:   NTFSError if an attribute isn't within its record.
class NTFSAttributeCursor {
public:
    NTFSAttributeCursor(info::Logger& logger, const NTFSRecord& record);

    /// Moves to the next attribute of this type; the current attribute counts, too. False if there is none,
    /// or if `wanted` is 0.
    bool findAttribute(std::uint32_t wanted);
    /// Like findAttribute, but starts after the attribute that was found.
    bool findNext(std::uint32_t wanted);
    /// The attribute that was found.
    [[nodiscard]] NTFSAttribute attribute() const;

private:
    [[nodiscard]] std::uint32_t type() const;
    [[nodiscard]] std::size_t length() const;

    info::Logger& logger;
    Bytes record;
    std::size_t position;
};

} // namespace agent::core::fs
