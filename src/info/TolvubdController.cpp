#include "info/TolvubdController.h"

#include <tolvubd.h>

namespace agent::info {

std::int32_t TolvubdController::setup_snapshot(std::uint32_t minor, const char* blockDevice,
                                               const char* cowFile, std::uint64_t cowSizeMiB,
                                               std::uint64_t cacheSize) {
    return ::tolvubd_setup_snapshot(minor, blockDevice, cowFile, cowSizeMiB, cacheSize);
}

std::int32_t TolvubdController::reload_snapshot(std::uint32_t minor, const char* blockDevice,
                                                const char* cowFile, std::uint64_t cacheSize) {
    return ::tolvubd_reload_snapshot(minor, blockDevice, cowFile, cacheSize);
}

std::int32_t TolvubdController::reload_incremental(std::uint32_t minor, const char* blockDevice,
                                                   const char* cowFile, std::uint64_t cacheSize) {
    return ::tolvubd_reload_incremental(minor, blockDevice, cowFile, cacheSize);
}

std::int32_t TolvubdController::destroy(std::uint32_t minor) {
    return ::tolvubd_destroy(minor);
}

std::int32_t TolvubdController::transition_incremental(std::uint32_t minor) {
    return ::tolvubd_transition_incremental(minor);
}

std::int32_t TolvubdController::transition_snapshot(std::uint32_t minor, const char* cowFile,
                                                    std::uint64_t cowSizeMiB) {
    return ::tolvubd_transition_snapshot(minor, cowFile, cowSizeMiB);
}

std::int32_t TolvubdController::reconfigure(std::uint32_t minor, std::uint64_t cacheSize) {
    return ::tolvubd_reconfigure(minor, cacheSize);
}

} // namespace agent::info
