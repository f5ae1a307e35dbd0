#pragma once

#include <string>

namespace agent::core {

/// One step of a backup.
/// Owns:    the constructor's value arguments; whatever was passed by reference must outlive it.
/// Threads: the thread of its backup.
/// Fails:   by exception, which ends the run of the phases; CancelableOperation::cancel_op passes through
///          `execute`.
class IPhase {
public:
    virtual ~IPhase() = default;
    virtual void execute() = 0;
    /// The name for log lines.
    [[nodiscard]] virtual std::string getName() const = 0;
};

} // namespace agent::core
