#pragma once

#include "common/Exceptions.h"

#include <string>

namespace agent {

/// A failed system call: a message and the value that `errno` had.
class PosixError : public exception::generic_library_error<int> {
public:
    PosixError(const std::string& message, int errorNumber);

    /// The system's description of an `errno` value. Any thread may call this.
    static std::string describe(int errorNumber);
};

} // namespace agent
