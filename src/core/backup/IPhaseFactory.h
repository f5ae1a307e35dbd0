#pragma once

#include "core/backup/IBackupAttributes.h"
#include "core/backup/IBackupPhases.h"
#include "core/backup/IBackupStatusHandler.h"
#include "core/backup/ISnapshotAttributes.h"

#include <memory>

namespace agent::core::backup {

/// Makes the phases of each backup; the layer of the phases implements it.
/// Owns:    nothing of a run.
/// Threads: safe from any.
/// Fails:   by exception.
class IPhaseFactory {
public:
    virtual ~IPhaseFactory() = default;
    /// Called once a run, when no other run is under way. The status outlives what is made.
    virtual std::unique_ptr<IBackupPhases> create(std::shared_ptr<IBackupAttributes> backupAttributes,
                                                  std::shared_ptr<ISnapshotAttributes> snapshotAttributes,
                                                  IBackupStatusHandler& status) = 0;
};

} // namespace agent::core::backup
