#pragma once

#include "core/operation/ICancel.h"
#include "core/operation/IPhase.h"
#include "info/log/Logger.h"

#include <memory>
#include <vector>

namespace agent::core::backup {

using Phases = std::vector<std::unique_ptr<IPhase>>;

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
