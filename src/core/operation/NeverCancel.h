#pragma once

#include "core/operation/ICancel.h"

namespace agent::core {

/// For work that must always run to its end, even if its backup is cancelled.
class NeverCancel : public ICancel {
public:
    void check() override {}
};

} // namespace agent::core
