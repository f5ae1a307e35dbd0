#pragma once

#include "os/FileDescriptor.h"

#include <cstdint>
#include <optional>
#include <string>

namespace audit {

/// The space map of the kernel's own file system driver (FS_IOC_GETFSMAP), which is independent of the
/// agent's parsers. For ascending offsets, most answers come from the cached last record.
/// Owns:    a descriptor of the mounted file system.
/// Threads: one at a time.
/// Fails:   `isInUse` returns std::nullopt if the kernel doesn't say.
class KernelSpace {
public:
    /// `root` is the root of a mounted file system. ext4 and XFS support the ioctl; others don't.
    explicit KernelSpace(const std::string& root);

    /// Whether any part of the page of 4096 bytes at this byte offset is in use.
    std::optional<bool> isInUse(std::uint64_t offset);

private:
    std::optional<bool> query(std::uint64_t offset);

    os::FileDescriptor directory;
    std::uint32_t device = 0; // in the kernel's encoding
    /// The last record that the kernel returned.
    std::uint64_t knownBegin = 0;
    std::uint64_t knownEnd = 0;
    bool isKnownInUse = false;
};

} // namespace audit
