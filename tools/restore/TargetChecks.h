#pragma once

#include "Marker.h"
#include "RestorePlan.h"
#include "TargetDevice.h"

#include <optional>
#include <string>

namespace restore {

/// The state of a device before anything is written to it.
struct TargetState {
    std::string content;               ///< see TargetDevice::content; empty if there is nothing to lose
    std::optional<Marker> interrupted; ///< of an earlier run with the same image, which can be resumed
};

/// Checks whether the volume may be written to the device. Throws std::runtime_error, which says what to do,
/// if the device is too small, or if it isn't empty and mustn't be overwritten.
TargetState examineTarget(const TargetDevice& target, const RestorePlan& plan, bool mayOverwrite);

} // namespace restore
