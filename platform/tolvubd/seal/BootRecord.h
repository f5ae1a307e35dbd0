#pragma once

#include "Extents.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {

/// The information about the tracked volumes that is needed before any file system is mounted. The file is on
/// the root file system, with a copy in the initramfs. It changes only when tracking or adoption of a volume
/// begins or ends.
struct BootRecord {
    struct Volume {
        std::string id;     ///< Layers::id
        std::string volume; ///< device-mapper UUID
        std::uint64_t size = 0;
        std::vector<Extent> eraFile;

        bool operator==(const Volume&) const = default;
    };
    /// A partition that the initramfs puts a linear device on, so that it can be tracked.
    struct Adopted {
        std::string partition; ///< its PARTUUID
        std::string name;      ///< of the linear device

        bool operator==(const Adopted&) const = default;
    };
    std::vector<Volume> volumes;
    std::vector<Adopted> adopted;

    bool operator==(const BootRecord&) const = default;
};

/// Reads the file at `path`, layout::bootRecord in practice. A missing file counts as an empty record; an
/// invalid one fails with EBADMSG.
BootRecord readBootRecord(const std::string& path);
/// Writes the file durably, unless it has this content already.
void writeBootRecord(const std::string& path, const BootRecord& record);

} // namespace tolvubd
