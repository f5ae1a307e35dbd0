#pragma once

#include <cstdint>

namespace agent::db {

/// How the checksum of a volume's image was computed.
enum class ChecksumType : std::int32_t {
    gcrypt32crc = 0,
    libcrc32c = 1,
};

} // namespace agent::db
