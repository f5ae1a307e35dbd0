#pragma once

#include "common/Exceptions.h"

#include <gnutls/gnutls.h>
#include <string>

namespace agent::ordak {

/// A failure of GnuTLS: the failed operation, and the library's error code.
class GnuTlsError : public exception::generic_library_error<int> {
public:
    GnuTlsError(const std::string& message, int code)
        : generic_library_error(message, "GnuTls", code,
                                [](int failed) -> std::string { return gnutls_strerror(failed); }) {}
};

} // namespace agent::ordak
