#pragma once

#include "core/checksum/IBufferChecksumGenerator.h"

namespace agent {

/// CRC-32C in its usual meaning: the sum of nothing is 0, and that of "123456789" 0xe3069283. See
/// IBufferChecksumGenerator. Always true.
///
/// The CPU's own instruction would be faster than the tables of os::crc32c, but a backup sums up only 10 MiB
/// of each volume, fetched over the network.
class BufferChecksumGeneratorLibCRC32c : public IBufferChecksumGenerator {
public:
    bool generate(const void* buffer, std::size_t size, std::uint32_t& out) const override;
};

} // namespace agent
