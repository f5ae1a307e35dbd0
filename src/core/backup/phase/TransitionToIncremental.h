#pragma once

#include "core/backup/ISnapshotInfo.h"
#include "core/backup/phase/PopulateVolumes.h"
#include "core/operation/IPhase.h"

namespace agent::core::backup::phase {

/// Ends the snapshots, whatever became of the backup, and has changes tracked until the next one. The facts
/// of the snapshots are replaced by those of the tracking.
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
