#pragma once

#include <cstdint>

/// The states of a device in the driver's status that the agent tells apart. All others are the driver's own.
namespace agent::info::driver_state {

inline constexpr std::int32_t noDevice = -1; ///< the agent's own: the driver has no device for the volume
inline constexpr std::int32_t tracking = 2;  ///< what changes is recorded
inline constexpr std::int32_t activeSnapshot = 3; ///< there is a snapshot to read

} // namespace agent::info::driver_state
