#pragma once

namespace agent::core {

/// The question whether a running operation may go on, asked at fixed points by the thread that runs it.
/// Owns:    nothing.
/// Threads: one, the thread of the operation.
/// Fails:   `check` throws CancelableOperation::cancel_op when the operation must stop.
class ICancel {
public:
    virtual ~ICancel() = default;
    virtual void check() = 0;
};

} // namespace agent::core
