#include "core/backup/phase/TransitionToIncremental.h"

#include "core/backup/SnapshotInfo.h"

namespace agent::core::backup::phase {

TransitionToIncremental::TransitionToIncremental(SnapshotSessionControl& control,
                                                 std::shared_ptr<ISnapshotInfo>& snapshotInfo,
                                                 const PopulateVolumes::Volumes& volumes, bool success)
    : control(control), snapshotInfo(snapshotInfo), volumes(volumes), success(success) {}

void TransitionToIncremental::execute() {
    snapshotInfo = std::make_shared<SnapshotInfo>(control.transitionToIncremental(volumes, success));
}

std::string TransitionToIncremental::getName() const {
    return "Transition To Incremental";
}

} // namespace agent::core::backup::phase
