#pragma once

#include "os/FileDescriptor.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tolvubd {

/// What a file system's own structures tell of whether somebody has written to it: compared across a restart
/// of the machine, during which nobody was watching.
struct Fingerprint {
    std::string kind; ///< "ext" or "xfs"
    /// What every mount for writing and every repair changes, and nothing else: of ext the UUID, the time of
    /// the last mount, the count of mounts and the time of the last check; of XFS the UUID, which is less.
    std::string mount;
    /// What changes with whatever is written: of ext also the time of the last write, the state, the counters
    /// of the superblock and where its journal begins; of XFS the head of its log.
    std::string content;
    bool isClean = false; ///< there is nothing to recover from its journal

    bool operator==(const Fingerprint&) const = default;
};

/// Reads it from a device or an image, past the page cache where that can be done. None when it is another
/// file system, one without a journal, or not sound.
std::optional<Fingerprint> readFingerprint(const os::FileDescriptor& device, std::uint64_t size);

} // namespace tolvubd
