#pragma once

#include <cstdint>
#include <string>

namespace agent::info {

class Logger;

/// Decides how large the CoW file of a volume's snapshot will be.
/// Owns:    nothing.
/// Threads: any thread may call it.
/// Fails:   never; a default replaces an unusable setting.
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
