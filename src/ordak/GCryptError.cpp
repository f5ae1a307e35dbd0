#include "ordak/GCryptError.h"

#include <array>
#include <gpg-error.h>

namespace agent::ordak {

namespace {

std::string describe(unsigned int code) {
    std::array<char, 1024> buffer{};
    gpg_strerror_r(code, buffer.data(), buffer.size()); // cuts off a long text, and always terminates it
    return buffer.data();
}

} // namespace

GCryptError::GCryptError(const std::string& message, unsigned int code)
    : generic_library_error(message, "GCRYPT", code, &describe) {}

} // namespace agent::ordak
