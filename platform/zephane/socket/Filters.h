#pragma once

#include "zephane/socket/Filter.h"

#include <memory>
#include <vector>

namespace zephane {

/// The filters of a connection; either list may be empty. No other connection may use the same filters.
struct Filters {
    std::vector<std::shared_ptr<Filter>> reading;
    std::vector<std::shared_ptr<Filter>> writing; ///< both in the order in which the bytes pass
};

} // namespace zephane
