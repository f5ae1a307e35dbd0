#pragma once

#include "core/operation/ICancel.h"

#include <functional>

namespace agent::core {

/// Runs a function that others may ask to stop.
/// Owns:    the request to stop.
/// Threads: `run` on one thread at a time; `cancel`, `reset` and `isCancelled` from any thread at any time,
///          signal handlers included. Nobody waits: a cancel takes effect at the next check.
/// Fails:   what the function throws leaves `run`, a cancellation excepted.
class ICancelableOperation {
public:
    virtual ~ICancelableOperation() = default;
    /// True if the function returned, false if it stopped because of a cancel.
    virtual bool run(const std::function<void(ICancel&)>& function) = 0;
    virtual void cancel() = 0;
    /// Forgets a cancel that came before.
    virtual void reset() = 0;
    [[nodiscard]] virtual bool isCancelled() const = 0;
};

} // namespace agent::core
