#pragma once

#include "lvm/PhysicalVolume.h"
#include "os/FileDescriptor.h"

#include <optional>
#include <string>

namespace tolvubd::lvm {

inline constexpr std::uint64_t largestText = std::uint64_t{16} << 20U;

/// The text that is in force in a metadata area: empty when the device is in no volume group, none when LVM
/// ignores the area.
///
/// The area begins with a header of 512 bytes; behind it is a ring in which each text follows the one before
/// it. Numbers have their lowest byte first.
///
///      0  checksum of the header from 4 on
///      4  " LVM2 x[5A%r0N*>"
///     20  version, 1
///     24  where the area begins, in bytes of the device
///     32  its size, with the header
///     40  the text in force: offset from the area's begin, size with a NUL at its end,
///         its checksum (4 bytes), flags (4 bytes; 1: the area is ignored)
///     64  likewise, of a text that is about to come into force
///
/// Fails: std::system_error, EBADMSG when header or text isn't sound.
std::optional<std::string> readMetadata(const os::FileDescriptor& device, const Place& area);

} // namespace tolvubd::lvm
