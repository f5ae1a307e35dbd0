#pragma once

#include "core/checksum/IBufferChecksumGenerator.h"

namespace agent {

/// The usual CRC-32C: the checksum of no bytes is 0, and the checksum of "123456789" is 0xe3069283.
/// `generate` always returns true. See IBufferChecksumGenerator.
class BufferChecksumGeneratorLibCRC32c : public IBufferChecksumGenerator {
public:
    bool generate(const void* buffer, std::size_t size, std::uint32_t& out) const override;
};

} // namespace agent
