#pragma once

#include "info/DriverState.h"

#include <cstdint>
#include <string>

namespace agent::info {

/// One device of the snapshot driver, as the driver last described it.
struct DriverDeviceInfo {
    std::int32_t minor = 0; ///< the snapshot's device is /dev/tolvu<minor>
    std::int32_t state = driver_state::noDevice;
    std::string cow_file;     ///< relative to the volume's mount point, with a leading slash
    std::string block_device; ///< the path that was passed to the driver
    std::int32_t error = 0;
};

} // namespace agent::info
