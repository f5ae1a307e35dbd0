#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tolvubd {

/// A piece of a logical volume, in sectors of 512 bytes: that much of it from `start` on lies on a device
/// from `offset` on.
struct VolumePiece {
    std::uint64_t start = 0;
    std::uint64_t length = 0;
    dev_t device = 0;
    std::uint64_t offset = 0;

    bool operator==(const VolumePiece&) const = default;
};

/// Adds what comes next of a volume, joined to the last piece where it goes on from that: LVM's segments and
/// the kernel's targets may be cut differently.
void append(std::vector<VolumePiece>& pieces, const VolumePiece& next);

/// Where LVM's metadata says at this moment that a logical volume lies. Read from the physical volumes
/// themselves (label, metadata area, text; as `pvck --dump headers` and `pvck --dump metadata` show them),
/// not by LVM's tools, as it is asked often.
///
/// `uuid` is the volume's device-mapper UUID, "LVM-" and twice 32 letters; `devices` those on which it is
/// known to lie. None where it lies otherwise than in linear pieces on these devices, such as after a pvmove
/// to another one or with a snapshot of LVM's own, and where the volume group hasn't got it. Devices that are
/// in no group are fine.
///
/// Threads: any.
/// Fails:   std::system_error: EBADMSG when a device has no label, none has sound metadata, or what they have
///          contradicts itself; the kernel's errno where one can't be read.
std::optional<std::vector<VolumePiece>> readLogicalVolume(const std::string& uuid,
                                                          const std::vector<dev_t>& devices);

} // namespace tolvubd
