#pragma once

#include "core/backup/IBackupPhases.h"
#include "info/log/Logger.h"

namespace agent::core::backup {

/// Runs phases in order, with a cancellation check before each.
/// Owns:    nothing; the phases outlive it.
/// Threads: one.
/// Fails:   what a phase or the check throws ends the run, and the phases behind it don't begin.
class PhaseRunner {
public:
    PhaseRunner(info::Logger& logger, const Phases& phases);
    void run(ICancel& cancel);

private:
    info::Logger& logger;
    const Phases& phases;
};

} // namespace agent::core::backup
