#pragma once

#include "core/operation/ICancelableOperation.h"

#include <atomic>
#include <functional>

namespace agent::core {

/// See ICancelableOperation. Each check first calls the poll function, if there is one; that function may
/// call `cancel`.
class CancelableOperation : public ICancelableOperation {
public:
    /// Thrown to cancel. It isn't a std::exception, so that handlers of std::exception can't swallow a
    /// cancel.
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
