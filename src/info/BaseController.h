#pragma once

#include <cstdint>

namespace agent::info {

/// The functions of the driver's control library, under the library's own names. Each waits for the driver.
/// Owns:    nothing.
/// Threads: one thread at a time.
/// Fails:   each function returns a result other than 0 and sets `errno`.
class BaseController {
public:
    BaseController() = default;
    BaseController(const BaseController&) = delete;
    BaseController& operator=(const BaseController&) = delete;
    BaseController(BaseController&&) = delete;
    BaseController& operator=(BaseController&&) = delete;
    virtual ~BaseController() = default;

    virtual std::int32_t setup_snapshot(std::uint32_t minor, const char* blockDevice, const char* cowFile,
                                        std::uint64_t cowSizeMiB, std::uint64_t cacheSize) = 0;
    virtual std::int32_t reload_snapshot(std::uint32_t minor, const char* blockDevice, const char* cowFile,
                                         std::uint64_t cacheSize) = 0;
    virtual std::int32_t reload_incremental(std::uint32_t minor, const char* blockDevice, const char* cowFile,
                                            std::uint64_t cacheSize) = 0;
    virtual std::int32_t destroy(std::uint32_t minor) = 0;
    virtual std::int32_t transition_incremental(std::uint32_t minor) = 0;
    virtual std::int32_t transition_snapshot(std::uint32_t minor, const char* cowFile,
                                             std::uint64_t cowSizeMiB) = 0;
    virtual std::int32_t reconfigure(std::uint32_t minor, std::uint64_t cacheSize) = 0;
};

} // namespace agent::info
