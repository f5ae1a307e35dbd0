#pragma once

#include "core/checksum/IBufferChecksumGenerator.h"

namespace agent {

/// CRC-32C in its usual meaning: the sum of nothing is 0, and that of "123456789" 0xe3069283. See
/// IBufferChecksumGenerator. Always true.
class BufferChecksumGeneratorLibCRC32c : public IBufferChecksumGenerator {
public:
    bool generate(const void* buffer, std::size_t size, std::uint32_t& out) const override;
};

} // namespace agent
