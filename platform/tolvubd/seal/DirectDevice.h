#pragma once

#include "Extents.h"
#include "Fields.h"
#include "os/AlignedBuffer.h"
#include "os/FileDescriptor.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {

/// Opens a device past its page cache, which knows nothing of what goes to the same disk by another device.
/// A write ends when it is on the disk. `flags` are O_RDONLY or O_RDWR.
os::FileDescriptor openDirect(const std::string& path, int flags);

/// Bytes at any place of a device that was opened so; it needn't be, such as an image.
Fields readDirect(const os::FileDescriptor& device, std::uint64_t offset, std::size_t length);

/// Fills the buffer from what lies at these places, one behind the other. False when they end before it is
/// full, or the device does. Places and the buffer's size are in whole 4096 bytes.
bool readPlaces(const os::FileDescriptor& device, const std::vector<Extent>& places, std::uint64_t skip,
                os::AlignedBuffer& into);
/// Writes the buffer there, through to the disk; EINVAL when the places end before.
void writePlaces(const os::FileDescriptor& device, const std::vector<Extent>& places, std::uint64_t skip,
                 const os::AlignedBuffer& from);

} // namespace tolvubd
