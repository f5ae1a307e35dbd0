#pragma once

#include "Extents.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {

/// What has to be known of a tracked volume before any file system is mounted: it is on the root file system,
/// and a copy in the initramfs. It changes only when tracking of a volume begins or ends.
struct BootRecord {
    struct Volume {
        std::string id;     ///< Layers::id
        std::string volume; ///< device-mapper UUID
        std::uint64_t size = 0;
        std::vector<Extent> eraFile;

        bool operator==(const Volume&) const = default;
    };
    /// A partition that is to be found on a linear device of its own, so that it can be tracked.
    struct Adopted {
        std::string partition; ///< its PARTUUID
        std::string name;      ///< of the linear device

        bool operator==(const Adopted&) const = default;
    };
    std::vector<Volume> volumes;
    std::vector<Adopted> adopted;

    bool operator==(const BootRecord&) const = default;
};

/// From and to layout::bootRecord. A file that isn't there is an empty record; one that isn't sound fails
/// with EBADMSG.
BootRecord readBootRecord(const std::string& path);
/// Durably, and only if it differs from what is there.
void writeBootRecord(const std::string& path, const BootRecord& record);

} // namespace tolvubd
