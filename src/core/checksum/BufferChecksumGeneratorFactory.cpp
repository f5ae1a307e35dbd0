#include "core/checksum/BufferChecksumGeneratorFactory.h"

#include "core/checksum/BufferChecksumGeneratorGCryptCRC32.h"
#include "core/checksum/BufferChecksumGeneratorLibCRC32c.h"

namespace agent {

std::unique_ptr<IBufferChecksumGenerator>
BufferChecksumGeneratorFactory::create(db::ChecksumType type) const {
    if (type == db::ChecksumType::gcrypt32crc) {
        return std::make_unique<BufferChecksumGeneratorGCryptCRC32>();
    }
    return std::make_unique<BufferChecksumGeneratorLibCRC32c>();
}

} // namespace agent
