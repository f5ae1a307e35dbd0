#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/ntfs/NTFSAttribute.h"

#include <cstdint>
#include <vector>

namespace agent::core::fs {

/// Adjacent clusters of a file on the volume.
struct NTFSRun {
    std::int64_t lcn = 0; ///< the first cluster, on the volume
    std::int64_t length = 0;
    bool isHole = false; ///< has no clusters; `lcn` is the previous run's
    bool operator==(const NTFSRun&) const = default;
};

/// Where the content of a file is, from its start to its end.
struct NTFSRunList {
    std::vector<NTFSRun> runs;
    const char* whyUnusable = nullptr; ///< why `runs` is incomplete or not plausible; null if all is well
};

/// Decodes the run list of a non-resident attribute. Throws std::runtime_error if there is none, or if it
/// extends past the attribute.
NTFSRunList decodeRunList(const NTFSAttribute& attribute);

/// Like decodeRunList, but also throws std::runtime_error if the attribute isn't data, or is resident.
NTFSRunList runsOf(const NTFSAttribute& attribute);

} // namespace agent::core::fs
