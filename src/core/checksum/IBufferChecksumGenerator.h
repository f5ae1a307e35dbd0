#pragma once

#include <cstddef>
#include <cstdint>

namespace agent {

/// Sums up one buffer. Sums of different implementations have nothing to do with each other.
/// Owns:    nothing.
/// Threads: keeps no state between calls; safe from any.
/// Fails:   `generate` returns false and leaves `out` alone.
class IBufferChecksumGenerator {
public:
    virtual ~IBufferChecksumGenerator() = default;
    /// `size` bytes from `buffer` on.
    virtual bool generate(const void* buffer, std::size_t size, std::uint32_t& out) const = 0;
};

} // namespace agent
