#pragma once

#include "lvm/LogicalVolume.h"
#include "lvm/MetadataText.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tolvubd::lvm {

/// Devices by the UUIDs of the physical volumes on them, 32 letters each.
using PhysicalDevices = std::map<std::string, dev_t>;

/// A volume group, as described by the text of a metadata area:
///
///     NAME {
///       id, seqno, extent_size (sectors)
///       physical_volumes { NAME { id, pe_start (sectors), pe_count } }
///       logical_volumes { NAME { id, status, segment_count,
///         segmentN { start_extent, extent_count, type, stripe_count,
///           stripes = ["physical volume", extent] } } }
///     }
///
/// Owns:    the text.
/// Threads: any.
/// Fails:   std::system_error, EBADMSG when the text doesn't describe a volume group or contradicts itself.
class VolumeGroup {
public:
    explicit VolumeGroup(std::string content);
    VolumeGroup(VolumeGroup&&) = delete;
    VolumeGroup(const VolumeGroup&) = delete;
    VolumeGroup& operator=(VolumeGroup&&) = delete;
    VolumeGroup& operator=(const VolumeGroup&) = delete;
    ~VolumeGroup() = default;

    /// The UUID, 32 letters.
    [[nodiscard]] std::string uuid() const;
    /// Increases with each change of the group.
    [[nodiscard]] std::uint64_t sequence() const;
    /// The location of the volume with this UUID (32 letters); none when it isn't in linear pieces on these
    /// devices.
    [[nodiscard]] std::optional<std::vector<VolumePiece>> piecesOf(const std::string& volume,
                                                                   const PhysicalDevices& devices) const;

private:
    std::string text;
    Section whole;                  ///< points into `text`
    const Section* group = nullptr; ///< in `whole`
};

} // namespace tolvubd::lvm
