#pragma once

#include "info/ICowFileSize.h"

#include <cstdint>

namespace agent {
class IConfig;
}

namespace agent::info {

/// The smallest size of a CoW file.
inline constexpr std::uint64_t minCowFileMiB = 100;

/// The default size is a tenth of the volume, within bounds. The configuration may set another size for each
/// volume.
/// Owns:    nothing; the configuration must outlive it.
/// Threads: any thread may call it.
/// Fails:   never; a default replaces an unusable setting.
class CowFileSize : public ICowFileSize {
public:
    /// Only a `config` that is an IConfigData can have a size for a volume: its key is only allowed by a
    /// pattern, and `IConfig::get` doesn't know such keys.
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
