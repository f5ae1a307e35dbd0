#pragma once

#include <stdexcept>

namespace zephane::wire {

/// The other end violates the protocol. Nothing that it sends can be trusted any more.
class ProtocolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace zephane::wire
