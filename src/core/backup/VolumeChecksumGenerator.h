#pragma once

#include "core/backup/IVolumeChecksumGenerator.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <memory>

namespace agent::core {
class ITransport;
}

namespace agent::core::backup {

/// See IVolumeChecksumGenerator. The transport must be connected.
class VolumeChecksumGenerator : public IVolumeChecksumGenerator {
public:
    /// How many bytes at the start of the image the checksum covers. A smaller image has no checksum.
    static constexpr std::size_t regionBytes = std::size_t{10} * 1024 * 1024;

    VolumeChecksumGenerator(info::Logger& logger, std::shared_ptr<ITransport> transport);

    bool generate(db::ChecksumType type, std::uint32_t& out) override;

private:
    std::shared_ptr<ITransport> transport;
    info::Logger& logger;
};

} // namespace agent::core::backup
