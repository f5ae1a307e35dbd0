#pragma once

#include "Marker.h"
#include "RestorePlan.h"
#include "TargetDevice.h"

#include <optional>
#include <string>

namespace restore {

/// What was found on a device before anything is written to it.
struct TargetState {
    std::string content;               ///< see TargetDevice::content; empty if there is nothing to lose
    std::optional<Marker> interrupted; ///< of an earlier run with the same image, which can be gone on with
};

/// Looks whether the volume may be written there. Throws std::runtime_error, with what to do about it, if the
/// device is too small, or if it isn't empty and may not be overwritten.
TargetState examineTarget(const TargetDevice& target, const RestorePlan& plan, bool mayOverwrite);

} // namespace restore
