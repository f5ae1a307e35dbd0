#pragma once

#include <string>

namespace zephane {

/// The result of a call.
struct Status {
    int code = 0;     ///< 0 for success, or negative: an errno, or `alreadyClosed`
    std::string text; ///< the reason, in words

    /// There was nothing to close: the connection had ended before, and no written data was lost with it.
    static constexpr int alreadyClosed = -26;
};

} // namespace zephane
