#pragma once

#include "lvm/PhysicalVolume.h"
#include "os/FileDescriptor.h"

#include <optional>
#include <string>

namespace tolvubd::lvm {

inline constexpr std::uint64_t largestText = std::uint64_t{16} << 20U;

/// The current text of a metadata area: empty when the device is in no volume group, none when the area is
/// marked as ignored.
///
/// The area begins with a header of 512 bytes. After it comes a ring, in which each text follows the previous
/// one. Numbers are little endian.
///
///      0  checksum of the header from 4 on
///      4  " LVM2 x[5A%r0N*>"
///     20  version, 1
///     24  start of the area on the device, in bytes
///     32  size of the area, including the header
///     40  the current text: offset from the start of the area, size including a final NUL,
///         its checksum (4 bytes), flags (4 bytes; 1: the area is ignored)
///     64  likewise, of a text that is about to become current
///
/// Fails: std::system_error, EBADMSG when header or text isn't sound.
std::optional<std::string> readMetadata(const os::FileDescriptor& device, const Place& area);

} // namespace tolvubd::lvm
