#pragma once

#include "info/BaseController.h"

namespace agent::info {

/// Forwards every call to libtolvubd. No other class calls these functions of the library; see
/// BaseController.
/// Owns:    nothing; the driver's state belongs to the machine.
/// Threads: any; the library serialises its calls.
/// Fails:   returns what the library returns: 0, or -1 with errno.
class TolvubdController : public BaseController {
public:
    std::int32_t setup_snapshot(std::uint32_t minor, const char* blockDevice, const char* cowFile,
                                std::uint64_t cowSizeMiB, std::uint64_t cacheSize) override;
    std::int32_t reload_snapshot(std::uint32_t minor, const char* blockDevice, const char* cowFile,
                                 std::uint64_t cacheSize) override;
    std::int32_t reload_incremental(std::uint32_t minor, const char* blockDevice, const char* cowFile,
                                    std::uint64_t cacheSize) override;
    std::int32_t destroy(std::uint32_t minor) override;
    std::int32_t transition_incremental(std::uint32_t minor) override;
    std::int32_t transition_snapshot(std::uint32_t minor, const char* cowFile,
                                     std::uint64_t cowSizeMiB) override;
    std::int32_t reconfigure(std::uint32_t minor, std::uint64_t cacheSize) override;
};

} // namespace agent::info
