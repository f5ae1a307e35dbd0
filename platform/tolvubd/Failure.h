#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace tolvubd {

/// Every failure is a std::system_error, because callers of the library only see errno.
[[noreturn]] inline void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

[[noreturn]] inline void failWithErrno(const std::string& what) {
    fail(errno, what);
}

/// Returns the result of a system call; throws if it is negative, which means failure.
inline int checked(int result, const std::string& what) {
    if (result < 0) {
        failWithErrno(what);
    }
    return result;
}

} // namespace tolvubd
