#pragma once

#include "db/ChecksumType.h"

#include <cstdint>

namespace agent::core::backup {

/// Computes the checksum of the start of one volume's remote image.
/// Owns:    a share of the image's transport, if it needs one.
/// Threads: the thread that uses the transport, whose position `generate` moves.
/// Fails:   false if the image can't be read; std::runtime_error if memory runs out.
class IVolumeChecksumGenerator {
public:
    virtual ~IVolumeChecksumGenerator() = default;
    virtual bool generate(db::ChecksumType type, std::uint32_t& out) = 0;
};

} // namespace agent::core::backup
