#pragma once

#include "core/operation/ICancelableOperation.h"

#include <atomic>
#include <functional>

namespace agent::core {

/// See ICancelableOperation. Each check first calls a poll function, if there is one, which may itself
/// cancel.
class CancelableOperation : public ICancelableOperation {
public:
    /// The one thrown type that is no std::exception, so that a handler for those can't swallow a cancel.
    class cancel_op {};

    explicit CancelableOperation(std::function<void()> poll = {});

    bool run(const std::function<void(ICancel&)>& function) override;
    void cancel() override;
    void reset() override;
    [[nodiscard]] bool isCancelled() const override;

private:
    class Cancel;

    std::function<void()> poll;
    std::atomic<bool> cancelled = false;
};

} // namespace agent::core
