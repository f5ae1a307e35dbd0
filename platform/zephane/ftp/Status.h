#pragma once

#include <string>

namespace zephane {

/// How a call has ended.
struct Status {
    int code = 0;     ///< 0 for success, or negative: an errno, or `alreadyClosed`
    std::string text; ///< why, in words

    /// There was nothing to close: the connection had ended before, and nothing was owed to it.
    static constexpr int alreadyClosed = -26;
};

} // namespace zephane
