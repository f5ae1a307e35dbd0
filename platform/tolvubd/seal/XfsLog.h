#pragma once

#include "os/FileDescriptor.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tolvubd {

/// The log of an XFS file system on disk (fs/xfs/libxfs/xfs_log_format.h): a ring of 512-byte blocks, each of
/// which begins with the number of the cycle in which it was written. A record is a header and its
/// data. An unmount writes a last record that says that nothing has to be replayed.
struct XfsLogPlace {
    std::uint64_t offset = 0; ///< in bytes
    std::uint64_t blocks = 0;
};

struct XfsLogHead {
    std::uint64_t cycle = 0;
    std::uint64_t block = 0;    ///< where the next record will be written
    std::uint32_t checksum = 0; ///< of the last complete record
    bool isUnmounted = false;   ///< whether that record is an unmount's

    bool operator==(const XfsLogHead&) const = default;
};

/// The head of the log. Reads only a few dozen blocks and a window of at most 4 MiB, whatever the log's size.
/// None if that window has no complete record.
std::optional<XfsLogHead> readXfsLogHead(const os::FileDescriptor& device, const XfsLogPlace& place);

} // namespace tolvubd
