#include "TargetChecks.h"

#include <stdexcept>

namespace restore {

namespace {

std::string contentOf(const TargetDevice& target, bool hasMarker) {
    return hasMarker
               ? "what an interrupted run has brought of another image, or of this one before its last backup"
               : target.content();
}

} // namespace

TargetState examineTarget(const TargetDevice& target, const RestorePlan& plan, bool mayOverwrite) {
    if (target.size() < plan.volumeBytes) {
        throw std::runtime_error(target.path() + " has " + std::to_string(target.size()) +
                                 " bytes, which are too few for a volume of " +
                                 std::to_string(plan.volumeBytes) +
                                 ". Choose a larger device, or make the partition or logical volume larger");
    }
    TargetState state;
    const std::optional<Marker> marker = target.marker();
    if (marker && marker->volumeBytes == plan.volumeBytes && marker->identity == plan.identity &&
        marker->position >= RestorePlan::headBytes && marker->position <= plan.volumeBytes) {
        state.interrupted = marker;
        return state;
    }
    state.content = contentOf(target, marker.has_value());
    if (!state.content.empty() && !mayOverwrite) {
        throw std::runtime_error(target.path() + " isn't empty: there is " + state.content +
                                 ". If that may be lost, say --overwrite; if not, choose another device");
    }
    return state;
}

} // namespace restore
