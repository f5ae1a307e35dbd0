#pragma once

#include "os/AlignedBuffer.h"

#include <cstddef>
#include <string>

namespace agent {

using os::AlignedBuffer;

/// What to say when a buffer could not be made, with the caller's place in the sources.
std::string alignedMemoryFailure(std::size_t size, std::size_t alignment, const std::string& error,
                                 int line = __builtin_LINE(), const char* file = __builtin_FILE());

/// A buffer, or std::runtime_error with the text above.
AlignedBuffer createAlignedBuffer(std::size_t size, std::size_t alignment, int line = __builtin_LINE(),
                                  const char* file = __builtin_FILE());

} // namespace agent
