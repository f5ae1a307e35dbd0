#pragma once

#include "Extents.h"
#include "Fields.h"
#include "os/AlignedBuffer.h"
#include "os/FileDescriptor.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {

/// Opens a device with O_DIRECT | O_DSYNC: its page cache doesn't see what is written to the same disk
/// through another device, and a write returns when the data is on the disk. `flags` are O_RDONLY or O_RDWR.
os::FileDescriptor openDirect(const std::string& path, int flags);

/// Reads bytes at any offset of a file opened by openDirect; also works on other files, such as an image.
Fields readDirect(const os::FileDescriptor& device, std::uint64_t offset, std::size_t length);

/// Fills the buffer from these extents in their order, after the first `skip` bytes. Returns false when the
/// extents or the device end before the buffer is full. All sizes and offsets are multiples of 4096 bytes.
bool readPlaces(const os::FileDescriptor& device, const std::vector<Extent>& places, std::uint64_t skip,
                os::AlignedBuffer& into);
/// Writes the buffer to these extents, through to the disk. Throws EINVAL when the extents end before the
/// buffer.
void writePlaces(const os::FileDescriptor& device, const std::vector<Extent>& places, std::uint64_t skip,
                 const os::AlignedBuffer& from);

} // namespace tolvubd
