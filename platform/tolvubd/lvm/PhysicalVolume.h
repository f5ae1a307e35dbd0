#pragma once

#include "os/FileDescriptor.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd::lvm {

/// A metadata area on a device, in bytes.
struct Place {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

/// The content of a physical volume's label.
struct PhysicalVolume {
    std::string uuid; ///< 32 letters
    std::vector<Place> metadataAreas;
};

/// Reads the label, which is in one of the first four sectors; the first sound one counts, as in LVM. Numbers
/// are little endian.
///
///     label       0  "LABELONE"
///                 8  number of the sector
///                16  checksum of the sector from 20 on
///                20  offset of the header in the sector, in bytes
///                24  "LVM2 001"
///     header      0  UUID of the physical volume, 32 letters
///                32  size of the device
///                40  areas of data, each an offset and a size; an offset of 0 ends the list
///                    areas of metadata, likewise
///
/// Fails: std::system_error, EBADMSG when there is no sound label.
PhysicalVolume readPhysicalVolume(const os::FileDescriptor& device);

} // namespace tolvubd::lvm
