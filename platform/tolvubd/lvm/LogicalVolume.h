#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tolvubd {

/// A piece of a logical volume, in sectors of 512 bytes: the `length` sectors of the volume from `start` on
/// are stored on `device` from `offset` on.
struct VolumePiece {
    std::uint64_t start = 0;
    std::uint64_t length = 0;
    dev_t device = 0;
    std::uint64_t offset = 0;

    bool operator==(const VolumePiece&) const = default;
};

/// Adds the next piece of a volume, and joins it to the last one if it continues that: LVM's segments and the
/// kernel's targets may be cut differently.
void append(std::vector<VolumePiece>& pieces, const VolumePiece& next);

/// The location of a logical volume, according to LVM's metadata at this moment. Reads it from the physical
/// volumes themselves (label, metadata area, text; as `pvck --dump headers` and `pvck --dump metadata` show
/// them) rather than with LVM's tools, because it is needed often.
///
/// `uuid` is the volume's device-mapper UUID, "LVM-" and twice 32 letters; `devices` are the devices that are
/// known to hold the volume. None when the volume isn't in linear pieces on these devices, for example after
/// a pvmove to another one or with an LVM snapshot, and when the volume group doesn't have the volume.
/// Devices that are in no volume group are allowed.
///
/// Threads: any.
/// Fails:   std::system_error: EBADMSG when a device has no label, none has sound metadata, or the metadata
///          contradicts itself; the kernel's errno when a device can't be read.
std::optional<std::vector<VolumePiece>> readLogicalVolume(const std::string& uuid,
                                                          const std::vector<dev_t>& devices);

} // namespace tolvubd
