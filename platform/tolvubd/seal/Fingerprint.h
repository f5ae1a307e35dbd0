#pragma once

#include "os/FileDescriptor.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tolvubd {

/// The values in a file system's own structures that change when the file system is written. They are
/// compared before and after a restart of the machine, during which the layers weren't there.
struct Fingerprint {
    std::string kind; ///< "ext" or "xfs"
    /// Changes only with a writable mount or a repair. For ext: the UUID, the time of the last mount, the
    /// mount count and the time of the last check. For XFS, which records less: the UUID alone.
    std::string mount;
    /// Changes with every write. For ext also the time of the last write, the state, the counters of the
    /// superblock and the start of the journal; for XFS the head of the log and a checksum of the group
    /// headers.
    std::string content;
    bool isClean = false; ///< there is nothing to recover from its journal

    bool operator==(const Fingerprint&) const = default;
};

/// Reads the fingerprint from a device or an image. None for another file system, one without a journal, and
/// one that isn't sound.
std::optional<Fingerprint> readFingerprint(const os::FileDescriptor& device, std::uint64_t size);

} // namespace tolvubd
