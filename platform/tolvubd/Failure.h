#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace tolvubd {

/// Every failure is a std::system_error, because all that the caller of the library gets to see is errno.
[[noreturn]] inline void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

[[noreturn]] inline void failWithErrno(const std::string& what) {
    fail(errno, what);
}

/// Passes the result of a system call on, unless it is the one that means failure.
inline int checked(int result, const std::string& what) {
    if (result < 0) {
        failWithErrno(what);
    }
    return result;
}

} // namespace tolvubd
