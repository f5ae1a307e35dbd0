#pragma once

#include "core/operation/ICancel.h"
#include "core/operation/IPhase.h"

#include <memory>
#include <vector>

namespace agent::core::backup {

class BackupSession;

using Phases = std::vector<std::unique_ptr<IPhase>>;

/// The phases of one run of a backup, and all that they share between them: the volumes, the snapshots.
/// Owns:    what the phases share. The phases refer to it and are destroyed before it.
/// Threads: the thread of the backup.
/// Fails:   by exception, which fails the run.
class IBackupPhases {
public:
    virtual ~IBackupPhases() = default;
    /// Finds the volumes. Runs alone, before anything else can be known.
    virtual Phases populate() = 0;
    /// The backup itself, one copy for each volume found. Asked for when the phases of `populate` have run.
    virtual Phases transfer(BackupSession& session, ICancel& cancel) = 0;
    /// What must follow every backup, whatever became of it; `success` tells which.
    virtual Phases conclude(bool success) = 0;
};

} // namespace agent::core::backup
