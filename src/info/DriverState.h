#pragma once

#include <cstdint>

/// The states of a device that the agent distinguishes. The driver's status may show others.
namespace agent::info::driver_state {

inline constexpr std::int32_t noDevice = -1; ///< not in the status: the driver has no device for the volume
inline constexpr std::int32_t tracking = 2;  ///< the driver records which blocks change
inline constexpr std::int32_t activeSnapshot = 3; ///< there is a snapshot to read

} // namespace agent::info::driver_state
