#pragma once

#include <stdexcept>

namespace agent::ordak {

/// The call doesn't exist on this operating system; the HTTP layer answers with status 501.
class http_not_implemented : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

} // namespace agent::ordak
