#pragma once

#include "os/FileDescriptor.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd::lvm {

/// Where on a device metadata may be, in bytes.
struct Place {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

/// What the label of a physical volume says.
struct PhysicalVolume {
    std::string uuid; ///< 32 letters
    std::vector<Place> metadataAreas;
};

/// Reads the label, which is in one of the first four sectors; the first sound one counts, as it does for
/// LVM. Numbers have their lowest byte first.
///
///     label       0  "LABELONE"
///                 8  number of the sector
///                16  checksum of the sector from 20 on
///                20  where the header begins, in bytes of the sector
///                24  "LVM2 001"
///     header      0  UUID of the physical volume, 32 letters
///                32  size of the device
///                40  areas of data, each an offset and a size; an offset of 0 ends the list
///                    areas of metadata, likewise
///
/// Fails: std::system_error, EBADMSG when there is no sound label.
PhysicalVolume readPhysicalVolume(const os::FileDescriptor& device);

} // namespace tolvubd::lvm
