#pragma once

#include "os/FileDescriptor.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tolvubd {

/// The log of an XFS file system as it lies on the disk (fs/xfs/libxfs/xfs_log_format.h): a ring of blocks
/// of 512 bytes, each of which begins with the number of the round in which it was written. A record is a
/// header and its data; the one that an unmount writes last says that nothing has to be replayed.
struct XfsLogPlace {
    std::uint64_t offset = 0; ///< in bytes
    std::uint64_t blocks = 0;
};

struct XfsLogHead {
    std::uint64_t round = 0;
    std::uint64_t block = 0;    ///< where the next record is going to be
    std::uint32_t checksum = 0; ///< of the last complete record
    bool isUnmounted = false;   ///< that is an unmount's

    bool operator==(const XfsLogHead&) const = default;
};

/// Where the log ends. Reads some tens of blocks and two windows of some mebibytes, whatever its size. None
/// where no complete record stands before the end.
std::optional<XfsLogHead> readXfsLogHead(const os::FileDescriptor& device, const XfsLogPlace& place);

} // namespace tolvubd
