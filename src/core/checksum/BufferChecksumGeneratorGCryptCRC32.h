#pragma once

#include "core/checksum/IBufferChecksumGenerator.h"

namespace agent {

/// The CRC-32 (polynomial 0x04c11db7, reflected) of libgcrypt, its digest read as a big-endian number.
/// `generate` returns false for a null buffer, and if the library refuses the algorithm. See
/// IBufferChecksumGenerator.
class BufferChecksumGeneratorGCryptCRC32 : public IBufferChecksumGenerator {
public:
    bool generate(const void* buffer, std::size_t size, std::uint32_t& out) const override;
};

} // namespace agent
