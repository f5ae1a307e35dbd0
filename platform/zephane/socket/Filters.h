#pragma once

#include "zephane/socket/Filter.h"

#include <memory>
#include <vector>

namespace zephane {

/// The filters of a connection; either list may be empty. Each is shared with nobody who uses it.
struct Filters {
    std::vector<std::shared_ptr<Filter>> reading;
    std::vector<std::shared_ptr<Filter>> writing; ///< in the order in which the bytes pass them
};

} // namespace zephane
