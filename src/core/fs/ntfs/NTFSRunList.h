#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/ntfs/NTFSAttribute.h"

#include <cstdint>
#include <vector>

namespace agent::core::fs {

/// Clusters of a file that follow each other on the volume.
struct NTFSRun {
    std::int64_t lcn = 0; ///< the first one
    std::int64_t length = 0;
    bool isHole = false; ///< has no clusters; the first one is that of the run before
    bool operator==(const NTFSRun&) const = default;
};

/// Where the content of a file is, from its begin to its end.
struct NTFSRunList {
    std::vector<NTFSRun> runs;
    const char* objection =
        nullptr; ///< why they aren't all of the list, or not to be relied on; null if they are
};

/// The list of runs of a non-resident attribute. Throws std::runtime_error if there is none, or if it goes on
/// behind the attribute.
NTFSRunList decodeRunList(const NTFSAttribute& attribute);

/// The same of data. Throws std::runtime_error also if the attribute isn't data, or is resident.
NTFSRunList runsOf(const NTFSAttribute& attribute);

} // namespace agent::core::fs
