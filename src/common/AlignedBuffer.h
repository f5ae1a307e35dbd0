#pragma once

#include "os/AlignedBuffer.h"

#include <cstddef>
#include <string>

namespace agent {

using os::AlignedBuffer;

/// The error text for a buffer that can't be allocated. It names the caller's source file and line.
std::string alignedMemoryFailure(std::size_t size, std::size_t alignment, const std::string& error,
                                 int line = __builtin_LINE(), const char* file = __builtin_FILE());

/// Allocates a buffer. Throws std::runtime_error with the text of alignedMemoryFailure.
AlignedBuffer createAlignedBuffer(std::size_t size, std::size_t alignment, int line = __builtin_LINE(),
                                  const char* file = __builtin_FILE());

} // namespace agent
