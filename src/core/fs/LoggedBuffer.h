#pragma once

#include "common/AlignedBuffer.h"
#include "info/log/Logger.h"

#include <new>

namespace agent::core::fs {

/// Creates a buffer for direct I/O. Throws std::bad_alloc after a debug line that names the caller's file and
/// line.
inline AlignedBuffer createLoggedBuffer(std::size_t size, std::size_t alignment, info::Logger& logger,
                                        int line = __builtin_LINE(), const char* file = __builtin_FILE()) {
    try {
        return {size, alignment};
    } catch (const std::bad_alloc& error) {
        info::LogEntry(logger, info::level::debug)
            << alignedMemoryFailure(size, alignment, error.what(), line, file);
        throw;
    }
}

} // namespace agent::core::fs
