#include "common/PosixError.h"

#include <array>
#include <cstring>

namespace agent {

PosixError::PosixError(const std::string& message, int errorNumber)
    : generic_library_error(message, "Posix", errorNumber, &PosixError::describe) {}

std::string PosixError::describe(int errorNumber) {
    std::array<char, 1024> buffer{};
    // The GNU form returns the text, which need not be in the buffer.
    return strerror_r(errorNumber, buffer.data(), buffer.size());
}

} // namespace agent
