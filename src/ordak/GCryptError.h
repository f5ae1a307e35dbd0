#pragma once

#include "common/Exceptions.h"

#include <string>

namespace agent::ordak {

/// A failure of libgcrypt: the failed operation, and the library's code, with its source in the upper bits.
class GCryptError : public exception::generic_library_error<unsigned int> {
public:
    GCryptError(const std::string& message, unsigned int code);
};

} // namespace agent::ordak
