#pragma once

#include "core/operation/ICancel.h"
#include "core/operation/IPhase.h"
#include "info/log/Logger.h"

#include <memory>
#include <vector>

namespace agent::core::backup {

using Phases = std::vector<std::unique_ptr<IPhase>>;

/// Runs phases in order, with a cancellation check before each.
/// Owns:    nothing; logger and phases must outlive it.
/// Threads: the thread of the backup.
/// Fails:   `run` throws what a phase or the check throws; the later phases don't run then.
class PhaseRunner {
public:
    PhaseRunner(info::Logger& logger, const Phases& phases);
    void run(ICancel& cancel);

private:
    info::Logger& logger;
    const Phases& phases;
};

} // namespace agent::core::backup
