#pragma once

#include "info/ICowFileSize.h"

namespace agent {
class IConfig;
}

namespace agent::info {

/// A tenth of the volume within bounds, unless the configuration has a size for the volume.
/// Owns:    nothing; the configuration must outlive it.
/// See ICowFileSize for the rest.
class CowFileSize : public ICowFileSize {
public:
    /// The size of a volume has a key that is legal by pattern only, which `IConfig::get` doesn't know: a
    /// configuration that is no IConfigData has none.
    explicit CowFileSize(const IConfig& config);

    std::uint64_t getCowFileSizeMiB(Logger& logger, const std::string& uuid, std::uint64_t volumeSizeBytes,
                                    const std::string& fileSystem) override;

private:
    [[nodiscard]] std::uint64_t getWantedSizeMiB(Logger& logger, const std::string& uuid,
                                                 std::uint64_t volumeSizeBytes) const;
    /// Throws std::invalid_argument if the configuration has no usable size for the volume.
    [[nodiscard]] std::uint64_t getCustomSizeMiB(const std::string& uuid) const;

    const IConfig& config;
};

} // namespace agent::info
