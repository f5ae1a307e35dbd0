#include <cerrno>
#include <cstdint>
#include <tolvubd.h>

/// The control library as the kernel driver's package provides it, on a machine that hasn't loaded the
/// driver: the seven functions, without status files.
namespace {

std::int32_t withoutDriver() {
    errno = ENODEV;
    return -1;
}

} // namespace

std::int32_t tolvubd_setup_snapshot(std::uint32_t /*minor*/, const char* /*device*/, const char* /*cowPath*/,
                                    std::uint64_t /*cowSize*/, std::uint64_t /*cacheSize*/) {
    return withoutDriver();
}

std::int32_t tolvubd_transition_snapshot(std::uint32_t /*minor*/, const char* /*cowPath*/,
                                         std::uint64_t /*cowSize*/) {
    return withoutDriver();
}

std::int32_t tolvubd_transition_incremental(std::uint32_t /*minor*/) {
    return withoutDriver();
}

std::int32_t tolvubd_reload_snapshot(std::uint32_t /*minor*/, const char* /*device*/, const char* /*cowPath*/,
                                     std::uint64_t /*cacheSize*/) {
    return withoutDriver();
}

std::int32_t tolvubd_reload_incremental(std::uint32_t /*minor*/, const char* /*device*/,
                                        const char* /*cowPath*/, std::uint64_t /*cacheSize*/) {
    return withoutDriver();
}

std::int32_t tolvubd_reconfigure(std::uint32_t /*minor*/, std::uint64_t /*cacheSize*/) {
    return withoutDriver();
}

std::int32_t tolvubd_destroy(std::uint32_t /*minor*/) {
    return withoutDriver();
}
