#include "core/operation/CancelableOperation.h"

#include <utility>

namespace agent::core {

class CancelableOperation::Cancel : public ICancel {
public:
    Cancel(const std::function<void()>& poll, const std::atomic<bool>& cancelled)
        : poll(&poll), cancelled(&cancelled) {}

    void check() override {
        if (*poll) {
            (*poll)();
        }
        if (*cancelled) {
            throw cancel_op();
        }
    }

private:
    const std::function<void()>* poll;
    const std::atomic<bool>* cancelled;
};

CancelableOperation::CancelableOperation(std::function<void()> poll) : poll(std::move(poll)) {}

bool CancelableOperation::run(const std::function<void(ICancel&)>& function) {
    Cancel cancel(poll, cancelled);
    try {
        function(cancel);
        return true;
    } catch (const cancel_op&) {
        return false;
    }
}

void CancelableOperation::cancel() {
    cancelled = true;
}

void CancelableOperation::reset() {
    cancelled = false;
}

bool CancelableOperation::isCancelled() const {
    return cancelled;
}

} // namespace agent::core
