#pragma once

#include "core/operation/CancelableOperation.h"

#include <limits>

namespace agent::test {

/// Lets `passes` checks pass and cancels at the next one.
class CountedCancel : public core::ICancel {
public:
    explicit CountedCancel(int passes = std::numeric_limits<int>::max()) : passes(passes) {}

    void check() override {
        if (checks == passes) {
            throw core::CancelableOperation::cancel_op();
        }
        ++checks;
    }

    int checks = 0; ///< how many have passed

private:
    int passes;
};

} // namespace agent::test
