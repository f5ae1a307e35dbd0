#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace zephane {

struct Failure {
    int error = 0; ///< errno
    std::string text;
};

/// A call that fails although the connection may still work.
class CallError : public std::runtime_error {
public:
    CallError(int error, const std::string& text) : std::runtime_error(text), error(error) {}

    const int error; ///< errno
};

/// The errno and text for an exception of any type.
Failure failureOf(const std::exception_ptr& exception);

} // namespace zephane
