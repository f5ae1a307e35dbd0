#pragma once

#include <cstdint>
#include <string>

namespace agent::core::backup {

/// A script to run before and after the snapshot of a volume.
struct VolumeScript {
    std::string scriptname;
    std::uint32_t timeout; ///< In seconds, for each of the two runs.

    bool operator==(const VolumeScript&) const = default;
};

} // namespace agent::core::backup
