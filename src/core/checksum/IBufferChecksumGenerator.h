#pragma once

#include <cstddef>
#include <cstdint>

namespace agent {

/// Computes the checksum of one buffer. Checksums of different implementations can't be compared.
/// Owns:    nothing.
/// Threads: keeps no state between calls; safe from any.
/// Fails:   `generate` returns false and leaves `out` unchanged.
class IBufferChecksumGenerator {
public:
    virtual ~IBufferChecksumGenerator() = default;
    /// `size` is in bytes.
    virtual bool generate(const void* buffer, std::size_t size, std::uint32_t& out) const = 0;
};

} // namespace agent
