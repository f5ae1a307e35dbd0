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
/// Fails:   NTFSObjection where an attribute isn't within its record.
class NTFSAttributeCursor {
public:
    NTFSAttributeCursor(info::Logger& logger, const NTFSRecord& record);

    /// Goes on to an attribute of this type, unless it is at one. False if there is none, and if the type
    /// is 0.
    bool findAttribute(std::uint32_t wanted);
    /// The same from the one that was found on, without that.
    bool findNext(std::uint32_t wanted);
    /// The one that was found.
    [[nodiscard]] NTFSAttribute attribute() const;

private:
    [[nodiscard]] std::uint32_t type() const;
    [[nodiscard]] std::size_t length() const;

    info::Logger& logger;
    Bytes record;
    std::size_t position;
};

} // namespace agent::core::fs
