#pragma once

#include <stdexcept>

namespace zephane {

/// What can't be said by a status.
class ZephaneFTPException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace zephane
