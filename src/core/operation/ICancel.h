#pragma once

namespace agent::core {

/// A cancellation check, which a running operation makes at fixed points.
/// Owns:    nothing.
/// Threads: only the thread that runs the operation.
/// Fails:   `check` throws CancelableOperation::cancel_op when the operation must stop.
class ICancel {
public:
    virtual ~ICancel() = default;
    virtual void check() = 0;
};

} // namespace agent::core
