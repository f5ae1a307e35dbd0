#include "core/checksum/BufferChecksumGeneratorLibCRC32c.h"

#include "os/Crc32c.h"

namespace agent {

bool BufferChecksumGeneratorLibCRC32c::generate(const void* buffer, std::size_t size,
                                                std::uint32_t& out) const {
    out = os::crc32c(std::span(static_cast<const std::byte*>(buffer), size));
    return true;
}

} // namespace agent
