#pragma once

#include <string>

namespace agent::core {

/// One step of a backup.
/// Owns:    what it was constructed with, by value; what it refers to outlives it.
/// Threads: the thread of its backup.
/// Fails:   by exception, which ends the run of the phases; a CancelableOperation::cancel_op passes through
/// it.
class IPhase {
public:
    virtual ~IPhase() = default;
    virtual void execute() = 0;
    /// The name for log lines.
    [[nodiscard]] virtual std::string getName() const = 0;
};

} // namespace agent::core
