#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace zephane {

/// Why a call has failed.
struct Failure {
    int error = 0; ///< errno
    std::string text;
};

/// A call that can't be done, though nothing may be wrong with the connection.
class CallError : public std::runtime_error {
public:
    CallError(int error, const std::string& text) : std::runtime_error(text), error(error) {}

    const int error; ///< errno
};

/// What an exception of any kind comes to.
Failure failureOf(const std::exception_ptr& exception);

} // namespace zephane
