#pragma once

#include "core/operation/ICancel.h"

#include <functional>

namespace agent::core {

/// Runs a function that other threads may cancel.
/// Owns:    the cancel flag.
/// Threads: `run` on one thread at a time; `cancel`, `reset` and `isCancelled` from any thread at any time,
///          signal handlers included. `cancel` doesn't wait: it takes effect at the next check.
/// Fails:   `run` throws what the function throws, except a cancellation.
class ICancelableOperation {
public:
    virtual ~ICancelableOperation() = default;
    /// True if the function returned, false if it stopped because of a cancel.
    virtual bool run(const std::function<void(ICancel&)>& function) = 0;
    virtual void cancel() = 0;
    /// Clears the cancel flag.
    virtual void reset() = 0;
    [[nodiscard]] virtual bool isCancelled() const = 0;
};

} // namespace agent::core
