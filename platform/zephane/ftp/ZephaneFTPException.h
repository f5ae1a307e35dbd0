#pragma once

#include <stdexcept>

namespace zephane {

/// A failure that a status can't express.
class ZephaneFTPException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace zephane
