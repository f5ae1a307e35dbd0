#pragma once

#include "db/ChecksumType.h"

#include <cstdint>

namespace agent::core::backup {

/// Sums up the start of one volume's remote image.
/// Owns:    a share of the transport to it, if it needs one.
/// Threads: the thread of the transport, whose position it moves.
/// Fails:   false if the image can't be read; std::runtime_error without memory.
class IVolumeChecksumGenerator {
public:
    virtual ~IVolumeChecksumGenerator() = default;
    virtual bool generate(db::ChecksumType type, std::uint32_t& out) = 0;
};

} // namespace agent::core::backup
