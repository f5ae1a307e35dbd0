#pragma once

#include "core/operation/ICancel.h"

namespace agent::core {

/// For what must always run to its end, whatever happens to the backup around it.
class NeverCancel : public ICancel {
public:
    void check() override {}
};

} // namespace agent::core
