#pragma once

#include "info/ICowFileSize.h"

namespace agent {
class IConfigData;
}

namespace agent::info {

/// A tenth of the volume within bounds, unless the configuration has a size for the volume.
/// Owns:    nothing; the configuration must outlive it.
/// See ICowFileSize for the rest.
class CowFileSize : public ICowFileSize {
public:
    /// The key of a volume's size is legal by pattern only, hence not an IConfig but the whole of the data.
    explicit CowFileSize(const IConfigData& config);

    std::uint64_t getCowFileSizeMiB(Logger& logger, const std::string& uuid, std::uint64_t volumeSizeBytes,
                                    const std::string& fileSystem) override;

private:
    [[nodiscard]] std::uint64_t getWantedSizeMiB(Logger& logger, const std::string& uuid,
                                                 std::uint64_t volumeSizeBytes) const;
    /// Throws std::invalid_argument if the configuration has no usable size for the volume.
    [[nodiscard]] std::uint64_t getCustomSizeMiB(const std::string& uuid) const;

    const IConfigData& config;
};

} // namespace agent::info
