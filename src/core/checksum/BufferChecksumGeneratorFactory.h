#pragma once

#include "core/checksum/IBufferChecksumGenerator.h"
#include "db/ChecksumType.h"

#include <memory>

namespace agent {

/// Creates the generator for the type of a stored checksum.
/// Owns:    nothing.
/// Threads: safe from any.
/// Fails:   never.
class BufferChecksumGeneratorFactory {
public:
    virtual ~BufferChecksumGeneratorFactory() = default;
    /// gcrypt32crc gives the CRC-32 that older agents have stored, every other value today's CRC-32C.
    [[nodiscard]] virtual std::unique_ptr<IBufferChecksumGenerator> create(db::ChecksumType type) const;
};

} // namespace agent
