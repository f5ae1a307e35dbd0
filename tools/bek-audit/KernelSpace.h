#pragma once

#include "os/FileDescriptor.h"

#include <cstdint>
#include <optional>
#include <string>

namespace audit {

/// What the kernel's own file system says of the space on a volume, which owes nothing to the agent's
/// parsers. Asked for ascending places it answers most from memory.
/// Owns:    a descriptor of the mounted file system.
/// Threads: one at a time.
/// Fails:   nothing is told where it can't be.
class KernelSpace {
public:
    /// The root of a mounted file system. ext4 and XFS tell; others don't.
    explicit KernelSpace(const std::string& root);

    /// Whether the page of 4096 bytes from this byte on is in use, or any part of it.
    std::optional<bool> isInUse(std::uint64_t offset);

private:
    std::optional<bool> ask(std::uint64_t offset);

    os::FileDescriptor directory;
    std::uint32_t device = 0; // as the kernel writes device numbers
    /// The last stretch that the kernel told of.
    std::uint64_t knownBegin = 0;
    std::uint64_t knownEnd = 0;
    bool isKnownInUse = false;
};

} // namespace audit
