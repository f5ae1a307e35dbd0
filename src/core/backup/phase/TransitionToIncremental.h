#pragma once

#include "core/backup/ISnapshotInfo.h"
#include "core/backup/phase/PopulateVolumes.h"
#include "core/operation/IPhase.h"

namespace agent::core::backup::phase {

/// Ends the snapshots, whether the backup succeeded or not, and starts tracking changes until the next
/// backup. Replaces `snapshotInfo` with the state of the tracking.
class TransitionToIncremental : public IPhase {
public:
    TransitionToIncremental(SnapshotSessionControl& control, std::shared_ptr<ISnapshotInfo>& snapshotInfo,
                            const PopulateVolumes::Volumes& volumes, bool success);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    SnapshotSessionControl& control;
    std::shared_ptr<ISnapshotInfo>& snapshotInfo;
    const PopulateVolumes::Volumes& volumes;
    const bool success;
};

} // namespace agent::core::backup::phase
