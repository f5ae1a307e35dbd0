#pragma once

#include <cstdint>
#include <string>

namespace agent::info {

class Logger;

/// How large a CoW file the snapshot driver is to be given for a volume.
/// Owns:    nothing.
/// Threads: safe from any.
/// Fails:   never; a setting that can't be used is replaced by a default.
class ICowFileSize {
public:
    ICowFileSize() = default;
    ICowFileSize(const ICowFileSize&) = delete;
    ICowFileSize& operator=(const ICowFileSize&) = delete;
    ICowFileSize(ICowFileSize&&) = delete;
    ICowFileSize& operator=(ICowFileSize&&) = delete;
    virtual ~ICowFileSize() = default;

    virtual std::uint64_t getCowFileSizeMiB(Logger& logger, const std::string& uuid,
                                            std::uint64_t volumeSizeBytes, const std::string& fileSystem) = 0;
};

} // namespace agent::info
